// The order of the crash run's steps and its exit status.
#include "CrashRun.h"

#include <vector>

#include "FileUtil.h"
#include "Preferences.h"
#include "RuntimePlaces.h"
#include "SessionInfo.h"
#include "Trace.h"

namespace CrashProcessor {

bool GetUserLibraryDirectory(std::string* dir) { return FileUtil::GetUserLibraryDirectory(dir); }

void ReadObfuscatePreference(std::int32_t* flag) {
  // Absent or not a number: the caller's value stands.
  GetPreferenceNumber(Places::kObfuscateKey, Places::kTelemetryDomain, flag, PrefUser::kCurrentUser,
                      PrefHost::kCurrentHost);
}

int Run(int argc, const char* const argv[]) {
  const std::string program = argc > 0 && argv[0] != nullptr ? argv[0] : "";
  Trace("argv[0]: " + program);

  if (argc < 3) {
    Trace("Invalid Argument! arg0: " + program);
    if (argc == 2) Trace(std::string("arg1: ") + (argv[1] != nullptr ? argv[1] : ""));
    return kRunBadArguments;
  }

  const std::string productName = argv[1];
  const std::string pid = argv[2];

  // Without a Library folder every path starts at the file-system root.
  std::string libraryDir;
  GetUserLibraryDirectory(&libraryDir);
  Trace("sLogDir: " + libraryDir);
  Trace("prodName: " + productName + " pid: " + pid);

  std::vector<std::string> names;
  if (!FindSessionInfoFiles(libraryDir, productName, pid, &names)) {
    Trace("Can not locate session information file!");
    return kRunNoSessionFiles;
  }

  int status = kRunOk;
  Trace("Create Crash Log!");
  std::int32_t obfuscate = 1;
  ReadObfuscatePreference(&obfuscate);

  const std::string logDir = libraryDir + Places::kUploaderLogSubdir;
  if (!CreateCrashLogs(logDir, productName, names, obfuscate == 1)) {
    Trace(" Can not create the crashed log files!");
    status = kRunCrashLogsFailed;
  }

  // Every matched file goes, valid or not, so a bad file never blocks later runs.
  Trace("Delete Session Files");
  DeleteSessionFiles(libraryDir + Places::kSessionInfoSubdir, names);
  return status;
}

}  // namespace CrashProcessor
