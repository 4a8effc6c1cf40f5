// Writing a whole buffer to a POSIX file descriptor, shared by every writer
// of the Linux bindings (copies, the preference store, settings saves and the
// usage-log file).
#ifndef LUMETRY_UTILITY_POSIX_FDWRITE_H_
#define LUMETRY_UTILITY_POSIX_FDWRITE_H_

#include <cstddef>

namespace posix_io {

// Writes all `size` bytes, retrying after interruptions and short writes.
// False on an error or when the descriptor stops taking bytes.
bool WriteAll(int fd, const void* data, std::size_t size);

}  // namespace posix_io

#endif  // LUMETRY_UTILITY_POSIX_FDWRITE_H_
