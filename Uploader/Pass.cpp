// One pass of the uploader; see Pass.h. Each step is in the file named after
// it; this file only puts them in order.
#include "Pass.h"

#include <algorithm>
#include <ctime>
#include <set>
#include <sstream>

#include "AttemptLedger.h"
#include "DiskBudget.h"
#include "FileUtil.h"
#include "Gates.h"
#include "Mac/LogCourUtilsMac.h"
#include "PassContext.h"
#include "PassLock.h"
#include "Reporter.h"
#include "RuntimePlaces.h"
#include "ServerSettings.h"
#include "SessionSweep.h"
#include "SpoolScan.h"
#include "StatusView.h"
#include "Uploads.h"

namespace Courier {
namespace {

const char kSource[] = "Uploader/Pass";

std::int64_t Now(const PassSettings& settings) {
  return settings.clock ? settings.clock() : static_cast<std::int64_t>(std::time(nullptr));
}

}  // namespace

std::string PassSummary::Describe() const {
  std::ostringstream out;
  out << "sent " << sent << ", refused " << refused << ", given up " << gaveUp
      << ", failed attempts " << failed << ", deleted for space " << budgetDeleted
      << ", still being written " << busy << ", paused " << paused << ", waiting " << waiting
      << ", left in the spool " << kept << ", requests " << requests << ", orphaned sessions swept "
      << swept;
  if (!quietReason.empty()) out << "; no requests: " << quietReason;
  if (!stopReason.empty() && stopReason != quietReason) out << "; stopped: " << stopReason;
  return out.str();
}

PassSummary RunPass(const PassSettings& settings, Reporter& report) {
  PassContext context(settings, report);
  context.now = Now(settings);
  report.Say("pass started" + (settings.reason.empty() ? "" : " (" + settings.reason + ")"),
             kSource, __LINE__);

  const std::string spool = GetUploaderLogDir();
  if (spool.empty()) {
    report.Say("no spool directory (no home directory?), nothing to do", kSource, __LINE__);
    return context.summary;
  }
  const PassLock lock = PassLock::Take(GetUploaderLockPath());
  if (!lock.IsHeld()) {
    report.Say("another pass holds the lock; it will see the new files", kSource, __LINE__);
    return context.summary;
  }
  // First, and whatever the gates say: it only writes to the local spool.
  std::string libraryDir;
  if (FileUtil::GetUserLibraryDirectory(&libraryDir)) {
    context.summary.swept =
        static_cast<int>(SweepOrphanedSessions(libraryDir, settings.dryRun, report).swept);
  }

  context.configPath = Uploader::GetUploaderConfigPath();
  context.ReloadConfig();
  AttemptLedger ledger = AttemptLedger::Load(
      context.configPath.empty() ? ""
                                 : FileUtil::JoinPath(FileUtil::ParentDirectory(context.configPath),
                                                      Places::kAttemptLedgerName));

  const std::string gate = PrivacyGateReason();
  if (!gate.empty()) {
    context.CloseNetwork(gate);
  } else if (CheckUploaderStatus(context)) {
    FetchConfiguration(context);
    FetchPolicy(context);
  }
  if (!context.networkOpen && context.summary.requests == 0) {
    context.summary.quietReason = context.summary.stopReason;
  }

  {
    // One listing of the spool at a time: it is the pass's only memory that
    // grows with the number of logs.
    std::vector<SpoolEntry> entries = ScanSpool(spool);
    const BudgetResult budget =
        ApplyDiskBudget(entries, context.config.maxDiskSpace, settings.dryRun, report);
    context.summary.budgetDeleted = static_cast<int>(budget.deleted.size());
    const std::set<std::string> gone(budget.deleted.begin(), budget.deleted.end());
    entries.erase(std::remove_if(entries.begin(), entries.end(),
                                 [&gone](const SpoolEntry& e) { return gone.count(e.name) != 0; }),
                  entries.end());
    std::set<std::string> recorded;  // the ledger's files still in the spool
    for (const SpoolEntry& entry : entries) {
      if (ledger.Find(entry.name) != nullptr) recorded.insert(entry.name);
    }
    ledger.KeepOnly(recorded);
    UploadSpool(context, entries, ledger);
  }
  if (!settings.dryRun && !ledger.SaveIfChanged()) {
    report.Say("could not write the attempt ledger", kSource, __LINE__);
  }
  if (!context.networkOpen && context.summary.requests == 0) {
    context.summary.quietReason = context.summary.stopReason;
  }
  context.summary.kept = static_cast<int>(ScanSpool(spool).size());
  context.summary.ran = true;
  report.Say("pass done: " + context.summary.Describe(), kSource, __LINE__);
  if (!settings.dryRun)
    RecordLastPass(context.configPath, Now(settings), context.summary.Describe());
  return context.summary;
}

}  // namespace Courier
