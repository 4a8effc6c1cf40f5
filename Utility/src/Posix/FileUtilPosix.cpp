// Linux bindings of FileUtil: the calls that touch the file system directly
// and the primitives of FileUtilPlatform.h. No walk follows a symbolic link
// inside a tree: removal and sizing go through directory descriptors opened
// with O_NOFOLLOW, and copying recreates links as links.
#include <dirent.h>
#include <fcntl.h>
#include <regex.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "FileUtil.h"
#include "PlatformPaths.h"
#include "Posix/FdWrite.h"
#include "Posix/FileUtilPlatform.h"
#include "Posix/ScopedFd.h"

namespace FileUtil {
namespace {

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using ScopedDir = std::unique_ptr<DIR, DirCloser>;

bool IsDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Reads every entry name of an open directory stream, "." and ".." left out.
bool ReadNames(DIR* dir, std::vector<std::string>* names) {
  for (;;) {
    errno = 0;
    struct dirent* entry = ::readdir(dir);
    if (entry == nullptr) return errno == 0;
    if (!IsDotOrDotDot(entry->d_name)) names->emplace_back(entry->d_name);
  }
}

// Names of the directory open as `dir_fd`; the descriptor stays open.
bool ReadNamesAt(int dir_fd, std::vector<std::string>* names) {
  int copy = ::fcntl(dir_fd, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) return false;
  ScopedDir dir(::fdopendir(copy));
  if (!dir) {
    ::close(copy);
    return false;
  }
  return ReadNames(dir.get(), names);
}

int OpenDirectoryAt(int parent_fd, const std::string& name) {
  return ::openat(parent_fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

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

void ListTreeAt(int dir_fd, const std::string& prefix, std::vector<std::string>* out) {
  std::vector<std::string> names;
  if (!ReadNamesAt(dir_fd, &names)) return;
  for (const std::string& name : names) {
    std::string relative = prefix;
    if (!relative.empty()) relative += '/';
    relative += name;
    out->push_back(relative);
    ScopedFd child(OpenDirectoryAt(dir_fd, name));  // fails for links and files
    if (child.is_valid()) ListTreeAt(child.get(), relative, out);
  }
}

// Empties the directory open as `dir_fd`. Goes on past failures so that as
// much as possible is removed; answers whether everything went.
bool RemoveContentsAt(int dir_fd) {
  std::vector<std::string> names;
  if (!ReadNamesAt(dir_fd, &names)) return false;
  bool ok = true;
  for (const std::string& name : names) {
    struct stat st;
    if (::fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT) ok = false;
      continue;
    }
    if (S_ISDIR(st.st_mode)) {
      ScopedFd child(OpenDirectoryAt(dir_fd, name));
      if (!child.is_valid() || !RemoveContentsAt(child.get())) ok = false;
      if (::unlinkat(dir_fd, name.c_str(), AT_REMOVEDIR) != 0) ok = false;
    } else if (::unlinkat(dir_fd, name.c_str(), 0) != 0 && errno != ENOENT) {
      ok = false;
    }
  }
  return ok;
}

bool CopyFileContents(const std::string& source, const std::string& destination, mode_t mode) {
  ScopedFd in(::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!in.is_valid()) return false;
  ScopedFd out(
      ::open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!out.is_valid()) return false;
  bool ok = true;
  char buffer[64 * 1024];
  for (;;) {
    ssize_t n = ::read(in.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) break;
    if (n < 0 || !posix_io::WriteAll(out.get(), buffer, static_cast<size_t>(n))) {
      ok = false;
      break;
    }
  }
  if (ok && ::fchmod(out.get(), mode & 07777) != 0) ok = false;
  if (::close(out.release()) != 0) ok = false;
  if (!ok) ::unlink(destination.c_str());  // no half-written copy is left behind
  return ok;
}

// Copies `source` to the new `destination`. `root` is the top directory made
// by this copy: meeting it inside the source means a copy into itself.
bool CopyTree(const std::string& source, const std::string& destination, const struct stat* root) {
  struct stat st;
  if (::lstat(source.c_str(), &st) != 0) return false;
  if (root != nullptr && st.st_dev == root->st_dev && st.st_ino == root->st_ino) return false;

  if (S_ISLNK(st.st_mode)) {
    std::string target;
    return platform::ReadSymbolicLink(source, &target) &&
           ::symlink(target.c_str(), destination.c_str()) == 0;
  }
  if (S_ISREG(st.st_mode)) return CopyFileContents(source, destination, st.st_mode);
  if (S_ISFIFO(st.st_mode)) return ::mkfifo(destination.c_str(), st.st_mode & 07777) == 0;
  if (!S_ISDIR(st.st_mode)) return false;  // devices and sockets are not copied

  std::vector<std::string> names;
  {
    ScopedDir dir(::opendir(source.c_str()));
    if (!dir || !ReadNames(dir.get(), &names)) return false;
  }
  if (::mkdir(destination.c_str(), 0700) != 0) return false;
  struct stat made;
  if (root == nullptr) {
    if (::lstat(destination.c_str(), &made) != 0) return false;
    root = &made;
  }
  const std::string source_dir = source + '/';
  const std::string destination_dir = destination + '/';
  for (const std::string& name : names) {
    if (!CopyTree(source_dir + name, destination_dir + name, root)) return false;
  }
  // The mode is set last so that a read-only directory can still be filled.
  return ::chmod(destination.c_str(), st.st_mode & 07777) == 0;
}

// mkdir -p with the default permissions, never removing anything in the way.
bool MakeDirectoryPath(const std::string& path) {
  std::string::size_type pos = 0;
  while (pos != std::string::npos) {
    pos = path.find('/', pos + 1);
    std::string partial = path.substr(0, pos);
    if (::mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST) return false;
  }
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
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
  unsigned mask = STATX_TYPE | STATX_MTIME | STATX_CTIME | STATX_BTIME;
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
    ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (n < 0) return false;
    if (static_cast<size_t>(n) < buffer.size()) {
      target->assign(buffer.data(), static_cast<size_t>(n));
      return true;
    }
    buffer.resize(buffer.size() * 2);
  }
}

bool ItemExists(const std::string& path) {
  struct stat st;
  return !path.empty() && ::lstat(path.c_str(), &st) == 0;
}

bool ListNames(const std::string& dir, std::vector<std::string>* names) {
  if (dir.empty()) return false;
  ScopedDir stream(::opendir(dir.c_str()));
  if (!stream) return false;
  std::vector<std::string> read;
  if (!ReadNames(stream.get(), &read)) return false;
  names->insert(names->end(), read.begin(), read.end());
  return true;
}

bool ListTree(const std::string& dir, std::vector<std::string>* relative_paths) {
  if (dir.empty()) return false;
  ScopedFd top(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!top.is_valid()) return false;
  ListTreeAt(top.get(), std::string(), relative_paths);
  return true;
}

MakeDirectoryResult MakeDirectoryLikeParent(const FSRef& parent, const std::string& name) {
  ScopedFd parent_fd(::open(parent.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent_fd.is_valid()) return MakeDirectoryResult::kFailed;
  struct stat parent_stat;
  bool have_permissions = ::fstat(parent_fd.get(), &parent_stat) == 0;
  if (have_permissions &&
      (parent_stat.st_dev != parent.device || parent_stat.st_ino != parent.inode)) {
    return MakeDirectoryResult::kFailed;  // the parent was replaced meanwhile
  }

  // Made private first; the parent's mode is copied once it is ours.
  if (::mkdirat(parent_fd.get(), name.c_str(), have_permissions ? 0700 : 0777) != 0) {
    return errno == EEXIST ? MakeDirectoryResult::kExists : MakeDirectoryResult::kFailed;
  }
  if (have_permissions) {
    ScopedFd made(OpenDirectoryAt(parent_fd.get(), name));
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

bool RemoveItem(const std::string& path) {
  struct stat st;
  if (path.empty() || ::lstat(path.c_str(), &st) != 0) return false;
  if (!S_ISDIR(st.st_mode)) return ::unlink(path.c_str()) == 0;
  ScopedFd dir(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  bool ok = dir.is_valid() && RemoveContentsAt(dir.get());
  dir.reset();
  return ::rmdir(path.c_str()) == 0 && ok;
}

bool CopyItem(const std::string& source, const std::string& destination) {
  if (source.empty() || destination.empty()) return false;
  return CopyTree(source, destination, nullptr);
}

bool MoveItem(const std::string& source, const std::string& destination) {
  if (source.empty() || destination.empty()) return false;
  if (::rename(source.c_str(), destination.c_str()) == 0) return true;
  if (errno != EXDEV) return false;
  return CopyItem(source, destination) && RemoveItem(source);
}

bool IsSameItem(const std::string& a, const std::string& b) {
  struct stat sa;
  struct stat sb;
  if (a.empty() || b.empty()) return false;
  if (::stat(a.c_str(), &sa) != 0 || ::stat(b.c_str(), &sb) != 0) return false;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

struct ExtendedRegex::Compiled {
  regex_t regex;
};

ExtendedRegex::ExtendedRegex(const std::string& expression) : compiled_(new Compiled) {
  if (::regcomp(&compiled_->regex, expression.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
    compiled_.reset();
  }
}

ExtendedRegex::~ExtendedRegex() {
  if (compiled_) ::regfree(&compiled_->regex);
}

bool ExtendedRegex::IsValid() const { return compiled_ != nullptr; }

bool ExtendedRegex::Matches(const std::string& text) const {
  return compiled_ && ::regexec(&compiled_->regex, text.c_str(), 0, nullptr, 0) == 0;
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
  if (directory.empty() || directory[0] != '/' || !MakeDirectoryPath(directory)) return false;
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

namespace {

struct SizeTotals {
  std::uint64_t logical = 0;
  std::uint64_t physical = 0;
};

void AddSizes(const struct stat& st, SizeTotals* totals) {
  totals->logical += static_cast<std::uint64_t>(st.st_size);
  totals->physical += static_cast<std::uint64_t>(st.st_blocks) * 512u;
}

// A directory that cannot be opened adds nothing and is not a failure; a
// child whose sizes cannot be read is, while the walk goes on.
bool AddDirectorySizes(int dir_fd, SizeTotals* totals) {
  std::vector<std::string> names;
  if (!ReadNamesAt(dir_fd, &names)) return true;
  bool ok = true;
  for (const std::string& name : names) {
    struct stat st;
    if (::fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      ok = false;
      continue;
    }
    if (S_ISDIR(st.st_mode)) {
      ScopedFd child(OpenDirectoryAt(dir_fd, name));
      if (child.is_valid() && !AddDirectorySizes(child.get(), totals)) ok = false;
    } else {
      AddSizes(st, totals);
    }
  }
  return ok;
}

}  // namespace

bool GetDirectorySize(const std::string& path, std::uint64_t* logical, std::uint64_t* physical) {
  struct stat st;
  if (logical == nullptr || physical == nullptr || path.empty() || ::stat(path.c_str(), &st) != 0) {
    return false;
  }
  SizeTotals totals;
  bool ok = true;
  if (!S_ISDIR(st.st_mode)) {
    AddSizes(st, &totals);
  } else {
    ScopedFd dir(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.is_valid()) ok = AddDirectorySizes(dir.get(), &totals);
  }
  *logical = totals.logical;
  *physical = totals.physical;
  return ok;
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
