// The server-address check and foreign patterns. Input: a pattern, a line
// feed, then an address. The address check agrees with an independent model
// of the allowed addresses; the pattern is matched under the compile bounds
// (libFuzzer's memory limit catches a compiler that is let loose).
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "PatternBounds.h"
#include "UploaderConfig.h"

namespace {

// "http://localhost/lumetry" anywhere, or "http://" or "https://" followed
// by a host of at least one character that ends in ".quorvik.com" and then
// a "/". The C library sees the text up to its first NUL.
bool Allowed(std::string url) {
  url = url.substr(0, url.find('\0'));
  if (url.find("http://localhost/lumetry") != std::string::npos) return true;
  const std::string domain = ".quorvik.com/";
  for (const std::string scheme : {"http://", "https://"}) {
    for (std::string::size_type at = url.find(scheme); at != std::string::npos;
         at = url.find(scheme, at + 1)) {
      const std::string::size_type host = at + scheme.size();
      // Any later ".quorvik.com/" reached without crossing a "/" will do.
      for (std::string::size_type d = url.find(domain, host + 1); d != std::string::npos;
           d = url.find(domain, d + 1)) {
        if (url.find('/', host) >= d) return true;
        break;
      }
    }
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string pattern;
  std::string url;
  fuzz_support::SplitOnce(fuzz_support::Bytes(data, size), '\n', &pattern, &url);
  FUZZ_CHECK(Uploader::IsAllowedServerUrl(url) == Allowed(url));
  const bool matched = Uploader::MatchesPattern(url, pattern);
  if (!PatternBounds::IsAcceptable(pattern)) FUZZ_CHECK(!matched);
  return 0;
}
