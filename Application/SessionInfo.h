// The session-information files a host application leaves in
// ~/Library/Logs/Quorvik/LumetryQX/SessionInfo/. Only their names matter:
// eight "_"-separated pieces and an extension. This module finds the names a
// crashed process left, turns each valid one into a crash usage log, and
// deletes the files. Names are handled as bytes: a name that is not valid
// UTF-8 is matched, parsed and deleted like any other.
#ifndef LUMETRY_APPLICATION_SESSIONINFO_H_
#define LUMETRY_APPLICATION_SESSIONINFO_H_

#include <string>
#include <vector>

namespace CrashProcessor {

// A session-information file name and its eight pieces (all empty when the
// name does not split into exactly eight).
struct SessionInfoRecord {
  std::string fileName;
  std::string field1;
  std::string crashProductFamily;
  std::string crashProductName;
  std::string sessionId;
  std::string logNameKey;
  std::string field6;
  std::string field7;
  std::string processName;
};

// Clears `names`, then fills it with the bare names of the entries of
// libraryDir + "/Logs/Quorvik/LumetryQX/SessionInfo/" that contain both the
// product name and the process id as substrings. True when any matched;
// false for an empty product name or process id or an unreadable directory.
bool FindSessionInfoFiles(const std::string& libraryDir, const std::string& productName,
                          const std::string& pid, std::vector<std::string>* names);

// Decodes a name; never fails.
SessionInfoRecord ParseSessionInfoName(const std::string& fileName);

// Writes one crash session into `logDir` (ending in "/") for each name whose
// process name equals `productName` and whose session id and log name key
// are set. False only when `logDir` or `names` is empty.
bool CreateCrashLogs(const std::string& logDir, const std::string& productName,
                     const std::vector<std::string>& names, bool scramble);

// Removes sessionDir + name for each name (sessionDir ends in "/"); a failure
// is skipped. False only when `sessionDir` is empty.
bool DeleteSessionFiles(const std::string& sessionDir, const std::vector<std::string>& names);

}  // namespace CrashProcessor

#endif  // LUMETRY_APPLICATION_SESSIONINFO_H_
