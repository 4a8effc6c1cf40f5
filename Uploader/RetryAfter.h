// Reading a server's Retry-After value: a number of seconds or an HTTP date.
#ifndef LUMETRY_UPLOADER_RETRYAFTER_H_
#define LUMETRY_UPLOADER_RETRYAFTER_H_

#include <cstdint>
#include <string>

namespace Courier {

// The longest wait a server can impose: a longer one is cut to this, so a
// bad header cannot stop the uploads for good.
constexpr std::int64_t kMaxRetryAfterSeconds = 7 * 24 * 3600;

// The moment (seconds since the epoch) before which no upload may be made,
// given the header `value` received at `now`. False, `until` untouched, for
// an empty or unreadable value. A date in the past gives `now`.
bool RetryAfterUntil(const std::string& value, std::int64_t now, std::int64_t* until);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_RETRYAFTER_H_
