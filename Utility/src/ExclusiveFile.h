// A file opened for reading and writing under an exclusive lock that is taken
// at open without waiting: when another open file already holds the lock, the
// open fails at once. Used to keep two processes from writing one usage log.
// The Linux binding is Posix/ExclusiveFilePosix.cpp.
#ifndef LUMETRY_UTILITY_EXCLUSIVEFILE_H_
#define LUMETRY_UTILITY_EXCLUSIVEFILE_H_

#include <cstddef>
#include <string>

class ExclusiveFile {
 public:
  // An empty handle: IsOpen() is false and Write fails.
  ExclusiveFile() = default;
  ExclusiveFile(const ExclusiveFile&) = delete;
  ExclusiveFile& operator=(const ExclusiveFile&) = delete;
  ExclusiveFile(ExclusiveFile&& other) noexcept;
  ExclusiveFile& operator=(ExclusiveFile&& other) noexcept;
  // Closes the file, which releases the lock.
  ~ExclusiveFile();

  // Opens `path` read-write, creating it with mode 0600 when absent. Neither
  // truncates nor appends: writing starts at the first byte. A symbolic link
  // at `path` is not followed. An empty handle when the open or the lock fails.
  static ExclusiveFile OpenExclusive(const std::string& path);

  bool IsOpen() const { return fd_ >= 0; }

  // Writes all `length` bytes at the current position, resuming after
  // interruptions and partial writes. False on an empty handle or an error
  // (some bytes may have been written by then).
  bool Write(const void* bytes, std::size_t length);

  void Close();

 private:
  explicit ExclusiveFile(int fd) : fd_(fd) {}
  int fd_ = -1;
};

#endif  // LUMETRY_UTILITY_EXCLUSIVEFILE_H_
