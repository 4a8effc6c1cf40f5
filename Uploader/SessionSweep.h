// The sweep of orphaned sessions, the first step of every pass: each session
// file whose session ended without the crash hook (killed, OOM-killed, cut by
// a power loss, a crash processor killed at its wait limit) becomes the crash
// log the crash processor would have written for it, and is deleted. It
// writes only to the local spool, so it runs whatever the privacy gates and
// the server say; they still decide what is sent.
#ifndef LUMETRY_UPLOADER_SESSIONSWEEP_H_
#define LUMETRY_UPLOADER_SESSIONSWEEP_H_

#include <cstddef>
#include <string>

#include "Reporter.h"

namespace Courier {

struct SweepResult {
  std::size_t swept = 0;  // orphaned files logged (when valid) and deleted
  std::size_t live = 0;   // files left alone: locked, or of a live process
};

// Sweeps `libraryDir`'s session directory into its spool, one diagnostic
// line per swept session. With `dryRun` it only says what it would do.
// Memory does not grow with the number of files.
SweepResult SweepOrphanedSessions(const std::string& libraryDir, bool dryRun, Reporter& report);

struct SessionCounts {
  std::size_t live = 0;      // locked, or of a live process
  std::size_t orphaned = 0;  // waiting for the next pass's sweep
};

// Counts `libraryDir`'s session files by the sweep's rule without touching
// them (no lock is taken: the kernel's lock table tells which are held).
SessionCounts CountSessionFiles(const std::string& libraryDir);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_SESSIONSWEEP_H_
