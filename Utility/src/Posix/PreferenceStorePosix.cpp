// The preference store on Linux: one property-list file per domain and scope,
// read in XML or binary form and written in binary form with libplist.
// Writers serialise on "<file>.lock" (the data file itself is replaced, so it
// cannot carry the lock), write a temporary file in the same directory, fsync
// it and rename it over the old one, so a reader always sees either the old or
// the new file, never a torn one.
#include <fcntl.h>
#include <plist/plist.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "FileIO.h"
#include "FileUtil.h"
#include "Guarded.h"
#include "PlatformPaths.h"
#include "Posix/PlistGuards.h"
#include "Posix/ScopedFd.h"
#include "PreferenceStore.h"
#include "Preferences.h"
#include "StringUtil.h"

#ifndef LUMETRY_SYSTEM_PREFS_DIR
#define LUMETRY_SYSTEM_PREFS_DIR "/Library/Preferences"
#endif

namespace {

// Larger files are not preference domains; they are neither parsed nor replaced.
constexpr std::size_t kMaxDomainFileSize = std::size_t{64} * 1024 * 1024;

std::string& SystemDirOverride() {
  static std::string dir;
  return dir;
}

std::string SystemDir() {
  std::string dir = SystemDirOverride().empty() ? LUMETRY_SYSTEM_PREFS_DIR : SystemDirOverride();
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

// Text that is not UTF-8 is repaired here, at read: written back as it is,
// the library would store it as an object that its own reader rejects.
PrefValue ParseDomain(const std::string& data) {
  PrefValue parsed = PrefValue::Adopt(plist_guard::Parse(data));
  if (parsed.Kind() != kPrefDictionary) return PrefValue::Dictionary();
  plist_guard::RepairStrings(static_cast<plist_t>(parsed.Node()));
  return parsed;
}

bool StoreDomain(const std::string& path, const PrefValue& domain) {
  // Never replace a good file by bytes that do not read back as the same
  // dictionary.
  std::string bytes;
  if (!plist_guard::SerialiseVerified(static_cast<plist_t>(domain.Node()), &bytes)) return false;
  // Domain files are private to their user, and the file itself is replaced
  // (a link at its place is not followed).
  FileIO::ReplaceOptions options;
  options.mode = 0600;
  options.keep_mode = false;
  options.follow_link = false;
  // Written under the domain's lock: no live writer owns a temporary file.
  options.stale_after_seconds = 0;
  return FileIO::ReplaceFile(path, bytes.data(), bytes.size(), options);
}

}  // namespace

std::string PreferenceFilePath(const std::string& domain, PrefUser user, PrefHost host) {
  return Guarded(std::string(), [&]() -> std::string {
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
  });
}

void SetSystemPreferencesDirForTesting(const std::string& dir) { SystemDirOverride() = dir; }

namespace PreferenceStore {

PrefValue ReadDomain(const std::string& path) {
  std::string data;
  if (FileIO::ReadFile(path, kMaxDomainFileSize, &data) != FileIO::ReadStatus::kOk) {
    return PrefValue::Dictionary();
  }
  return ParseDomain(data);
}

bool UpdateDomain(const std::string& path, const std::function<Edit(PrefValue* domain)>& edit) {
  const std::string dir = FileUtil::ParentDirectory(path);
  if (path.empty() || !FileIO::MakeDirectoryPath(dir, 0755)) return false;
  // Not followed through a link, and refused without blocking when it is not
  // a regular file.
  ScopedFd lock(::open((path + ".lock").c_str(),
                       O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600));
  struct stat lock_stat;
  if (!lock.is_valid() || ::fstat(lock.get(), &lock_stat) != 0 || !S_ISREG(lock_stat.st_mode)) {
    return false;
  }
  while (::flock(lock.get(), LOCK_EX) != 0) {
    if (errno != EINTR) return false;
  }
  std::string data;
  const FileIO::ReadStatus read = FileIO::ReadFile(path, kMaxDomainFileSize, &data);
  if (read != FileIO::ReadStatus::kOk && read != FileIO::ReadStatus::kMissing) return false;
  PrefValue domain = ParseDomain(data);
  switch (edit(&domain)) {
    case Edit::kFail:
      return false;
    case Edit::kKeep:
      return true;
    case Edit::kStore:
      break;
  }
  return StoreDomain(path, domain);
}

}  // namespace PreferenceStore
