// The pass lock. The file is opened read-only (flock does not need write
// access): closing a file opened for writing would look like a change of the
// spool to the service that watches it, and start another pass for nothing.
#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "PassLock.h"

namespace Courier {

PassLock PassLock::Take(const std::string& path) {
  if (path.empty()) return PassLock(ScopedFd());
  int raw = -1;
  do {
    raw = ::open(path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  } while (raw < 0 && errno == EINTR);
  ScopedFd fd(raw);
  if (!fd.is_valid() || ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return PassLock(ScopedFd());
  return PassLock(std::move(fd));
}

}  // namespace Courier
