// `LogCourier2 --status [--json]`: why something was or was not sent, read
// without any network request and without waiting for a running pass. It
// takes no lock (the kernel's lock table tells which files are held) and
// changes no file.
#ifndef LUMETRY_UPLOADER_STATUSVIEW_H_
#define LUMETRY_UPLOADER_STATUSVIEW_H_

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "SessionSweep.h"

namespace Courier {

struct SpoolFileStatus {
  std::string name;
  std::uint64_t bytes = 0;
  std::int64_t modified = 0;   // seconds since the epoch
  std::uint32_t failures = 0;  // failed attempts so far
  std::int64_t nextTry = 0;    // earliest next attempt; 0: at the next pass
  bool locked = false;         // held by a writer (or by a pass sending it)
  std::string pausedUntil;     // the item's wake date while the server pauses it
};

struct StatusReport {
  std::int64_t now = 0;
  std::string spool;
  std::vector<SpoolFileStatus> files;  // oldest first
  std::string privacyGate;             // which switch says no, or ""
  std::string status;                  // "Active", "Kill" or "Hibernate"
  std::string wakeDate;                // of a Hibernate, as the server wrote it
  std::int64_t retryAfter = 0;         // no upload before this moment; 0: no hold
  std::string serverUrl;
  std::string sessionDir;
  SessionCounts sessions;
  std::int64_t lastPass = 0;  // when the last pass ended; 0: none recorded
  std::string lastSummary;
};

StatusReport CollectStatus(std::int64_t now);
void PrintStatusText(const StatusReport& report, std::ostream& out);
void PrintStatusJson(const StatusReport& report, std::ostream& out);

// Where a pass leaves its time and summary for the view (beside the ledger).
std::string LastPassPath(const std::string& configPath);
void RecordLastPass(const std::string& configPath, std::int64_t when, const std::string& summary);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_STATUSVIEW_H_
