// Linux bindings of the path seam: the home directory from HOME or the
// password database, the executable from /proc/self/exe, the main bundle
// beside it with the identifier of its Info.plist, and the host identifier
// from the machine-id files.
#include <plist/plist.h>
#include <pwd.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

#include "FileIO.h"
#include "PlatformPaths.h"
#include "Posix/PlatformPathsInternal.h"
#include "Posix/PlistGuards.h"
#include "Posix/ScopedPlist.h"

namespace Platform {
namespace {

// Info.plist files are small; anything far larger is not one.
constexpr std::size_t kMaxPlistBytes = std::size_t{16} * 1024 * 1024;

std::string& BundlePathOverride() {
  static std::string path;
  return path;
}

// Drops trailing "/" but keeps a root made only of "/".
std::string WithoutTrailingSlashes(const std::string& path) {
  std::string::size_type end = path.find_last_not_of('/');
  if (end == std::string::npos) return path.empty() ? path : std::string("/");
  return path.substr(0, end + 1);
}

bool HomeFromPasswordDatabase(std::string* path) {
  long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 1024);
  for (;;) {
    struct passwd entry;
    struct passwd* result = nullptr;
    int rc = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result);
    if (rc == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (rc != 0 || result == nullptr || result->pw_dir == nullptr || *result->pw_dir == '\0') {
      return false;
    }
    *path = WithoutTrailingSlashes(result->pw_dir);
    return true;
  }
}

}  // namespace

namespace internal {

bool FormatMachineId(const std::string& contents, std::string* host_id) {
  std::string digits = contents;
  if (!digits.empty() && digits.back() == '\n') digits.pop_back();
  if (digits.size() != 32) return false;
  std::string formatted;
  for (size_t i = 0; i < digits.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(digits[i]);
    if (!std::isxdigit(c)) return false;
    if (i == 8 || i == 12 || i == 16 || i == 20) formatted.push_back('-');
    formatted.push_back(static_cast<char>(std::toupper(c)));
  }
  *host_id = formatted;
  return true;
}

std::string HostIdFromFiles(const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    std::string contents;
    std::string host_id;
    if (FileIO::ReadFile(file, 4096, &contents) == FileIO::ReadStatus::kOk &&
        FormatMachineId(contents, &host_id)) {
      return host_id;
    }
  }
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return std::string();
  return std::string(name);
}

std::string BundlePathForExecutableDirectory(const std::string& executable_dir) {
  const std::string kInner = "/Contents/MacOS";
  const std::string kExtension = ".app";
  std::string dir = WithoutTrailingSlashes(executable_dir);
  if (dir.size() <= kInner.size() ||
      dir.compare(dir.size() - kInner.size(), kInner.size(), kInner) != 0) {
    return dir;
  }
  std::string bundle = dir.substr(0, dir.size() - kInner.size());
  std::string::size_type slash = bundle.rfind('/');
  std::string name = slash == std::string::npos ? bundle : bundle.substr(slash + 1);
  if (name.size() <= kExtension.size() ||
      name.compare(name.size() - kExtension.size(), kExtension.size(), kExtension) != 0) {
    return dir;
  }
  return bundle;
}

}  // namespace internal

bool GetHomeDirectory(std::string* path) {
  if (path == nullptr) return false;
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') {
    *path = WithoutTrailingSlashes(home);
    return true;
  }
  return HomeFromPasswordDatabase(path);
}

bool GetExecutablePath(std::string* path) {
  if (path == nullptr) return false;
  std::vector<char> buffer(256);
  for (;;) {
    ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (n <= 0) return false;
    if (static_cast<size_t>(n) < buffer.size()) {
      path->assign(buffer.data(), static_cast<size_t>(n));
      return true;
    }
    if (buffer.size() >= (1u << 16)) return false;
    buffer.resize(buffer.size() * 2);
  }
}

bool GetMainBundlePath(std::string* path) {
  if (path == nullptr) return false;
  if (!BundlePathOverride().empty()) {
    *path = BundlePathOverride();
    return true;
  }
  std::string executable;
  if (!GetExecutablePath(&executable)) return false;
  std::string::size_type slash = executable.rfind('/');
  if (slash == std::string::npos) return false;
  std::string dir = slash == 0 ? std::string("/") : executable.substr(0, slash);
  *path = internal::BundlePathForExecutableDirectory(dir);
  return true;
}

bool GetMainBundleIdentifier(std::string* identifier) {
  if (identifier == nullptr) return false;
  std::string bundle;
  if (!GetMainBundlePath(&bundle)) return false;
  std::string contents;
  if (FileIO::ReadFile(WithoutTrailingSlashes(bundle) + "/Contents/Info.plist", kMaxPlistBytes,
                       &contents) != FileIO::ReadStatus::kOk ||
      contents.empty()) {
    return false;
  }
  // Checked before the library parses it: the bundle may be anyone's.
  plist_t root = plist_guard::Parse(contents);
  const ScopedPlist owner = AdoptPlist(root);
  if (root == nullptr || ::plist_get_node_type(root) != PLIST_DICT) return false;
  plist_t item = ::plist_dict_get_item(root, "CFBundleIdentifier");
  if (item == nullptr || ::plist_get_node_type(item) != PLIST_STRING) return false;
  uint64_t length = 0;
  const char* value = ::plist_get_string_ptr(item, &length);
  if (value == nullptr || *value == '\0') return false;
  *identifier = value;
  return true;
}

std::string GetHostId() {
  return internal::HostIdFromFiles({"/etc/machine-id", "/var/lib/dbus/machine-id"});
}

void SetMainBundlePathForTesting(const std::string& path) { BundlePathOverride() = path; }

}  // namespace Platform
