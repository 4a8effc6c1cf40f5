// The process-launching seam of the uploader launcher: a detached start of an
// executable with one argument, and a shell command run. Neither waits for the
// started program; neither throws.
// Linux binding: Posix/LaunchPosix.cpp.
#ifndef LUMETRY_UTILITY_LAUNCH_H_
#define LUMETRY_UTILITY_LAUNCH_H_

#include <string>

namespace Launch {

// Starts `executable` (an absolute or relative path, not searched in PATH)
// with `argument` as its only argument, in a session of its own. The new
// process is not a child of the caller, so it is never waited for and never
// lingers as a zombie. Its standard input is /dev/null, standard output and
// error are shared with the caller, no other descriptor is inherited, and the
// environment is the caller's. True when the program was started (its image
// was executed); false when it could not be.
bool SpawnDetached(const std::string& executable, const std::string& argument);

// Runs `command` with the C library's system(); true exactly when system()
// answers 0.
bool RunShellCommand(const std::string& command);

}  // namespace Launch

#endif  // LUMETRY_UTILITY_LAUNCH_H_
