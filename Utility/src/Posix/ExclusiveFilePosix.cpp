// ExclusiveFile on POSIX: open(2) with O_NOFOLLOW, then a non-blocking
// flock(2). The lock belongs to this open file description, so a second open
// of the same file, even in the same process, cannot take it.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "ExclusiveFile.h"
#include "Posix/FdWrite.h"
#include "Posix/ScopedFd.h"

ExclusiveFile::ExclusiveFile(ExclusiveFile&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

ExclusiveFile& ExclusiveFile::operator=(ExclusiveFile&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

ExclusiveFile::~ExclusiveFile() { Close(); }

ExclusiveFile ExclusiveFile::OpenExclusive(const std::string& path) {
  ScopedFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.is_valid()) return ExclusiveFile();
  int locked;
  do {
    locked = ::flock(fd.get(), LOCK_EX | LOCK_NB);
  } while (locked != 0 && errno == EINTR);
  if (locked != 0) return ExclusiveFile();
  return ExclusiveFile(fd.release());
}

bool ExclusiveFile::Write(const void* bytes, std::size_t length) {
  return posix_io::WriteAll(fd_, bytes, length);
}

void ExclusiveFile::Close() { ScopedFd owned(std::exchange(fd_, -1)); }
