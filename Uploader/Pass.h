// One pass of the uploader over its spool, in this order: the single-instance
// lock, the privacy gates, the uploader's status, the configuration fetch,
// the policy fetch, the disk budget, then the uploads, oldest first. Every
// outcome ends the pass normally; the summary says what happened.
#ifndef LUMETRY_UPLOADER_PASS_H_
#define LUMETRY_UPLOADER_PASS_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Transport.h"

namespace Courier {

class Reporter;

struct PassSettings {
  bool dryRun = false;  // decide everything; no request, no deletion, no record changed
  std::string reason;   // why the pass was started (logged only)
  // Seconds since the epoch; the system clock when empty.
  std::function<std::int64_t()> clock;
  // Makes the transport, at most once, when the first request is due (so a
  // pass that sends nothing never touches the network layer). Required.
  std::function<std::unique_ptr<Transport>()> makeTransport;
};

struct PassSummary {
  bool ran = false;         // the lock was taken and the pass went through
  std::string quietReason;  // why no request was made at all, or ""
  std::string stopReason;   // why the uploads ended early, or ""
  int requests = 0;         // requests made (all kinds)
  int swept = 0;            // orphaned sessions turned into crash logs
  int sent = 0;             // accepted by the server, deleted
  int refused = 0;          // refused for good by the server, deleted
  int gaveUp = 0;           // deleted after the last allowed failed attempt
  int failed = 0;           // failed attempts counted (files kept)
  int budgetDeleted = 0;    // deleted to keep the spool within its budget
  int busy = 0;             // skipped: still being written
  int paused = 0;           // skipped: the item is paused by the server
  int waiting = 0;          // skipped: retry interval not over yet
  int kept = 0;             // usage logs left in the spool at the end

  // One line: "sent N, refused N, ..." for the verbose summary.
  std::string Describe() const;
};

PassSummary RunPass(const PassSettings& settings, Reporter& report);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_PASS_H_
