// The disk budget of the spool: when its usage logs take more than the
// configured number of MiB, the oldest are deleted until the rest fit. A file
// that a writer still holds is never deleted (nor counted as freed).
#ifndef LUMETRY_UPLOADER_DISKBUDGET_H_
#define LUMETRY_UPLOADER_DISKBUDGET_H_

#include <cstdint>
#include <string>
#include <vector>

#include "SpoolScan.h"

namespace Courier {

class Reporter;

struct BudgetResult {
  std::vector<std::string> deleted;  // names, oldest first (in a dry run: would be deleted)
  std::uint64_t totalBefore = 0;     // bytes of the spool's usage logs before
  std::uint64_t totalAfter = 0;      // bytes left (locked files included)
};

// Applies a budget of `maxMiB` MiB to `entries` (oldest first, as ScanSpool
// gives them). In a `dryRun` nothing is deleted; the result says what would be.
BudgetResult ApplyDiskBudget(const std::vector<SpoolEntry>& entries, std::uint32_t maxMiB,
                             bool dryRun, Reporter& report);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_DISKBUDGET_H_
