// The identity of the running process, for diagnostic lines. Linux binding:
// Posix/ProcessIdPosix.cpp.
#ifndef LUMETRY_UTILITY_PROCESSID_H_
#define LUMETRY_UTILITY_PROCESSID_H_

namespace Platform {

// The process id of the caller.
long CurrentProcessId();

}  // namespace Platform

#endif  // LUMETRY_UTILITY_PROCESSID_H_
