// Shared fixtures of the test suites: a scoped temporary directory, a scoped
// HOME (so the per-user directories land in a sandbox), whole-file helpers and
// a runner for the built programs.
#ifndef LUMETRY_TESTS_TESTSUPPORT_H_
#define LUMETRY_TESTS_TESTSUPPORT_H_

#include <cstdint>
#include <string>
#include <vector>

namespace testing_support {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class ScopedTempDir {
 public:
  ScopedTempDir();
  ~ScopedTempDir();
  ScopedTempDir(const ScopedTempDir&) = delete;
  ScopedTempDir& operator=(const ScopedTempDir&) = delete;
  const std::string& path() const { return path_; }
  // path() + "/" + relative
  std::string Sub(const std::string& relative) const;

 private:
  std::string path_;
};

// Sets an environment variable for the scope and restores it afterwards.
class ScopedEnv {
 public:
  ScopedEnv(const std::string& name, const std::string& value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::string old_;
  bool had_old_;
};

// A process-wide test override of the product (main bundle path, any-user
// preference directory): `set(value)` now, `set("")` (the real look-up) at the end.
class ScopedOverride {
 public:
  using Setter = void (*)(const std::string&);
  ScopedOverride(Setter set, const std::string& value) : set_(set) { set_(value); }
  ~ScopedOverride() { set_(""); }
  ScopedOverride(const ScopedOverride&) = delete;
  ScopedOverride& operator=(const ScopedOverride&) = delete;
  void Set(const std::string& value) const { set_(value); }

 private:
  Setter set_;
};

// A temporary HOME: HOME points at a fresh directory for the scope.
class ScopedHome {
 public:
  ScopedHome();
  const std::string& path() const { return dir_.path(); }
  std::string Library() const { return dir_.path() + "/Library"; }

 private:
  ScopedTempDir dir_;
  ScopedEnv env_;
};

// Makes `dir` refuse new entries for the scope, its files still writable: the
// immutable flag as root (modes do not stop root), else mode 0555; active() is
// false when neither could be set (callers then skip).
class ScopedNoNewFiles {
 public:
  explicit ScopedNoNewFiles(const std::string& dir);
  ~ScopedNoNewFiles();
  ScopedNoNewFiles(const ScopedNoNewFiles&) = delete;
  ScopedNoNewFiles& operator=(const ScopedNoNewFiles&) = delete;
  bool active() const { return how_ != How::kNone; }

 private:
  enum class How { kNone, kImmutable, kMode };
  std::string dir_;
  How how_ = How::kNone;
};

// A binary property list of `depth` nested arrays, each holding the next (the
// last one empty, or with `loop` holding the first), 4-byte offsets and references.
std::string NestedBinaryArrays(std::uint32_t depth, bool loop = false);

// Ends a forked child at once (no handlers, none of the parent's destructors),
// writing its coverage counters first in a coverage build.
[[noreturn]] void ExitChild(int code);

// Sets the modification time of `path` to `seconds` before now.
bool AgeFile(const std::string& path, long seconds);

bool ReadFile(const std::string& path, std::string* contents);
// The whole file, or "<unreadable PATH>", which no test expects.
std::string Contents(const std::string& path);
// Creates missing parent directories; false on any failure.
bool WriteFile(const std::string& path, const std::string& contents);
bool MakeDirs(const std::string& path);
bool PathExists(const std::string& path);                    // lstat: links count as present
std::vector<std::string> ListNames(const std::string& dir);  // sorted, no . and ..
int FileMode(const std::string& path);                       // permission bits, or -1

// Every entry of a settings file as "section/key=value", joined by ';'.
template <class Settings>
std::string DumpSettings(const Settings& s) {
  std::string out;
  for (const auto& e : s.entries()) out += (out.empty() ? "" : ";") + e.first + "=" + e.second;
  return out;
}

// The ten-element crash document with every time stamp written as "T".
// The arguments are the attribute texts as written (already escaped).
std::string CrashDocument(const std::string& id, const std::string& crashFamily,
                          const std::string& crashName, const std::string& machineId);
// Writes the JSON value `json` as a property list at `path` with python's
// plistlib, a writer independent of the product's; a test failure on error.
bool WritePlist(const std::string& path, const std::string& json, bool binary);
// Replaces every time="YYYY-MM-DDThh:mm:ssZ" by time="T".
std::string MaskTimes(const std::string& text);
// ROT47 over every byte, written independently of the product's code.
std::string Rot47(std::string text);

struct RunResult {
  int status = -1;  // exit status, or 128 + signal number
  std::string out;  // standard output
  std::string err;  // standard error
};

// Starts `argv` (argv[0] is the program path) without waiting, standard input
// on /dev/null and standard output and error in the files `out` and `err`
// (inherited when empty); `env` as for RunProgram. -1 when it cannot start.
int StartProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
                 const std::string& out = "", const std::string& err = "");
// Runs `argv` (argv[0] is the program path), standard input on /dev/null;
// `env` entries "NAME=value" are added to (or replace) the current environment.
RunResult RunProgram(const std::vector<std::string>& argv,
                     const std::vector<std::string>& env = {});

}  // namespace testing_support

#endif  // LUMETRY_TESTS_TESTSUPPORT_H_
