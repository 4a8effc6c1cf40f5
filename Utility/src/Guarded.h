// The one exception guard of the utility layer. Errors cross subsystem
// borders as results, never as exceptions: each public entry point of a
// subsystem runs its body through Guarded, and the helpers below it let
// their exceptions (in practice only std::bad_alloc) rise to that one place.
#ifndef LUMETRY_UTILITY_GUARDED_H_
#define LUMETRY_UTILITY_GUARDED_H_

#include <utility>

// Runs `body` and answers its result, or `fallback` when it throws.
template <typename Result, typename Body>
Result Guarded(Result fallback, Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (...) {
    return fallback;
  }
}

// Runs `body`; an exception ends it silently.
template <typename Body>
void GuardedRun(Body&& body) noexcept {
  try {
    std::forward<Body>(body)();
  } catch (...) {
  }
}

#endif  // LUMETRY_UTILITY_GUARDED_H_
