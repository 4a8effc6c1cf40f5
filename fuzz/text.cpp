// Short texts from outside, the same bytes to every text helper, each held
// to an invariant that needs no model of it: repaired UTF-8, split tokens
// (delimiters before the first NUL), bounded copies, attribute escaping,
// scrambling, the server-address check and pattern bounds (pattern before the
// first line feed) and wake dates.
#include <algorithm>
#include <boost/date_time/gregorian/gregorian.hpp>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "MiniSession.h"
#include "PatternBounds.h"
#include "SafeStr.h"
#include "StringUtil.h"
#include "UploaderConfig.h"
#include "UploaderStatus.h"
#include "UsageDoc.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes = fuzz_support::Bytes(data, size);
  const std::string visible = bytes.substr(0, bytes.find('\0'));  // read as a C string
  const std::string repaired = StringUtil::RepairUTF8(bytes);
  FUZZ_CHECK(StringUtil::IsValidUTF8(repaired) && StringUtil::RepairUTF8(repaired) == repaired);
  if (StringUtil::IsValidUTF8(bytes)) FUZZ_CHECK(repaired == bytes);
  FUZZ_CHECK(repaired.size() >= bytes.size() && repaired.size() <= 2 * bytes.size());

  std::string delimiters;
  std::string text;
  fuzz_support::SplitOnce(bytes, '\0', &delimiters, &text);
  std::vector<std::string> tokens;
  StringUtil::Split(text, &tokens, delimiters);
  for (const std::string& token : tokens)
    FUZZ_CHECK(!token.empty() && token.find_first_of(delimiters) == std::string::npos);

  char buffer[16];
  const int copied = SafeStr::StrCpy(buffer, sizeof buffer, visible.c_str());
  FUZZ_CHECK(std::strlen(buffer) == std::min(visible.size(), sizeof buffer - 1));
  FUZZ_CHECK(copied == (visible.size() < sizeof buffer ? 0 : -2));
  FUZZ_CHECK(visible.compare(0, std::strlen(buffer), buffer) == 0);

  const std::string escaped = UsageDoc::EscapeAttributeValue(bytes);
  FUZZ_CHECK(escaped.find_first_of("<>\"'\\") == std::string::npos);
  FUZZ_CHECK(StringUtil::IsValidUTF8(escaped));
  if (visible.empty() || !StringUtil::IsValidUTF8(visible)) FUZZ_CHECK(escaped == "NOVALUE");
  const std::string scrambled = MiniSession::UnscrambleText(bytes);
  FUZZ_CHECK(scrambled.size() == bytes.size() && MiniSession::UnscrambleText(scrambled) == bytes);

  std::string pattern;
  std::string url;
  fuzz_support::SplitOnce(bytes, '\n', &pattern, &url);
  if (Uploader::IsAllowedServerUrl(url)) FUZZ_CHECK(Uploader::IsAllowedServerUrl(url + pattern));
  if (!PatternBounds::IsAcceptable(pattern)) FUZZ_CHECK(!Uploader::MatchesPattern(url, pattern));
  const int state = Uploader::WakeDateState(bytes, boost::gregorian::date(2020, 6, 15));
  FUZZ_CHECK(state == Uploader::kNotPaused || state == Uploader::kPaused);
  return 0;
}
