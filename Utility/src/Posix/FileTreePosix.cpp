// Linux bindings of FileUtil's tree walks: listing, removal, copying, moving
// and sizing of whole trees. No walk follows a symbolic link inside a tree:
// removal and sizing go through directory descriptors opened with
// O_NOFOLLOW, and copying recreates links as links.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "FileUtil.h"
#include "FileUtilPlatform.h"
#include "Posix/FdWrite.h"
#include "Posix/ScopedDir.h"
#include "Posix/ScopedFd.h"

namespace FileUtil {
namespace {

void ListTreeAt(int dir_fd, const std::string& prefix, std::vector<std::string>* out) {
  std::vector<std::string> names;
  if (!posix_io::ReadNamesAt(dir_fd, &names)) return;
  for (const std::string& name : names) {
    std::string relative = prefix;
    if (!relative.empty()) relative += '/';
    relative += name;
    out->push_back(relative);
    ScopedFd child(posix_io::OpenDirectoryAt(dir_fd, name));  // fails for links and files
    if (child.is_valid()) ListTreeAt(child.get(), relative, out);
  }
}

// Empties the directory open as `dir_fd`. Goes on past failures so that as
// much as possible is removed; answers whether everything went.
bool RemoveContentsAt(int dir_fd) {
  std::vector<std::string> names;
  if (!posix_io::ReadNamesAt(dir_fd, &names)) return false;
  bool ok = true;
  for (const std::string& name : names) {
    struct stat st;
    if (::fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT) ok = false;
      continue;
    }
    if (S_ISDIR(st.st_mode)) {
      ScopedFd child(posix_io::OpenDirectoryAt(dir_fd, name));
      if (!child.is_valid() || !RemoveContentsAt(child.get())) ok = false;
      if (::unlinkat(dir_fd, name.c_str(), AT_REMOVEDIR) != 0) ok = false;
    } else if (::unlinkat(dir_fd, name.c_str(), 0) != 0 && errno != ENOENT) {
      ok = false;
    }
  }
  return ok;
}

bool CopyFileContents(const std::string& source, const std::string& destination, mode_t mode) {
  // Never blocks: a FIFO or device swapped in at the source is refused.
  ScopedFd in(::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  struct stat source_stat;
  if (!in.is_valid() || ::fstat(in.get(), &source_stat) != 0 || !S_ISREG(source_stat.st_mode)) {
    return false;
  }
  ScopedFd out(
      ::open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!out.is_valid()) return false;
  bool ok = true;
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t n = ::read(in.get(), buffer, sizeof buffer);
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
    if (!dir || !posix_io::ReadNames(dir.get(), &names)) return false;
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
  if (!posix_io::ReadNamesAt(dir_fd, &names)) return true;
  bool ok = true;
  for (const std::string& name : names) {
    struct stat st;
    if (::fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      ok = false;
      continue;
    }
    if (S_ISDIR(st.st_mode)) {
      ScopedFd child(posix_io::OpenDirectoryAt(dir_fd, name));
      if (child.is_valid() && !AddDirectorySizes(child.get(), totals)) ok = false;
    } else {
      AddSizes(st, totals);
    }
  }
  return ok;
}

}  // namespace

namespace platform {

bool ListTree(const std::string& dir, std::vector<std::string>* relative_paths) {
  if (dir.empty()) return false;
  ScopedFd top(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!top.is_valid()) return false;
  ListTreeAt(top.get(), std::string(), relative_paths);
  return true;
}

bool RemoveItem(const std::string& path) {
  struct stat st;
  if (path.empty() || ::lstat(path.c_str(), &st) != 0) return false;
  if (!S_ISDIR(st.st_mode)) return ::unlink(path.c_str()) == 0;
  ScopedFd dir(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  const bool ok = dir.is_valid() && RemoveContentsAt(dir.get());
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

}  // namespace platform

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

}  // namespace FileUtil
