// Retry-After: decimal seconds, or a date that libcurl's date parser reads
// (the HTTP date forms). Waits are cut to kMaxRetryAfterSeconds.
#include "RetryAfter.h"

#include <curl/curl.h>

#include <algorithm>

namespace Courier {

bool RetryAfterUntil(const std::string& value, std::int64_t now, std::int64_t* until) {
  if (value.empty() || until == nullptr) return false;
  std::int64_t wait = 0;
  if (value.find_first_not_of("0123456789") == std::string::npos) {
    // Digits only; anything past the cap is the cap, so no overflow either.
    for (const char c : value) {
      wait = std::min<std::int64_t>(wait * 10 + (c - '0'), kMaxRetryAfterSeconds);
    }
  } else {
    const time_t when = curl_getdate(value.c_str(), nullptr);
    if (when == -1) return false;
    wait =
        std::clamp<std::int64_t>(static_cast<std::int64_t>(when) - now, 0, kMaxRetryAfterSeconds);
  }
  *until = now + wait;
  return true;
}

}  // namespace Courier
