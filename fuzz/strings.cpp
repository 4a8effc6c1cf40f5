// The string helpers against small independent models: trimming, C-locale
// lower-casing, splitting, UTF-8 validation (a code-point decoder) and
// repair, and the bounded copies of SafeStr. Input: a delimiter set, a NUL,
// then the text.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "SafeStr.h"
#include "StringUtil.h"

namespace {

// Decodes code points; valid when every sequence is the shortest form of a
// scalar value up to U+10FFFF.
bool ModelValid(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length = lead < 0x80         ? 1
                         : (lead >> 5) == 6  ? 2
                         : (lead >> 4) == 14 ? 3
                         : (lead >> 3) == 30 ? 4
                                             : 0;
    if (length == 0 || i + length > text.size()) return false;
    std::uint32_t cp = length == 1 ? lead : lead & (0x7F >> length);
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (next & 0x3F);
    }
    const std::uint32_t minimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < minimum[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string delimiters;
  std::string text;
  fuzz_support::SplitOnce(fuzz_support::Bytes(data, size), '\0', &delimiters, &text);

  const bool valid = StringUtil::IsValidUTF8(text);
  FUZZ_CHECK(valid == ModelValid(text));
  const std::string repaired = StringUtil::RepairUTF8(text);
  FUZZ_CHECK(ModelValid(repaired));
  if (valid) FUZZ_CHECK(repaired == text);
  FUZZ_CHECK(repaired.size() >= text.size() && repaired.size() <= 2 * text.size());

  const std::string trimmed = StringUtil::Trim(text, StringUtil::kWhitespace);
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  FUZZ_CHECK(trimmed == (first == std::string::npos
                             ? std::string()
                             : text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1)));

  std::string lowered = text;
  const std::string copy = StringUtil::ToLower(lowered);
  FUZZ_CHECK(copy == lowered && lowered.size() == text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    FUZZ_CHECK(lowered[i] == (c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c));
  }

  // Split works on C strings: the text up to its first NUL.
  std::vector<std::string> tokens = {"previous"};
  StringUtil::Split(text, &tokens, delimiters);
  const std::string visible = text.substr(0, text.find('\0'));
  if (text.empty() || delimiters.empty()) {
    FUZZ_CHECK(tokens == std::vector<std::string>{"previous"});
  } else {
    std::vector<std::string> model;
    std::string current;
    for (char c : visible) {
      if (delimiters.find(c) != std::string::npos) {
        if (!current.empty()) model.push_back(current);
        current.clear();
      } else {
        current += c;
      }
    }
    if (!current.empty()) model.push_back(current);
    FUZZ_CHECK(tokens == model);
  }

  char buffer[16];
  const int copied = SafeStr::StrCpy(buffer, sizeof buffer, visible.c_str());
  FUZZ_CHECK(std::strlen(buffer) == std::min(visible.size(), sizeof buffer - 1));
  FUZZ_CHECK(copied == (visible.size() < sizeof buffer ? 0 : -2));
  FUZZ_CHECK(visible.compare(0, std::strlen(buffer), buffer) == 0);
  return 0;
}
