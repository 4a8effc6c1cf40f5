// The lock table from /proc/locks: one line per lock, such as
// "1: FLOCK  ADVISORY  WRITE 4711 fd:01:1234567 0 EOF", with the device's
// major and minor numbers in hexadecimal; "->" lines are waiters, not holders.
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <sstream>

#include "FileIO.h"
#include "LockTable.h"

namespace Courier {

LockTable LockTable::Read() {
  LockTable table;
  std::string text;
  if (FileIO::ReadFile("/proc/locks", 16 << 20, &text) != FileIO::ReadStatus::kOk) return table;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string number, kind, mode, access, pid, identity;
    if (!(words >> number >> kind >> mode >> access >> pid >> identity) || kind != "FLOCK")
      continue;
    unsigned major = 0, minor = 0;
    unsigned long long inode = 0;
    if (std::sscanf(identity.c_str(), "%x:%x:%llu", &major, &minor, &inode) == 3) {
      table.held_.emplace(major, minor, inode);
    }
  }
  return table;
}

bool LockTable::IsLocked(std::uint64_t device, std::uint64_t inode) const {
  const dev_t dev = static_cast<dev_t>(device);
  return held_.count({::major(dev), ::minor(dev), inode}) != 0;
}

bool LockTable::IsLocked(const std::string& path) const {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 &&
         IsLocked(static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino));
}

}  // namespace Courier
