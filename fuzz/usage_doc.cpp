// The usage document's attribute escaping and text scrambling on foreign
// bytes (the writer itself is driven through the crash run's target): an
// escaped value holds none of the characters the escaping replaces and is
// valid UTF-8; the scrambling keeps the size and is its own inverse.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "MiniSession.h"
#include "StringUtil.h"
#include "UsageDoc.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string value = fuzz_support::Bytes(data, size);
  const std::string escaped = UsageDoc::EscapeAttributeValue(value);
  const std::string text = value.substr(0, value.find('\0'));  // taken as a C string
  FUZZ_CHECK(escaped.find_first_of("<>\"'\\") == std::string::npos);
  FUZZ_CHECK(StringUtil::IsValidUTF8(escaped));
  if (text.empty() || !StringUtil::IsValidUTF8(text)) FUZZ_CHECK(escaped == "NOVALUE");

  const std::string scrambled = MiniSession::UnscrambleText(value);
  FUZZ_CHECK(scrambled.size() == value.size());
  FUZZ_CHECK(MiniSession::UnscrambleText(scrambled) == value);
  return 0;
}
