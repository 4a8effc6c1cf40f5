// Finding, decoding, consuming and deleting session-information files.
#include "SessionInfo.h"

#include "FileUtil.h"
#include "MiniSession.h"
#include "PrivacyPrefs.h"
#include "RuntimePlaces.h"
#include "StringUtil.h"
#include "Trace.h"

namespace CrashProcessor {
namespace {

constexpr std::size_t kPieceCount = 8;

// The crash session is recorded under the telemetry system's own product.
constexpr const char* kCrashProductFamily = "LumetryQX";
constexpr const char* kCrashProductName = "AppCrash";

}  // namespace

bool FindSessionInfoFiles(const std::string& libraryDir, const std::string& productName,
                          const std::string& pid, std::vector<std::string>* names) {
  names->clear();
  if (productName.empty() || pid.empty()) return false;
  const std::vector<std::string> keys = {productName, pid};
  return FileUtil::ListDirectoryMatching(libraryDir + Places::kSessionInfoSubdir, keys, names);
}

SessionInfoRecord ParseSessionInfoName(const std::string& fileName) {
  SessionInfoRecord record;
  record.fileName = fileName;

  const std::string::size_type dot = fileName.rfind('.');
  const std::string stem = dot == std::string::npos ? fileName : fileName.substr(0, dot);

  std::vector<std::string> pieces;
  StringUtil::Split(stem, &pieces, "_");
  if (pieces.size() != kPieceCount) return record;

  record.field1 = pieces[0];
  record.crashProductFamily = pieces[1];
  record.crashProductName = pieces[2];
  record.sessionId = pieces[3];
  record.logNameKey = pieces[4];
  record.field6 = pieces[5];
  record.field7 = pieces[6];
  record.processName = pieces[7];
  return record;
}

bool CreateCrashLogs(const std::string& logDir, const std::string& productName,
                     const std::vector<std::string>& names, bool scramble) {
  if (logDir.empty() || names.empty()) return false;

  for (const std::string& name : names) {
    Trace("SesFile: " + name);
    const SessionInfoRecord record = ParseSessionInfoName(name);
    if (record.processName != productName || record.sessionId.empty() ||
        record.logNameKey.empty()) {
      Trace("Get wrong Session Info File pocessName: " + productName +
            " sesinfofile: " + record.crashProductName);
      continue;
    }
    // One writer per session; it closes its file when it goes out of scope,
    // before the next session starts.
    MiniSession session(logDir, kCrashProductFamily, kCrashProductName, record.sessionId,
                        record.logNameKey, scramble);
    session.CreateCrashFile(GetMachineID(), record.crashProductFamily, record.crashProductName);
  }
  return true;
}

bool DeleteSessionFiles(const std::string& sessionDir, const std::vector<std::string>& names) {
  return FileUtil::DeleteNamedFiles(sessionDir, names);
}

}  // namespace CrashProcessor
