// The preference store on Linux: one property-list file per domain and scope,
// read in XML or binary form and written in binary form with libplist.
// Writers serialise on "<file>.lock" (the data file itself is replaced, so it
// cannot carry the lock), write a temporary file in the same directory, fsync
// it and rename it over the old one, so a reader always sees either the old or
// the new file, never a torn one.
#include <dirent.h>
#include <fcntl.h>
#include <plist/plist.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "FileUtil.h"
#include "PlatformPaths.h"
#include "Posix/FdWrite.h"
#include "Posix/PreferenceStore.h"
#include "Posix/ScopedFd.h"
#include "Preferences.h"
#include "StringUtil.h"

#ifndef LUMETRY_SYSTEM_PREFS_DIR
#define LUMETRY_SYSTEM_PREFS_DIR "/Library/Preferences"
#endif

namespace {

// Larger files are not preference domains; they are neither parsed nor replaced.
constexpr off_t kMaxDomainFileSize = off_t{64} * 1024 * 1024;

// Temporary files are TemporaryPrefix(file name) + six mkstemp characters.
constexpr std::size_t kTempSuffixLength = 6;

std::string TemporaryPrefix(const std::string& name) { return "." + name + "."; }

std::string& SystemDirOverride() {
  static std::string dir;
  return dir;
}

std::string SystemDir() {
  std::string dir = SystemDirOverride().empty() ? LUMETRY_SYSTEM_PREFS_DIR : SystemDirOverride();
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

// mkdir -p: creates each missing component in turn. Unlike
// FileUtil::CreateDirectories it never removes a file that is in the way.
bool MakeDirectories(const std::string& path) {
  if (path.empty()) return false;
  if (FileUtil::IsDirectory(path)) return true;
  std::string::size_type pos = 0;
  while (pos != std::string::npos) {
    pos = path.find('/', pos + 1);
    std::string prefix = path.substr(0, pos);
    if (prefix.empty() || prefix == "/") continue;
    if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return FileUtil::IsDirectory(path);
}

enum class ReadStatus { kOk, kMissing, kError };

ReadStatus ReadWholeFile(const std::string& path, std::string* data) {
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.is_valid()) return errno == ENOENT ? ReadStatus::kMissing : ReadStatus::kError;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxDomainFileSize) {
    return ReadStatus::kError;
  }
  std::string contents;
  char buffer[16384];
  for (;;) {
    ssize_t got = ::read(fd.get(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return ReadStatus::kError;
    if (got == 0) break;
    contents.append(buffer, static_cast<std::size_t>(got));
    if (contents.size() > static_cast<std::size_t>(kMaxDomainFileSize)) return ReadStatus::kError;
  }
  data->swap(contents);
  return ReadStatus::kOk;
}

PrefValue ParseDomain(const std::string& data) {
  if (!data.empty()) {
    plist_t root = nullptr;
    plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
    PrefValue parsed = PrefValue::Adopt(root);
    if (parsed.Kind() == kPrefDictionary) return parsed;
  }
  return PrefValue::Dictionary();
}

void SyncDirectory(const std::string& dir) {
  ScopedFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Best effort: the rename has happened; a failed directory sync only
  // weakens durability across a power loss.
  if (fd.is_valid()) ::fsync(fd.get());
}

// Removes temporary files that writers killed mid-write left behind. Runs
// under the file's lock, so no live writer of this file owns one of them.
void RemoveStaleTemporaries(const std::string& dir, const std::string& name) {
  std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(dir.c_str()), &::closedir);
  if (!listing) return;
  const std::string prefix = TemporaryPrefix(name);
  std::vector<std::string> stale;
  while (struct dirent* entry = ::readdir(listing.get())) {
    std::string candidate = entry->d_name;
    if (candidate.size() == prefix.size() + kTempSuffixLength &&
        candidate.compare(0, prefix.size(), prefix) == 0) {
      stale.push_back(candidate);
    }
  }
  for (const std::string& item : stale) ::unlink(FileUtil::JoinPath(dir, item).c_str());
}

// Unlinks a temporary file unless it was renamed into place.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string path) : path_(std::move(path)) {}
  ~TemporaryFile() {
    if (!committed_) ::unlink(path_.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  void Commit() { committed_ = true; }

 private:
  std::string path_;
  bool committed_ = false;
};

bool ReplaceFile(const std::string& path, const char* data, std::size_t length) {
  const std::string dir = FileUtil::ParentDirectory(path);
  std::string pattern = FileUtil::JoinPath(dir, TemporaryPrefix(FileUtil::LastPathComponent(path)));
  pattern.append(kTempSuffixLength, 'X');
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  ScopedFd fd(::mkostemp(name.data(), O_CLOEXEC));
  if (!fd.is_valid()) return false;
  TemporaryFile temporary(name.data());
  if (::fchmod(fd.get(), 0600) != 0 || !posix_io::WriteAll(fd.get(), data, length) ||
      ::fsync(fd.get()) != 0 || ::close(fd.release()) != 0) {
    return false;
  }
  if (::rename(name.data(), path.c_str()) != 0) return false;
  temporary.Commit();
  SyncDirectory(dir);
  return true;
}

bool StoreDomain(const std::string& path, const PrefValue& domain) {
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(static_cast<plist_t>(domain.Node()), &bytes, &length);
  std::unique_ptr<char, void (*)(char*)> owned(bytes, &plist_to_bin_free);
  if (owned == nullptr || length == 0) return false;
  return ReplaceFile(path, owned.get(), length);
}

}  // namespace

std::string PreferenceFilePath(const std::string& domain, PrefUser user, PrefHost host) {
  try {
    if (domain.empty() || domain.find('/') != std::string::npos ||
        domain.find('\0') != std::string::npos || !StringUtil::IsValidUTF8(domain)) {
      return "";
    }
    // The name below the scope's directory first: an invalid scope must fail
    // before the user's Library directory is created.
    std::string name;
    switch (host) {
      case PrefHost::kAnyHost:
        name = domain + ".plist";
        break;
      case PrefHost::kCurrentHost: {
        const std::string host_id = Platform::GetHostId();
        if (host_id.empty() || host_id.find('/') != std::string::npos) return "";
        name = "ByHost/" + domain + "." + host_id + ".plist";
        break;
      }
      default:
        return "";
    }
    switch (user) {
      case PrefUser::kCurrentUser: {
        std::string library;
        if (!FileUtil::GetUserLibraryDirectory(&library) || library.empty()) return "";
        return library + "/Preferences/" + name;
      }
      case PrefUser::kAnyUser:
        return SystemDir() + "/" + name;
      default:
        return "";
    }
  } catch (...) {
    return "";
  }
}

void SetSystemPreferencesDirForTesting(const std::string& dir) { SystemDirOverride() = dir; }

namespace PreferenceStore {

PrefValue ReadDomain(const std::string& path) {
  std::string data;
  if (path.empty() || ReadWholeFile(path, &data) != ReadStatus::kOk) return PrefValue::Dictionary();
  return ParseDomain(data);
}

bool UpdateDomain(const std::string& path, const std::function<Edit(PrefValue* domain)>& edit) {
  const std::string dir = FileUtil::ParentDirectory(path);
  if (path.empty() || !MakeDirectories(dir)) return false;
  ScopedFd lock(::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock.is_valid()) return false;
  while (::flock(lock.get(), LOCK_EX) != 0) {
    if (errno != EINTR) return false;
  }
  std::string data;
  if (ReadWholeFile(path, &data) == ReadStatus::kError) return false;
  PrefValue domain = ParseDomain(data);
  switch (edit(&domain)) {
    case Edit::kFail:
      return false;
    case Edit::kKeep:
      return true;
    case Edit::kStore:
      break;
  }
  RemoveStaleTemporaries(dir, FileUtil::LastPathComponent(path));
  return StoreDomain(path, domain);
}

}  // namespace PreferenceStore
