// Owns one POSIX file descriptor and closes it when the scope ends.
#ifndef LUMETRY_UTILITY_POSIX_SCOPEDFD_H_
#define LUMETRY_UTILITY_POSIX_SCOPEDFD_H_

#include <unistd.h>

#include <utility>

class ScopedFd {
 public:
  ScopedFd() = default;
  explicit ScopedFd(int fd) : fd_(fd) {}
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ScopedFd(ScopedFd&& other) noexcept : fd_(other.release()) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~ScopedFd() { reset(); }

  int get() const { return fd_; }
  bool is_valid() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

#endif  // LUMETRY_UTILITY_POSIX_SCOPEDFD_H_
