// Linux bindings of UploaderFiles.h: whole-file reads and atomic replacement
// (temporary file, fsync, rename).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

#include "Posix/FdWrite.h"
#include "Posix/ScopedFd.h"
#include "Posix/UploaderFiles.h"

namespace UploaderFiles {
namespace {

// Removes a temporary file unless the scope hands it over.
class ScopedUnlink {
 public:
  explicit ScopedUnlink(std::string path) : path_(std::move(path)) {}
  ~ScopedUnlink() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  ScopedUnlink(const ScopedUnlink&) = delete;
  ScopedUnlink& operator=(const ScopedUnlink&) = delete;
  void Release() { path_.clear(); }

 private:
  std::string path_;
};

// The path a write to `path` really lands on: a symbolic link is followed so
// that replacing the file does not replace the link. A dangling link stays.
std::string ResolveTarget(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return path;
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr),
                                                         &std::free);
  return real ? std::string(real.get()) : path;
}

void SyncDirectory(const std::string& dir) {
  ScopedFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.is_valid()) ::fsync(fd.get());  // durability only; errors are harmless
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string* contents) {
  if (contents == nullptr || path.empty()) return false;
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.is_valid()) return false;
  std::string data;  // a directory opens but fails the first read (EISDIR)
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n > 0) {
      data.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      return false;
    }
  }
  contents->swap(data);
  return true;
}

bool ReplaceFile(const std::string& path, const std::string& contents) {
  if (path.empty()) return false;
  const std::string target = ResolveTarget(path);

  mode_t mode = 0644;
  struct stat st;
  if (::stat(target.c_str(), &st) == 0) {
    // Refuse what an open for writing would refuse: a directory or a file
    // this process may not write.
    if (S_ISDIR(st.st_mode) || ::access(target.c_str(), W_OK) != 0) return false;
    mode = st.st_mode & 07777;
  } else if (errno != ENOENT) {
    return false;
  }

  const std::string::size_type slash = target.rfind('/');
  std::string dir;
  std::string base;
  if (slash == std::string::npos) {
    dir = ".";
    base = target;
  } else {
    dir = slash == 0 ? "/" : target.substr(0, slash);
    base = target.substr(slash + 1);
  }
  if (base.empty()) return false;

  std::string temp_path = dir + "/." + base + ".tmp-XXXXXX";
  ScopedFd fd(::mkostemp(temp_path.data(), O_CLOEXEC));  // fills in the X's
  if (!fd.is_valid()) return false;
  ScopedUnlink cleanup(temp_path);

  if (!posix_io::WriteAll(fd.get(), contents.data(), contents.size())) return false;
  if (::fchmod(fd.get(), mode) != 0) return false;
  if (::fsync(fd.get()) != 0) return false;
  if (::close(fd.release()) != 0) return false;
  if (::rename(temp_path.c_str(), target.c_str()) != 0) return false;
  cleanup.Release();
  SyncDirectory(dir);
  return true;
}

}  // namespace UploaderFiles
