// The string helpers: repair yields valid UTF-8, leaves valid text alone and
// is idempotent; split tokens are non-empty and hold no delimiter; SafeStr copies stay bounded.
// Input: a delimiter set, a NUL, then the text.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "SafeStr.h"
#include "StringUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string delimiters;
  std::string text;
  fuzz_support::SplitOnce(fuzz_support::Bytes(data, size), '\0', &delimiters, &text);

  const std::string repaired = StringUtil::RepairUTF8(text);
  FUZZ_CHECK(StringUtil::IsValidUTF8(repaired));
  FUZZ_CHECK(StringUtil::RepairUTF8(repaired) == repaired);
  if (StringUtil::IsValidUTF8(text)) FUZZ_CHECK(repaired == text);
  FUZZ_CHECK(repaired.size() >= text.size() && repaired.size() <= 2 * text.size());

  std::vector<std::string> tokens;
  StringUtil::Split(text, &tokens, delimiters);
  for (const std::string& token : tokens)
    FUZZ_CHECK(!token.empty() && token.find_first_of(delimiters) == std::string::npos);

  const std::string visible = text.substr(0, text.find('\0'));
  char buffer[16];
  const int copied = SafeStr::StrCpy(buffer, sizeof buffer, visible.c_str());
  FUZZ_CHECK(std::strlen(buffer) == std::min(visible.size(), sizeof buffer - 1));
  FUZZ_CHECK(copied == (visible.size() < sizeof buffer ? 0 : -2));
  FUZZ_CHECK(visible.compare(0, std::strlen(buffer), buffer) == 0);
  return 0;
}
