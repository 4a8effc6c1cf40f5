// Shared test fixtures; see TestSupport.h.
#include "TestSupport.h"

#include <fcntl.h>
#include <ftw.h>
#include <linux/fs.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace testing_support {
namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
  // Restore write permission so read-only test trees can be removed too.
  ::chmod(path, 0700);
  return ::remove(path);
}

void RemoveTree(const std::string& path) {
  // Make every directory writable first (depth-first walk removes children).
  ::nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string ReadAllFromFd(int fd) {
  std::string data;
  char buffer[4096];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      data.append(buffer, static_cast<size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      break;
    }
  }
  return data;
}

}  // namespace

ScopedTempDir::ScopedTempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string templ = std::string(base && *base ? base : "/tmp") + "/lumetry-test-XXXXXX";
  std::vector<char> buffer(templ.begin(), templ.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  path_ = buffer.data();
}

ScopedTempDir::~ScopedTempDir() { RemoveTree(path_); }

std::string ScopedTempDir::Sub(const std::string& relative) const { return path_ + "/" + relative; }

ScopedEnv::ScopedEnv(const std::string& name, const std::string& value) : name_(name) {
  const char* old = std::getenv(name.c_str());
  had_old_ = old != nullptr;
  if (had_old_) old_ = old;
  ::setenv(name.c_str(), value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
  if (had_old_) {
    ::setenv(name_.c_str(), old_.c_str(), 1);
  } else {
    ::unsetenv(name_.c_str());
  }
}

ScopedHome::ScopedHome() : env_("HOME", dir_.path()) {}

bool ReadFile(const std::string& path, std::string* contents) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buffer;
  buffer << in.rdbuf();
  *contents = buffer.str();
  return true;
}

bool MakeDirs(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return !path.empty() && std::filesystem::is_directory(path, error);
}

bool WriteFile(const std::string& path, const std::string& contents) {
  size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0 && !MakeDirs(path.substr(0, slash))) {
    return false;
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return false;
  out << contents;
  return static_cast<bool>(out.flush());
}

bool PathExists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> ListNames(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    names.push_back(entry.path().filename().string());
  }
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
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n\n<UsageDoc version=\"0.5.5\">\n"
         "<StartSession id=\"" +
         id +
         "\" time=\"T\" seq=\"0\" />\n"
         "<NewGroup category=\"Lumetry\" subcategory=\"Crash\" name=\"Session\" time=\"T\" "
         "group=\"0\" doc=\"NOVALUE\" seq=\"1\" />\n"
         "<DataRec time=\"T\" group=\"0\" name=\"ProductFamily\" data=\"LumetryQX\" seq=\"2\" />\n"
         "<DataRec time=\"T\" group=\"0\" name=\"ProductName\" data=\"AppCrash\" seq=\"3\" />\n"
         "<NewGroup category=\"AppExit\" subcategory=\"Crash\" name=\"ExitInfo\" time=\"T\" "
         "group=\"1\" doc=\"NOVALUE\" seq=\"4\" />\n"
         "<DataRec time=\"T\" group=\"1\" name=\"ExitType\" data=\"Crash\" seq=\"5\" />\n"
         "<DataRec time=\"T\" group=\"1\" name=\"CrashProductName\" data=\"" +
         crashName +
         "\" seq=\"6\" />\n"
         "<DataRec time=\"T\" group=\"1\" name=\"CrashProductFamily\" data=\"" +
         crashFamily +
         "\" seq=\"7\" />\n"
         "<DataRec time=\"T\" group=\"1\" name=\"MachineID\" data=\"" +
         machineId +
         "\" seq=\"8\" />\n"
         "<EndSession id=\"" +
         id +
         "\" time=\"T\" seq=\"9\" />\n"
         "</UsageDoc>\n";
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

RunResult RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  RunResult result;
  if (argv.empty()) return result;

  std::vector<std::string> environment;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    std::string name = entry.substr(0, entry.find('='));
    bool replaced = std::any_of(env.begin(), env.end(), [&](const std::string& o) {
      return o.substr(0, o.find('=')) == name;
    });
    if (!replaced) environment.push_back(entry);
  }
  environment.insert(environment.end(), env.begin(), env.end());

  std::vector<char*> cargv;
  cargv.reserve(argv.size() + 1);
  for (const std::string& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
  cargv.push_back(nullptr);
  std::vector<char*> cenv;
  cenv.reserve(environment.size() + 1);
  for (const std::string& e : environment) cenv.push_back(const_cast<char*>(e.c_str()));
  cenv.push_back(nullptr);

  int out_pipe[2];
  int err_pipe[2];
  if (::pipe(out_pipe) != 0) return result;
  if (::pipe(err_pipe) != 0) {
    ::close(out_pipe[0]);
    ::close(out_pipe[1]);
    return result;
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err_pipe[1], 2);
  posix_spawn_file_actions_addclose(&actions, out_pipe[0]);
  posix_spawn_file_actions_addclose(&actions, err_pipe[0]);

  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, cargv[0], &actions, nullptr, cargv.data(), cenv.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(out_pipe[1]);
  ::close(err_pipe[1]);
  if (rc != 0) {
    ::close(out_pipe[0]);
    ::close(err_pipe[0]);
    return result;
  }

  // Drain both pipes concurrently so a chatty child cannot block on either.
  std::thread err_reader([&] { result.err = ReadAllFromFd(err_pipe[0]); });
  result.out = ReadAllFromFd(out_pipe[0]);
  err_reader.join();
  ::close(out_pipe[0]);
  ::close(err_pipe[0]);

  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) {
    result.status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.status = 128 + WTERMSIG(status);
  }
  return result;
}

ScopedNoNewFiles::ScopedNoNewFiles(const std::string& dir) : dir_(dir) {
  if (::geteuid() == 0) {
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0) {
      flags |= FS_IMMUTABLE_FL;
      if (::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0) how_ = How::kImmutable;
    }
    ::close(fd);
    return;
  }
  if (::chmod(dir.c_str(), 0555) == 0) how_ = How::kMode;
}

ScopedNoNewFiles::~ScopedNoNewFiles() {
  if (how_ == How::kImmutable) {
    const int fd = ::open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0) {
      flags &= ~FS_IMMUTABLE_FL;
      ::ioctl(fd, FS_IOC_SETFLAGS, &flags);
    }
    ::close(fd);
  } else if (how_ == How::kMode) {
    ::chmod(dir_.c_str(), 0755);
  }
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

bool AgeFile(const std::string& path, long seconds) {
  struct timespec times[2];
  ::clock_gettime(CLOCK_REALTIME, &times[0]);
  times[0].tv_sec -= seconds;
  times[1] = times[0];
  return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
}

}  // namespace testing_support
