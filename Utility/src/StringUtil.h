// Small stateless helpers on UTF-8 byte strings: trimming, C-locale
// lower-casing, splitting on a delimiter set, the platform-string boundary
// and an upper-case hexadecimal formatter. None of them throws or fails.
#ifndef LUMETRY_UTILITY_STRINGUTIL_H_
#define LUMETRY_UTILITY_STRINGUTIL_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace StringUtil {

// The set the settings file trims with: space, tab, carriage return, line feed.
extern const char* const kWhitespace;

// A copy of `text` without the leading and trailing bytes found in `set`.
// The trailing run is cut first, then the leading one; a null set cuts nothing.
std::string Trim(const std::string& text, const char* set);

// Lower-cases every byte of `text` in place with the C library's tolower and
// returns a copy of the result. The caller's string changes too.
std::string ToLower(std::string& text);

// Splits `text` at any run of bytes found in `delimiters`; empty tokens never
// appear. An empty text or an empty delimiter set leaves `tokens` untouched;
// otherwise `tokens` is cleared first.
void Split(const std::string& text, std::vector<std::string>* tokens,
           const std::string& delimiters);

// True when the bytes form valid UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF).
bool IsValidUTF8(const char* data, std::size_t length);
bool IsValidUTF8(const std::string& text);

// `text` made valid UTF-8: every valid sequence is kept as it is, and every
// other byte is taken as the Latin-1 character of the same value (so the
// Latin-1 bytes "\xE9t\xE9" become "été"). Nothing is lost and valid text is
// unchanged; this is how the system repairs text that other programs wrote.
// "" only when memory runs out.
std::string RepairUTF8(const std::string& text);

// The platform-string boundary. On this platform a "platform string" is a byte
// string that claims to be UTF-8: a null value or bytes that are not valid
// UTF-8 answer false and leave `out` untouched; otherwise `out` receives the
// bytes up to the first NUL (an embedded NUL ends the result early).
bool CFStringToUTF8(const std::string* value, std::string* out);

// Upper-case hexadecimal digits of `value`, left-padded with "0" to `width`.
// A value of 0 has no digits of its own: ToHex(0, 0) is "".
std::string ToHex(std::uint64_t value, std::size_t width);

}  // namespace StringUtil

#endif  // LUMETRY_UTILITY_STRINGUTIL_H_
