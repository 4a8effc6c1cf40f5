// The uploader's paths and launcher: finding the LogCourier2 executable
// (through a location hint announced by the host, or nested in the main
// bundle), starting it with one argument, and naming the per-user places that
// belong to it (its log directory, its lock file, the Tarvix policy file).
// Lookups that find nothing answer the empty string; launches answer a flag.
#ifndef LUMETRY_UTILITY_MAC_LOGCOURUTILSMAC_H_
#define LUMETRY_UTILITY_MAC_LOGCOURUTILSMAC_H_

#include <string>

// Announces the directory that holds "LogCourier2.app". A null `dir` changes
// nothing. The hint is a plain process-wide string without a lock: set it
// once, before the other calls.
void SetUploaderLocationHint(const char* dir);

// `appDir` + "/Contents/MacOS/LogCourier2" when both exist, else "".
std::string FindUploaderExecutableIn(const std::string& appDir);

// The executable inside the application `hint` names, else inside
// "MacOS/LogCourier2.app" beside the hint's grandparent (a hint in a host's
// Contents/Resources finds the copy in the host's Contents/MacOS), else "".
std::string LocateUploaderFromHint(const std::string& hint);

// Through the location hint first, then the copy nested in the main bundle's
// Contents/MacOS; "" when neither exists.
std::string LocateUploaderExecutable();

// The "LogCourier2.app" directory of the located executable, or "".
std::string GetUploaderAppPath();

// True when the executable can be located.
bool IsUploaderInstalled();

// Starts the located uploader with `argument`. An empty `guard` refuses the
// start (false, nothing logged); the guard is not otherwise used. Logs the
// path it starts (empty when none was found) to the diagnostic log.
bool LaunchUploader(const std::string& guard, const std::string& argument);

// Starts the executable at `path` with `argument`, detached. When `path` does
// not exist, runs the unquoted shell command BuildUnquotedCommand instead;
// when the detached start fails for an existing path, runs
// BuildBackgroundCommand. A shell fallback succeeds when system() answers 0.
bool OpenApplication(const std::string& path, const std::string& argument);

// path + " " + argument, with no quoting at all.
std::string BuildUnquotedCommand(const std::string& path, const std::string& argument);

// The path single-quoted for the shell, then " ", the argument unquoted and
// " &". Each "'" is escaped as "'\''", but the scan for quotes stops at the
// length of `path` as given: a quote pushed past that position by earlier
// escapes stays unescaped.
std::string BuildBackgroundCommand(const std::string& path, const std::string& argument);

// ~/Library/Logs/Quorvik/LogCourier2QX, created when missing (a file in its
// place is replaced by the directory); "" without a Library directory. The
// path is answered even when creation fails.
std::string GetUploaderLogDir();

// GetUploaderLogDir() + "/.LogCourierAppLock". A bare "/.LogCourierAppLock"
// (no log directory) is no usable lock path.
std::string GetUploaderLockPath();

// ~/Library/Application Support/Quorvik/Tarvix/TarvixQX/tarvix_policy.xml,
// its directory created when possible; "" without an Application Support
// directory.
std::string GetTarvixPolicyPath();

#endif  // LUMETRY_UTILITY_MAC_LOGCOURUTILSMAC_H_
