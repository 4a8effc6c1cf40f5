// The server-address check and foreign patterns. Input: a pattern, a line
// feed, then an address. An allowed address stays allowed with more text
// after it; the pattern is matched under the compile bounds (libFuzzer's
// memory limit catches a compiler that is let loose).
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "PatternBounds.h"
#include "UploaderConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string pattern;
  std::string url;
  fuzz_support::SplitOnce(fuzz_support::Bytes(data, size), '\n', &pattern, &url);
  if (Uploader::IsAllowedServerUrl(url)) FUZZ_CHECK(Uploader::IsAllowedServerUrl(url + pattern));
  const bool matched = Uploader::MatchesPattern(url, pattern);
  if (!PatternBounds::IsAcceptable(pattern)) FUZZ_CHECK(!matched);
  return 0;
}
