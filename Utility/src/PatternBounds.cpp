// The bounds on foreign regular expressions; see PatternBounds.h. A single
// pass with a stack of group sizes: each atom counts 1, a group counts what
// it holds, and a quantifier multiplies the size of the item it follows.
#include "PatternBounds.h"

#include <algorithm>
#include <vector>

namespace PatternBounds {
namespace {

// Saturating arithmetic: sizes past the limit only need to stay past it.
std::size_t Add(std::size_t a, std::size_t b) { return std::min(a + b, kMaxExpansion + 1); }
std::size_t Times(std::size_t a, std::size_t b) {
  return (a != 0 && b > (kMaxExpansion + 1) / a) ? kMaxExpansion + 1
                                                 : std::min(a * b, kMaxExpansion + 1);
}

// Reads a decimal bound at `*i`; false when there is none or it exceeds
// kMaxRepeat.
bool ReadBound(const std::string& p, std::size_t* i, std::size_t* value) {
  const std::size_t start = *i;
  *value = 0;
  while (*i < p.size() && p[*i] >= '0' && p[*i] <= '9') {
    *value = *value * 10 + static_cast<std::size_t>(p[*i] - '0');
    if (*value > kMaxRepeat) return false;
    ++*i;
  }
  return *i > start;
}

// Reads "{m}", "{m,}" or "{m,n}" at `*pos` (on the "{") and leaves `*pos` on
// the "}"; the copies that the compiler makes of the operand, or 0 when
// malformed or out of bounds.
std::size_t ReadInterval(const std::string& p, std::size_t* pos) {
  std::size_t i = *pos + 1;
  std::size_t low = 0;
  if (!ReadBound(p, &i, &low)) return 0;
  std::size_t copies = low;
  if (i < p.size() && p[i] == ',') {
    ++i;
    std::size_t high = 0;
    if (i < p.size() && p[i] >= '0' && p[i] <= '9') {
      if (!ReadBound(p, &i, &high) || high < low) return 0;
      copies = high;
    } else {
      copies = low + 1;  // an open end is a copy and a star
    }
  }
  if (i >= p.size() || p[i] != '}') return 0;
  *pos = i;
  return std::max<std::size_t>(copies, 1);
}

// Skips a bracket expression starting at `pos` (on the "["); false when it
// is not closed.
bool SkipBracket(const std::string& p, std::size_t* pos) {
  std::size_t i = *pos + 1;
  if (i < p.size() && p[i] == '^') ++i;
  if (i < p.size() && p[i] == ']') ++i;  // a leading "]" is literal
  for (; i < p.size(); ++i) {
    if (p[i] == '[' && i + 1 < p.size() &&
        (p[i + 1] == ':' || p[i + 1] == '.' || p[i + 1] == '=')) {
      const std::string close = std::string(1, p[i + 1]) + "]";
      const std::size_t end = p.find(close, i + 2);
      if (end == std::string::npos) return false;
      i = end + 1;
      continue;
    }
    if (p[i] == ']') {
      *pos = i;
      return true;
    }
  }
  return false;
}

}  // namespace

bool IsAcceptable(const std::string& pattern) {
  if (pattern.size() > kMaxLength || pattern.find('\0') != std::string::npos) return false;
  std::vector<std::size_t> groups(1, 0);  // the size of each open group
  std::size_t last = 0;                   // the size of the item a quantifier would repeat
  bool after_quantifier = false;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    const char c = pattern[i];
    std::size_t copies = 0;
    if (c == '*' || c == '+' || c == '?') {
      copies = 2;
    } else if (c == '{') {
      copies = ReadInterval(pattern, &i);
      if (copies == 0) return false;
    }
    if (copies != 0) {
      if (after_quantifier) return false;
      groups.back() = Add(groups.back(), Times(last, copies - 1));
      last = Times(last, copies);
      after_quantifier = true;
    } else {
      after_quantifier = false;
      if (c == '(') {
        if (groups.size() > kMaxGroupDepth) return false;
        groups.push_back(0);
        last = 0;
        continue;
      }
      if (c == ')') {
        if (groups.size() < 2) return false;
        last = std::max<std::size_t>(groups.back(), 1);
        groups.pop_back();
      } else if (c == '\\') {
        if (++i >= pattern.size() || (pattern[i] >= '1' && pattern[i] <= '9')) return false;
        last = 1;
      } else if (c == '[') {
        if (!SkipBracket(pattern, &i)) return false;
        last = 1;
      } else if (c == '|') {
        last = 0;
        continue;
      } else {
        last = 1;
      }
      groups.back() = Add(groups.back(), last);
    }
    if (groups.back() > kMaxExpansion) return false;
  }
  return groups.size() == 1;
}

}  // namespace PatternBounds
