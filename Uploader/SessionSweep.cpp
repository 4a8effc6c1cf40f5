// The sweep; see SessionSweep.h. Each file is decided and consumed under its
// own lock, through the crash run's own steps, so its log is the one the
// crash processor would have written (file name, document, "obfuscate").
#include "SessionSweep.h"

#include <vector>

#include "CrashRun.h"
#include "FileUtil.h"
#include "FileUtilPlatform.h"
#include "LockTable.h"
#include "RuntimePlaces.h"
#include "SessionInfo.h"
#include "SessionLiveness.h"

namespace Courier {
namespace {

const char kSource[] = "Uploader/SessionSweep";

}  // namespace

SweepResult SweepOrphanedSessions(const std::string& libraryDir, bool dryRun, Reporter& report) {
  SweepResult result;
  if (libraryDir.empty()) return result;
  const std::string sessionDir = libraryDir + Places::kSessionInfoSubdir;
  const std::string logDir = libraryDir + Places::kUploaderLogSubdir;
  const std::int64_t bootTime = BootTime();
  bool obfuscateRead = false;
  std::int32_t obfuscate = 1;

  // The crash processor relies on the host to have made the spool; the
  // sweep makes it, and keeps every file while it cannot.
  if (!dryRun && FileUtil::IsDirectory(sessionDir) && !FileUtil::CreateDirectories(logDir)) {
    report.Say("no spool directory for swept sessions; they stay for a later pass", kSource,
               __LINE__);
    return result;
  }
  FileUtil::platform::ForEachName(sessionDir, [&](const char* entry) {
    const std::string name = entry;
    const SessionClaim claim = SessionClaim::Take(sessionDir + name);
    SessionFacts facts;
    if (!claim.IsHeld() || !claim.Facts(name, bootTime, &facts) || !IsOrphaned(facts)) {
      ++result.live;
      return;
    }
    ++result.swept;
    const CrashProcessor::SessionInfoRecord record = CrashProcessor::ParseSessionInfoName(name);
    const bool valid = !record.sessionId.empty() && !record.logNameKey.empty();
    report.Say(std::string(dryRun ? "would sweep" : "swept") + " orphaned session " + name +
                   (valid ? " into a crash log" : " (no session in its name: deleted only)"),
               kSource, __LINE__);
    if (dryRun) return;
    if (!obfuscateRead) {
      CrashProcessor::ReadObfuscatePreference(&obfuscate);
      obfuscateRead = true;
    }
    const std::vector<std::string> names = {name};
    if (valid) CrashProcessor::CreateCrashLogs(logDir, record.processName, names, obfuscate == 1);
    CrashProcessor::DeleteSessionFiles(sessionDir, names);
  });
  return result;
}

SessionCounts CountSessionFiles(const std::string& libraryDir) {
  SessionCounts counts;
  if (libraryDir.empty()) return counts;
  const std::string sessionDir = libraryDir + Places::kSessionInfoSubdir;
  const std::int64_t bootTime = BootTime();
  const LockTable locks = LockTable::Read();
  FileUtil::platform::ForEachName(sessionDir, [&](const char* entry) {
    const std::string path = sessionDir + entry;
    FileUtil::platform::ItemAttributes item;
    if (!FileUtil::platform::GetItemAttributes(path, &item) ||
        item.kind != FileUtil::platform::ItemKind::kRegular) {
      return;  // the sweep only ever takes regular files
    }
    SessionFacts facts;
    if (!locks.IsLocked(path) && SessionFactsAt(path, entry, bootTime, &facts) &&
        IsOrphaned(facts)) {
      ++counts.orphaned;
    } else {
      ++counts.live;
    }
  });
  return counts;
}

}  // namespace Courier
