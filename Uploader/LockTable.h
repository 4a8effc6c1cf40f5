// The files that some process holds an flock on, read from the kernel's lock
// table. Reading it takes no lock, so the status view never makes a running
// pass or a crash processor find a file busy. Linux binding:
// Posix/LockTablePosix.cpp.
#ifndef LUMETRY_UPLOADER_LOCKTABLE_H_
#define LUMETRY_UPLOADER_LOCKTABLE_H_

#include <cstdint>
#include <set>
#include <string>
#include <tuple>

namespace Courier {

class LockTable {
 public:
  // The table as it is now; empty when it cannot be read.
  static LockTable Read();
  // Whether the file with this identity (as the spool scan records it) is locked.
  bool IsLocked(std::uint64_t device, std::uint64_t inode) const;
  // The same for a path (a link is not followed); false when it is missing.
  bool IsLocked(const std::string& path) const;

 private:
  std::set<std::tuple<unsigned, unsigned, std::uint64_t>> held_;  // major, minor, inode
};

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_LOCKTABLE_H_
