// The spool's disk budget; see DiskBudget.h.
#include "DiskBudget.h"

#include "Reporter.h"

namespace Courier {
namespace {
const char kSource[] = "Uploader/DiskBudget";
}  // namespace

BudgetResult ApplyDiskBudget(const std::vector<SpoolEntry>& entries, std::uint32_t maxMiB,
                             bool dryRun, Reporter& report) {
  BudgetResult result;
  for (const SpoolEntry& entry : entries) result.totalBefore += entry.size;
  result.totalAfter = result.totalBefore;
  const std::uint64_t budget = static_cast<std::uint64_t>(maxMiB) * 1024 * 1024;
  for (const SpoolEntry& entry : entries) {
    if (result.totalAfter <= budget) break;
    SpoolFileLock lock = SpoolFileLock::TryLock(entry);
    if (!lock.IsHeld()) {
      report.Say("disk budget: " + entry.name + " is still being written, kept", kSource, __LINE__);
      continue;
    }
    if (!dryRun && !lock.Remove()) {
      report.Say("disk budget: could not delete " + entry.name, kSource, __LINE__);
      continue;
    }
    result.totalAfter -= entry.size;
    result.deleted.push_back(entry.name);
    report.Say(std::string(dryRun ? "disk budget: would delete " : "disk budget: deleted ") +
                   entry.name + " (spool over " + std::to_string(maxMiB) + " MiB)",
               kSource, __LINE__);
  }
  return result;
}

}  // namespace Courier
