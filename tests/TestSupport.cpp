// Shared test fixtures; see TestSupport.h.
#include "TestSupport.h"

#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>

extern char** environ;

namespace testing_support {

ScopedTempDir::ScopedTempDir() {
  std::string templ = (std::filesystem::temp_directory_path() / "lumetry-test-XXXXXX").string();
  if (::mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = templ;
}

ScopedTempDir::~ScopedTempDir() {
  // Depth first; write permission is restored so read-only test trees go too.
  const auto remove = [](const char* path, const struct stat*, int, struct FTW*) {
    ::chmod(path, 0700);
    return ::remove(path);
  };
  ::nftw(path_.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
}

std::string ScopedTempDir::Sub(const std::string& relative) const { return path_ + "/" + relative; }

ScopedEnv::ScopedEnv(const std::string& name, const std::string& value) : name_(name) {
  const char* old = std::getenv(name.c_str());
  had_old_ = old != nullptr;
  if (had_old_) old_ = old;
  ::setenv(name.c_str(), value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
  had_old_ ? ::setenv(name_.c_str(), old_.c_str(), 1) : ::unsetenv(name_.c_str());
}

ScopedHome::ScopedHome() : env_("HOME", dir_.path()) {}

bool ReadFile(const std::string& path, std::string* contents) {
  std::ifstream in(path, std::ios::binary);
  if (in) contents->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return static_cast<bool>(in);
}

std::string Contents(const std::string& path) {
  std::string text;
  return ReadFile(path, &text) ? text : "<unreadable " + path + ">";
}

bool MakeDirs(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return !path.empty() && std::filesystem::is_directory(path, error);
}

bool WriteFile(const std::string& path, const std::string& contents) {
  const size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0 && !MakeDirs(path.substr(0, slash))) return false;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  return out && (out << contents).flush();
}

bool PathExists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> ListNames(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

int FileMode(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return -1;
  return static_cast<int>(st.st_mode & 07777);
}

std::string CrashDocument(const std::string& id, const std::string& crashFamily,
                          const std::string& crashName, const std::string& machineId) {
  // @I, @F, @N and @M stand for the arguments, in one pass (values may hold '@').
  static const std::string kTemplate = R"(<?xml version="1.0" encoding="utf-8"?>

<UsageDoc version="0.5.5">
<StartSession id="@I" time="T" seq="0" />
<NewGroup category="Lumetry" subcategory="Crash" name="Session" time="T" group="0" doc="NOVALUE" seq="1" />
<DataRec time="T" group="0" name="ProductFamily" data="LumetryQX" seq="2" />
<DataRec time="T" group="0" name="ProductName" data="AppCrash" seq="3" />
<NewGroup category="AppExit" subcategory="Crash" name="ExitInfo" time="T" group="1" doc="NOVALUE" seq="4" />
<DataRec time="T" group="1" name="ExitType" data="Crash" seq="5" />
<DataRec time="T" group="1" name="CrashProductName" data="@N" seq="6" />
<DataRec time="T" group="1" name="CrashProductFamily" data="@F" seq="7" />
<DataRec time="T" group="1" name="MachineID" data="@M" seq="8" />
<EndSession id="@I" time="T" seq="9" />
</UsageDoc>
)";
  std::string doc;
  for (std::size_t i = 0; i < kTemplate.size(); ++i) {
    const char key = kTemplate[i] == '@' ? kTemplate[++i] : '\0';
    if (key == '\0')
      doc += kTemplate[i];
    else
      doc += key == 'I' ? id : key == 'F' ? crashFamily : key == 'N' ? crashName : machineId;
  }
  return doc;
}

bool WritePlist(const std::string& path, const std::string& json, bool binary) {
  const char* script =
      "import json, plistlib, sys; plistlib.dump(json.loads(sys.argv[2]), open(sys.argv[1], 'wb'), "
      "fmt=getattr(plistlib, sys.argv[3]))";
  const RunResult run = MakeDirs(std::filesystem::path(path).parent_path().string())
                            ? RunProgram({"/usr/bin/python3", "-c", script, path, json,
                                          binary ? "FMT_BINARY" : "FMT_XML"})
                            : RunResult{};
  if (run.status != 0) ADD_FAILURE() << path << ": " << run.err;
  return run.status == 0;
}

std::string MaskTimes(const std::string& text) {
  static const std::regex kStamp(R"(time="\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ")");
  return std::regex_replace(text, kStamp, "time=\"T\"");
}

std::string Rot47(std::string text) {
  for (char& c : text) {
    const auto b = static_cast<unsigned char>(c);
    if (b >= 33 && b <= 126) c = static_cast<char>(b + 47 <= 126 ? b + 47 : b - 47);
  }
  return text;
}

int StartProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                 const std::string& out, const std::string& err) {
  if (argv.empty()) return -1;
  // The caller's entries replace inherited ones of the same name.
  const auto name = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
  std::vector<std::string> environment = env;
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::none_of(env.begin(), env.end(),
                     [&](const std::string& o) { return name(o) == name(*e); }))
      environment.push_back(*e);
  }
  const auto pointers = [](const std::vector<std::string>& strings) {
    std::vector<char*> list;
    for (const std::string& s : strings) list.push_back(const_cast<char*>(s.c_str()));
    list.push_back(nullptr);
    return list;
  };
  std::vector<char*> cargv = pointers(argv), cenv = pointers(environment);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  for (const auto& [fd, path] : {std::pair<int, const std::string&>{1, out}, {2, err}}) {
    if (!path.empty())
      posix_spawn_file_actions_addopen(&actions, fd, path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                       0600);
  }
  pid_t pid = -1;
  const int rc = ::posix_spawn(&pid, cargv[0], &actions, nullptr, cargv.data(), cenv.data());
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? pid : -1;
}

RunResult RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  // The output goes to files, so neither a chatty child nor a grandchild that
  // keeps the descriptors can block the caller.
  const ScopedTempDir dir;
  const std::string out = dir.Sub("out"), err = dir.Sub("err");
  RunResult result;
  const pid_t pid = StartProgram(argv, env, out, err);
  if (pid < 0) return result;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.status = 128 + WTERMSIG(status);
  ReadFile(out, &result.out);
  ReadFile(err, &result.err);
  return result;
}

namespace {
// Sets or clears the immutable flag of `dir`; false when it cannot.
bool SetImmutable(const std::string& dir, bool on) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  int flags = 0;
  const bool done = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 &&
                    (flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL,
                     ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0);
  if (fd >= 0) ::close(fd);
  return done;
}
}  // namespace

ScopedNoNewFiles::ScopedNoNewFiles(const std::string& dir) : dir_(dir) {
  if (::geteuid() == 0) {
    if (SetImmutable(dir, true)) how_ = How::kImmutable;
  } else if (::chmod(dir.c_str(), 0555) == 0) {
    how_ = How::kMode;
  }
}

ScopedNoNewFiles::~ScopedNoNewFiles() {
  if (how_ == How::kImmutable) SetImmutable(dir_, false);
  if (how_ == How::kMode) ::chmod(dir_.c_str(), 0755);
}

std::string NestedBinaryArrays(std::uint32_t depth, bool loop) {
  const auto be = [](std::uint64_t value, int width) {
    std::string out;
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
      out += static_cast<char>(value >> shift);
    return out;
  };
  std::string bytes = "bplist00";
  std::string table;
  for (std::uint32_t i = 0; i < depth; ++i) {
    table += be(bytes.size(), 4);
    const bool last = i + 1 == depth;
    bytes += (last && !loop) ? std::string(1, '\xA0') : '\xA1' + be(last ? 0 : i + 1, 4);
  }
  const std::size_t table_offset = bytes.size();
  return bytes + table + std::string(6, '\0') + '\x04' + '\x04' + be(depth, 8) + be(0, 8) +
         be(table_offset, 8);
}

// Present only in a coverage build.
extern "C" void __gcov_dump() __attribute__((weak));  // NOLINT(bugprone-reserved-identifier)

void ExitChild(int code) {
  if (__gcov_dump != nullptr) __gcov_dump();
  ::_exit(code);
}

bool AgeFile(const std::string& path, long seconds) {
  struct timespec times[2];
  ::clock_gettime(CLOCK_REALTIME, &times[0]);
  times[0].tv_sec -= seconds;
  times[1] = times[0];
  return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
}

}  // namespace testing_support
