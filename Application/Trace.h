// Step traces of the crash run. They are silent unless the build asks for
// them with the option LUMETRY_TRACE (off by default), whatever the build
// type: the run must stay silent on the user's machine, and a build that
// leaves NDEBUG unset (CMAKE_BUILD_TYPE=None, as distribution build helpers
// pass) must not change that. With the option each text is printed as one
// line on standard error, prefixed with "crash-processor: ".
#ifndef LUMETRY_APPLICATION_TRACE_H_
#define LUMETRY_APPLICATION_TRACE_H_

#include <string>

#if LUMETRY_TRACE
#include <cstdio>
#endif

namespace CrashProcessor {

inline void Trace(const std::string& text) {
#if LUMETRY_TRACE
  std::fprintf(stderr, "crash-processor: %s\n", text.c_str());
#else
  (void)text;
#endif
}

}  // namespace CrashProcessor

#endif  // LUMETRY_APPLICATION_TRACE_H_
