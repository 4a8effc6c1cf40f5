// Whole-buffer writes to a file descriptor.
#include <unistd.h>

#include <cerrno>

#include "Posix/FdWrite.h"

namespace posix_io {

bool WriteAll(int fd, const void* data, std::size_t size) {
  if (fd < 0 || (data == nullptr && size > 0)) return false;
  const char* next = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = ::write(fd, next, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;  // an error, or no progress: give up rather than spin
    next += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace posix_io
