// Bounds on regular expressions that come from outside the program. The C
// library's compiler expands repetitions into copies of their operand, so a
// short pattern ("a" followed by 24 "+") can ask for gigabytes; a pattern
// from a file or a server is compiled only when it passes this check.
#ifndef LUMETRY_UTILITY_PATTERNBOUNDS_H_
#define LUMETRY_UTILITY_PATTERNBOUNDS_H_

#include <cstddef>
#include <string>

namespace PatternBounds {

constexpr std::size_t kMaxLength = 256;      // bytes of the pattern
constexpr std::size_t kMaxGroupDepth = 4;    // nested "(" groups
constexpr std::size_t kMaxRepeat = 64;       // each bound of "{m,n}"
constexpr std::size_t kMaxExpansion = 1024;  // atoms after expanding repetitions

// True when the POSIX extended expression `pattern` is within the bounds:
// at most kMaxLength bytes, no NUL byte, groups nested at most
// kMaxGroupDepth deep and closed, no quantifier right after another ("a++",
// "a*{2}"), repetition bounds of at most kMaxRepeat, no back-reference, and
// at most kMaxExpansion atoms once every repetition is written out. False
// for anything else, including patterns the compiler would reject anyway.
bool IsAcceptable(const std::string& pattern);

}  // namespace PatternBounds

#endif  // LUMETRY_UTILITY_PATTERNBOUNDS_H_
