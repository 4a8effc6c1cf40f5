// The read and write loops over a POSIX file descriptor, shared by every
// reader and writer of the Linux bindings: a whole buffer written, a whole
// descriptor read with a cap.
#ifndef LUMETRY_UTILITY_POSIX_FDWRITE_H_
#define LUMETRY_UTILITY_POSIX_FDWRITE_H_

#include <cstddef>
#include <string>

#include "FileIO.h"

namespace posix_io {

// Writes all `size` bytes, retrying after interruptions and short writes.
// False on an error or when the descriptor stops taking bytes.
bool WriteAll(int fd, const void* data, std::size_t size);

// Reads `fd` from its current position to its end into `contents`, retrying
// after interruptions; kTooLarge past `max_bytes`, kError with the system's
// error code in `error`. `contents` is written only on kOk.
FileIO::ReadStatus ReadAll(int fd, std::size_t max_bytes, std::string* contents, int* error);

}  // namespace posix_io

#endif  // LUMETRY_UTILITY_POSIX_FDWRITE_H_
