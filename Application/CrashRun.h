// The crash processor's run: `crash-processor <productName> <pid> [ignored...]`.
// One pass: find the session-information files the crashed process left,
// write a crash usage log for each valid one, delete them, and answer how
// far it got. The run reads no input and prints nothing (step traces only in
// a build with LUMETRY_TRACE).
#ifndef LUMETRY_APPLICATION_CRASHRUN_H_
#define LUMETRY_APPLICATION_CRASHRUN_H_

#include <cstdint>
#include <string>

namespace CrashProcessor {

// Statuses of the run (a shell sees 0, 255, 254, 253).
constexpr int kRunOk = 0;
constexpr int kRunBadArguments = -1;
constexpr int kRunNoSessionFiles = -2;
constexpr int kRunCrashLogsFailed = -3;

// The current user's Library directory, absolute, without a trailing "/";
// created when missing. `dir` is untouched when it cannot be found.
bool GetUserLibraryDirectory(std::string* dir);

// Overwrites `flag` with the stored "obfuscate" number of the current user
// and host, when there is one; otherwise leaves it as it was.
void ReadObfuscatePreference(std::int32_t* flag);

// The whole run; returns one of the statuses above.
int Run(int argc, const char* const argv[]);

}  // namespace CrashProcessor

#endif  // LUMETRY_APPLICATION_CRASHRUN_H_
