// The uploader's paths and launcher; see LogCourUtilsMac.h. Everything that
// touches the file system goes through FileUtil, process starts go through
// the Launch seam.
#include "Mac/LogCourUtilsMac.h"

#include "FileUtil.h"
#include "Launch.h"
#include "Logger.h"
#include "PlatformPaths.h"
#include "RuntimePlaces.h"

namespace {

// Where a host application's bundle carries its own copy of the uploader.
const char kMacOSDir[] = "MacOS/";
const char kContentsDir[] = "/Contents/";

// The full path of the LogCourier2.app a caller announced; empty until then.
// Never destroyed, so it stays usable during static destruction.
std::string& LocationHint() {
  static std::string* hint = new std::string();
  return *hint;
}

}  // namespace

void SetUploaderLocationHint(const char* dir) {
  if (dir == nullptr) return;
  LocationHint() = FileUtil::WithTrailingSeparator(dir) + Places::kUploaderAppName;
}

std::string FindUploaderExecutableIn(const std::string& appDir) {
  if (!FileUtil::Exists(appDir)) return std::string();
  std::string executable = FileUtil::JoinPath(appDir, Places::kUploaderExecutableInApp);
  if (FileUtil::Exists(executable)) return executable;
  return std::string();
}

std::string LocateUploaderFromHint(const std::string& hint) {
  if (hint.empty()) return std::string();
  std::string executable = FindUploaderExecutableIn(hint);
  if (!executable.empty()) return executable;
  // A hint in the host's Contents/Resources: the uploader may sit in the
  // host's Contents/MacOS instead.
  std::string contents = FileUtil::ParentDirectory(FileUtil::ParentDirectory(hint));
  return FindUploaderExecutableIn(FileUtil::WithTrailingSeparator(contents) + kMacOSDir +
                                  Places::kUploaderAppName);
}

std::string LocateUploaderExecutable() {
  std::string executable = LocateUploaderFromHint(LocationHint());
  if (!executable.empty()) return executable;

  std::string bundle;
  if (Platform::GetMainBundlePath(&bundle) && !bundle.empty()) {
    executable =
        FileUtil::JoinPath(bundle, std::string(kContentsDir) + kMacOSDir +
                                       Places::kUploaderAppName + Places::kUploaderExecutableInApp);
    if (FileUtil::Exists(executable)) return executable;
  }
  return std::string();
}

std::string GetUploaderAppPath() {
  std::string executable = LocateUploaderExecutable();
  if (executable.empty()) return std::string();
  // Drop ".../Contents/MacOS/LogCourier2".
  return FileUtil::ParentDirectory(
      FileUtil::ParentDirectory(FileUtil::ParentDirectory(executable)));
}

bool IsUploaderInstalled() { return !LocateUploaderExecutable().empty(); }

bool LaunchUploader(const std::string& guard, const std::string& argument) {
  // The guard only has to be present; its text is deliberately unused.
  if (guard.empty()) return false;
  std::string executable = LocateUploaderExecutable();
  Logger::Instance(Places::kSessionLoggerName)
      .Info("LogCourier2 Path: " + executable,
            FormatPosition("Utility/src/Mac/LogCourUtilsMac", 290));
  return OpenApplication(executable, argument);
}

std::string BuildUnquotedCommand(const std::string& path, const std::string& argument) {
  return path + " " + argument;
}

std::string BuildBackgroundCommand(const std::string& path, const std::string& argument) {
  std::string quoted = path;
  // The bound is the length of the path as given, not of the growing copy:
  // quotes that earlier escapes push beyond it are left alone. Callers of the
  // shell fallback rely on this exact command text, so the limit stays.
  const std::string::size_type limit = path.size();
  for (std::string::size_type i = 0; i < limit; ++i) {
    if (quoted[i] == '\'') {
      quoted.insert(i, "'\\'");
      i += 3;  // now on the quote itself; the loop steps past it
    }
  }
  return "'" + quoted + "' " + argument + " &";
}

bool OpenApplication(const std::string& path, const std::string& argument) {
  FileUtil::FSRef ref;
  if (!FileUtil::MakeFSRef(path, &ref)) {
    // Nothing at `path` (an empty path included): hand the whole line to the
    // shell as it stands.
    return Launch::RunShellCommand(BuildUnquotedCommand(path, argument));
  }
  if (Launch::SpawnDetached(path, argument)) return true;
  // The direct start failed (not executable, not a binary the system can
  // load): let the shell try, in the background so that system() returns
  // at once.
  if (!FileUtil::Exists(path)) return false;
  return Launch::RunShellCommand(BuildBackgroundCommand(path, argument));
}

std::string GetUploaderLogDir() {
  std::string library;
  if (!FileUtil::GetUserLibraryDirectory(&library)) return std::string();
  std::string dir = FileUtil::JoinPath(library, Places::kUploaderLogSubdir);
  // CreateDirectories replaces a plain file that is in the way.
  if (!FileUtil::IsDirectory(dir)) FileUtil::CreateDirectories(dir);
  return dir;
}

std::string GetUploaderLockPath() { return GetUploaderLogDir() + "/" + Places::kUploaderLockName; }

std::string GetTarvixPolicyPath() {
  std::string support;
  if (!FileUtil::GetApplicationSupportDirectory(&support)) return std::string();
  std::string dir = FileUtil::JoinPath(support, Places::kTarvixSubdir);
  FileUtil::CreateDirectories(dir);  // the outcome does not matter here
  return dir + "/" + Places::kTarvixPolicyName;
}
