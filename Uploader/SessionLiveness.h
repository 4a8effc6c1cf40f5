// Whether a session-information file still belongs to a running session.
// A host holds an exclusive flock on its session file for the session's
// life, so a file whose lock can be taken belongs to no live session of such
// a host; for hosts that write their files themselves the pid in the name and
// the process's start time decide. Linux binding:
// Posix/SessionLivenessPosix.cpp.
#ifndef LUMETRY_UPLOADER_SESSIONLIVENESS_H_
#define LUMETRY_UPLOADER_SESSIONLIVENESS_H_

#include <cstdint>
#include <string>

#include "Posix/ScopedFd.h"

namespace Courier {

// What is known of one session file once its lock has been taken. Times are
// seconds since the epoch.
struct SessionFacts {
  std::int64_t fileMade = 0;      // the file's creation time
  std::int64_t bootTime = 0;      // 0 when unknown
  bool hasPid = false;            // the name carries a process id
  bool processAlive = false;      // a running (not zombie) process has that pid
  std::int64_t processStart = 0;  // its start time, rounded down
};

// An unlocked file is orphaned when its process is gone, when the process
// with its pid started after the file was made (the pid was reused), or when
// the file is older than the current boot.
bool IsOrphaned(const SessionFacts& facts);

// The process id a session-file name carries: its first "_"-separated piece
// when that is a decimal number ("__1234__Fam_..." and "1234_Fam_..."); 0
// when there is none.
long SessionPid(const std::string& name);

// The claim on one session file: its flock, taken without waiting and held
// while the file is logged and deleted, so that no other pass, crash
// processor or host can act on it meanwhile.
class SessionClaim {
 public:
  // Not held when the path is not a regular file, cannot be opened (a link
  // is never followed) or another process holds its lock.
  static SessionClaim Take(const std::string& path);
  bool IsHeld() const { return fd_.is_valid(); }
  // The facts of the claimed file named `name` (false when unreadable);
  // `bootTime` comes from BootTime(), read once per sweep.
  bool Facts(const std::string& name, std::int64_t bootTime, SessionFacts* facts) const;

 private:
  explicit SessionClaim(ScopedFd fd) : fd_(std::move(fd)) {}
  ScopedFd fd_;
};

// The facts of the session file at `path` without claiming it (for a view
// that must not disturb a running pass); false when it cannot be examined.
bool SessionFactsAt(const std::string& path, const std::string& name, std::int64_t bootTime,
                    SessionFacts* facts);

// The time of the current boot in seconds since the epoch; 0 when unknown.
std::int64_t BootTime();

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_SESSIONLIVENESS_H_
