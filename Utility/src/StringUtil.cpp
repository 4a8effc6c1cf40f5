// String helpers shared by every subsystem. Character tests are byte tests;
// nothing here decodes UTF-8 except the validator at the platform-string
// boundary.
#include "StringUtil.h"

#include <cctype>

#include "Guarded.h"
#include "SafeStr.h"

namespace StringUtil {

const char* const kWhitespace = " \t\r\n";

std::string Trim(const std::string& text, const char* set) {
  return Guarded(std::string(), [&] {
    if (set == nullptr) return text;
    const std::size_t last = text.find_last_not_of(set);
    if (last == std::string::npos) return std::string();
    const std::size_t first = text.find_first_not_of(set);
    return text.substr(first, last + 1 - first);
  });
}

std::string ToLower(std::string& text) {
  for (char& c : text) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return Guarded(std::string(), [&] { return text; });
}

void Split(const std::string& text, std::vector<std::string>* tokens,
           const std::string& delimiters) {
  if (tokens == nullptr || text.empty() || delimiters.empty()) return;
  // Out of memory, the tokens stay as they were.
  GuardedRun([&] {
    // StrTok cuts its buffer apart, so it works on a terminated copy.
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('\0');

    // Collected aside so that a failed allocation leaves the caller's list whole.
    std::vector<std::string> found;
    char* context = nullptr;
    for (char* token = SafeStr::StrTok(buffer.data(), buffer.size(), delimiters.c_str(), &context);
         token != nullptr; token = SafeStr::StrTok(nullptr, 1, delimiters.c_str(), &context)) {
      found.emplace_back(token);
    }
    tokens->swap(found);
  });
}

namespace {

// The length of the valid UTF-8 sequence at `p` (at most `left` bytes are
// there), or 0 when none starts there. The bounds of the first continuation
// byte exclude overlong forms, surrogates (ED A0..BF) and values above
// U+10FFFF (F4 90..).
std::size_t SequenceLength(const unsigned char* p, std::size_t left) {
  const unsigned char lead = *p;
  if (lead < 0x80) return 1;
  std::size_t trail = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    trail = 1;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    trail = 2;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    trail = 3;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;  // 80..C1 and F5..FF never lead a sequence
  }
  if (left <= trail || p[1] < low || p[1] > high) return 0;
  for (std::size_t i = 2; i <= trail; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  }
  return trail + 1;
}

}  // namespace

bool IsValidUTF8(const char* data, std::size_t length) {
  if (data == nullptr) return length == 0;
  const auto* p = reinterpret_cast<const unsigned char*>(data);
  const unsigned char* const end = p + length;
  while (p < end) {
    const std::size_t n = SequenceLength(p, static_cast<std::size_t>(end - p));
    if (n == 0) return false;
    p += n;
  }
  return true;
}

std::string RepairUTF8(const std::string& text) {
  return Guarded(std::string(), [&] {
    std::string result;
    result.reserve(text.size());
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char* const end = p + text.size();
    while (p < end) {
      const std::size_t n = SequenceLength(p, static_cast<std::size_t>(end - p));
      if (n > 0) {
        result.append(reinterpret_cast<const char*>(p), n);
        p += n;
        continue;
      }
      // A stray byte is the Latin-1 character of the same value (U+0080..U+00FF).
      result.push_back(static_cast<char>(0xC0 | (*p >> 6)));
      result.push_back(static_cast<char>(0x80 | (*p & 0x3F)));
      ++p;
    }
    return result;
  });
}

bool IsValidUTF8(const std::string& text) { return IsValidUTF8(text.data(), text.size()); }

bool CFStringToUTF8(const std::string* value, std::string* out) {
  if (value == nullptr || out == nullptr) return false;
  if (!IsValidUTF8(*value)) return false;
  return Guarded(false, [&] {
    out->assign(*value, 0, value->find('\0'));  // an embedded NUL ends the text
    return true;
  });
}

std::string ToHex(std::uint64_t value, std::size_t width) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  return Guarded(std::string(), [&] {
    std::string digits;
    while (value != 0) {
      digits += kDigits[value & 15];
      value >>= 4;
    }
    std::string result;
    if (digits.size() < width) result.assign(width - digits.size(), '0');
    result.append(digits.rbegin(), digits.rend());
    return result;
  });
}

}  // namespace StringUtil
