// Step traces of the crash run. A release build composes each text and drops
// it: the run must stay silent on the user's machine. A debug build (no
// NDEBUG) prints each text as one line on standard error, prefixed with
// "crash-processor: ", so a developer can follow the run.
#ifndef LUMETRY_APPLICATION_TRACE_H_
#define LUMETRY_APPLICATION_TRACE_H_

#include <string>

#ifndef NDEBUG
#include <cstdio>
#endif

namespace CrashProcessor {

inline void Trace(const std::string& text) {
#ifndef NDEBUG
  std::fprintf(stderr, "crash-processor: %s\n", text.c_str());
#else
  (void)text;
#endif
}

}  // namespace CrashProcessor

#endif  // LUMETRY_APPLICATION_TRACE_H_
