// The read and write loops over a file descriptor.
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

FileIO::ReadStatus ReadAll(int fd, std::size_t max_bytes, std::string* contents, int* error) {
  std::string data;
  char buffer[16384];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      *error = errno;
      return FileIO::ReadStatus::kError;
    }
    if (got == 0) break;
    // Files that report no size (/proc, sysfs, pipes) are capped as they are read.
    if (data.size() + static_cast<std::size_t>(got) > max_bytes) {
      return FileIO::ReadStatus::kTooLarge;
    }
    data.append(buffer, static_cast<std::size_t>(got));
  }
  contents->swap(data);
  return FileIO::ReadStatus::kOk;
}

}  // namespace posix_io
