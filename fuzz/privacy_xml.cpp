// The privacy XML file: parsed as the notice reader parses it, through the
// file and through the text. The two agree, the answer is deterministic, the
// collected text is never longer than the input's character data can be,
// and a document that cannot spell the element's name collects nothing.
#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "PIIPrefParser.h"
#include "PrivacyPrefs.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_support::PrivateHome();
  const std::string text = fuzz_support::Bytes(data, size);

  std::string value;
  PIINoticeAccess(text).GetValue(&value);
  std::string again;
  PIINoticeAccess(text).GetValue(&again);
  FUZZ_CHECK(value == again);

  std::string upper = text;
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  // Entity and character references could spell the name indirectly.
  if (upper.find("PIINOTICESHOWN") == std::string::npos && text.find('&') == std::string::npos) {
    FUZZ_CHECK(value.empty());
  }
  if (text.find('&') == std::string::npos) FUZZ_CHECK(value.size() <= text.size());

  // The file reader joins the lines without their line feeds.
  const std::string path = GetPIIPrefsPath();
  FUZZ_CHECK(!path.empty() && fuzz_support::WriteBytes(path, text));
  std::string joined = text;
  joined.erase(std::remove(joined.begin(), joined.end(), '\n'), joined.end());
  std::string joined_value;
  PIINoticeAccess(joined).GetValue(&joined_value);
  std::string lower = joined_value;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  FUZZ_CHECK(IsPIINoticeShown() == (lower == "yes"));
  return 0;
}
