// The single-instance lock of the uploader: an exclusive, non-blocking flock
// on the lock file in the spool, held for the whole pass. A second pass that
// finds it taken simply ends; the running pass will see the new files.
#ifndef LUMETRY_UPLOADER_PASSLOCK_H_
#define LUMETRY_UPLOADER_PASSLOCK_H_

#include <string>
#include <utility>

#include "Posix/ScopedFd.h"

namespace Courier {

class PassLock {
 public:
  PassLock(const PassLock&) = delete;
  PassLock& operator=(const PassLock&) = delete;
  PassLock(PassLock&&) noexcept = default;
  PassLock& operator=(PassLock&&) noexcept = default;
  ~PassLock() = default;  // closing the file releases the lock

  // Takes the lock on `path` without waiting. Not held when another process
  // holds it, or when the file cannot be opened or created (a link in its
  // place is not followed).
  static PassLock Take(const std::string& path);

  bool IsHeld() const { return fd_.is_valid(); }

 private:
  explicit PassLock(ScopedFd fd) : fd_(std::move(fd)) {}
  ScopedFd fd_;
};

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_PASSLOCK_H_
