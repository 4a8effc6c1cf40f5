// Linux bindings of FileUtil: item attributes, listings, directory creation
// with inherited permissions, probes and the FileUtil functions that touch
// the file system directly. The tree walks live in FileTreePosix.cpp.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>

#include "FileIO.h"
#include "FileUtil.h"
#include "FileUtilPlatform.h"
#include "PlatformPaths.h"
#include "Posix/ScopedDir.h"
#include "Posix/ScopedFd.h"

namespace FileUtil {
namespace {

platform::Timestamp FromStatx(const struct statx_timestamp& t) {
  return platform::Timestamp{t.tv_sec, t.tv_nsec};
}

platform::Timestamp FromTimespec(const struct timespec& t) {
  return platform::Timestamp{static_cast<std::int64_t>(t.tv_sec),
                             static_cast<std::int64_t>(t.tv_nsec)};
}

platform::ItemKind KindOfMode(unsigned mode) {
  if (S_ISREG(mode)) return platform::ItemKind::kRegular;
  if (S_ISDIR(mode)) return platform::ItemKind::kDirectory;
  if (S_ISLNK(mode)) return platform::ItemKind::kSymbolicLink;
  return platform::ItemKind::kOther;
}

}  // namespace

// ---- Primitives ----

namespace platform {

bool IsLater(const Timestamp& a, const Timestamp& b) {
  if (a.seconds != b.seconds) return a.seconds > b.seconds;
  return a.nanoseconds > b.nanoseconds;
}

bool GetItemAttributes(const std::string& path, ItemAttributes* attributes) {
  if (path.empty() || attributes == nullptr) return false;
  struct statx stx;
  const unsigned mask = STATX_TYPE | STATX_MTIME | STATX_CTIME | STATX_BTIME;
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, mask, &stx) == 0) {
    attributes->kind = KindOfMode(stx.stx_mode);
    attributes->modified = FromStatx(stx.stx_mtime);
    attributes->created =
        (stx.stx_mask & STATX_BTIME) ? FromStatx(stx.stx_btime) : FromStatx(stx.stx_ctime);
    return true;
  }
  if (errno != ENOSYS) return false;
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return false;
  attributes->kind = KindOfMode(st.st_mode);
  attributes->modified = FromTimespec(st.st_mtim);
  attributes->created = FromTimespec(st.st_ctim);
  return true;
}

bool ReadSymbolicLink(const std::string& path, std::string* target) {
  std::vector<char> buffer(256);
  for (;;) {
    const ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (n < 0) return false;
    if (static_cast<size_t>(n) < buffer.size()) {
      target->assign(buffer.data(), static_cast<size_t>(n));
      return true;
    }
    buffer.resize(buffer.size() * 2);
  }
}

bool ForEachName(const std::string& dir, const NameVisitor& visit) {
  if (dir.empty()) return false;
  ScopedDir stream(::opendir(dir.c_str()));
  if (!stream) return false;
  return posix_io::VisitNames(stream.get(), visit);
}

bool ListNames(const std::string& dir, std::vector<std::string>* names) {
  const std::size_t before = names->size();
  if (ForEachName(dir, [names](const char* name) { names->emplace_back(name); })) {
    return true;
  }
  names->resize(before);  // a listing that failed part-way appends nothing
  return false;
}

MakeDirectoryResult MakeDirectoryLikeParent(const FSRef& parent, const std::string& name) {
  ScopedFd parent_fd(::open(parent.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent_fd.is_valid()) return MakeDirectoryResult::kFailed;
  struct stat parent_stat;
  const bool have_permissions = ::fstat(parent_fd.get(), &parent_stat) == 0;
  if (have_permissions &&
      (parent_stat.st_dev != parent.device || parent_stat.st_ino != parent.inode)) {
    return MakeDirectoryResult::kFailed;  // the parent was replaced meanwhile
  }

  // Made private first; the parent's mode is copied once it is ours.
  if (::mkdirat(parent_fd.get(), name.c_str(), have_permissions ? 0700 : 0777) != 0) {
    return errno == EEXIST ? MakeDirectoryResult::kExists : MakeDirectoryResult::kFailed;
  }
  if (have_permissions) {
    ScopedFd made(posix_io::OpenDirectoryAt(parent_fd.get(), name));
    if (made.is_valid()) {
      // Ownership first: a change of owner may clear mode bits, so the mode
      // is applied after it. A refused change of owner is no error.
      if (::fchown(made.get(), parent_stat.st_uid, parent_stat.st_gid) != 0) {
        // Not permitted for an ordinary user; the directory keeps ours.
      }
      ::fchmod(made.get(), parent_stat.st_mode & 07777);
    }
  }
  return MakeDirectoryResult::kCreated;
}

bool IsSameItem(const std::string& a, const std::string& b) {
  struct stat sa;
  struct stat sb;
  if (a.empty() || b.empty()) return false;
  if (::stat(a.c_str(), &sa) != 0 || ::stat(b.c_str(), &sb) != 0) return false;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

}  // namespace platform

// ---- FileUtil functions bound to the platform ----

bool GetUserDirectory(int domain, int kind, std::string* path) {
  if (path == nullptr || domain != kUserDomain) return false;
  std::string home;
  if (!Platform::GetHomeDirectory(&home)) return false;
  std::string directory = JoinPath(home, "Library");
  if (kind == kApplicationSupportDirectory) {
    directory = JoinPath(directory, "Application Support");
  } else if (kind != kLibraryDirectory) {
    return false;
  }
  if (directory.empty() || directory[0] != '/' || !FileIO::MakeDirectoryPath(directory, 0777)) {
    return false;
  }
  *path = directory;
  return true;
}

bool Exists(const std::string& path) {
  struct stat st;
  return !path.empty() && ::stat(path.c_str(), &st) == 0;
}

bool IsDirectory(const std::string& path) {
  struct stat st;
  return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool GetFreeSpace(const std::string& path, std::uint64_t* bytes) {
  if (bytes == nullptr || !Exists(path)) return false;
  struct statvfs vfs;
  if (::statvfs(path.c_str(), &vfs) != 0) return false;
  *bytes = static_cast<std::uint64_t>(vfs.f_bavail) * static_cast<std::uint64_t>(vfs.f_frsize);
  return true;
}

bool IsFileLocked(const std::string& path) {
  // Links are not followed, so a planted link cannot make the probe create
  // a file elsewhere; the probe creates the file when it is missing.
  ScopedFd fd(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.is_valid()) return true;
  return ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0;
}

bool RemoveDirectory(const std::string& path, bool recursive) {
  struct stat st;
  if (path.empty() || ::stat(path.c_str(), &st) != 0) return true;  // nothing to remove
  if (!S_ISDIR(st.st_mode)) return false;
  if (recursive) return platform::RemoveItem(path);
  return ::rmdir(path.c_str()) == 0 || errno == ENOENT;
}

bool MakeFSRef(const std::string& path, FSRef* ref) {
  struct stat st;
  if (ref == nullptr || path.empty() || ::stat(path.c_str(), &st) != 0) return false;
  ref->path = path;
  ref->device = static_cast<std::uint64_t>(st.st_dev);
  ref->inode = static_cast<std::uint64_t>(st.st_ino);
  return true;
}

}  // namespace FileUtil
