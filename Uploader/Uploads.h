// The uploads of a pass: every usage log of the spool, oldest first, unless
// it is still being written, its item is paused, or its retry interval is not
// over; what each server answer means for the file and its attempt count.
#ifndef LUMETRY_UPLOADER_UPLOADS_H_
#define LUMETRY_UPLOADER_UPLOADS_H_

#include <cstddef>
#include <string>
#include <vector>

#include "SpoolScan.h"

namespace Courier {

struct PassContext;
class AttemptLedger;

// Upload answers are acknowledgements; a larger body is not read.
constexpr std::size_t kMaxUploadAnswerBytes = 16 * 1024;

enum class UploadVerdict {
  kAccepted,  // 2xx: the file is delivered and deleted
  kRetry,     // 3xx (never followed), 408, 429, 5xx and anything unexpected: a failed attempt
  kRefused,   // any other 4xx: refused for good, deleted
};

UploadVerdict VerdictForStatus(long status);

// The item key parts of a usage-log name "ulog_<family>_<name>_...": false
// when the name has fewer parts.
bool ItemOfName(const std::string& name, std::string* family, std::string* item);

// Sends `entries` (oldest first) and records the outcomes in `ledger`
// (saved after every change, unless in a dry run).
void UploadSpool(PassContext& context, const std::vector<SpoolEntry>& entries,
                 AttemptLedger& ledger);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_UPLOADS_H_
