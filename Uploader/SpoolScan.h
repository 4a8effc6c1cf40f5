// The spool as the uploader sees it: the usage logs lying directly in it
// (regular files named "ulog_*.rdy" or "ulog_*.xml"; links, directories and
// anything else are left alone), oldest first, and the per-file lock that
// tells a finished file from one a crash processor is still writing.
#ifndef LUMETRY_UPLOADER_SPOOLSCAN_H_
#define LUMETRY_UPLOADER_SPOOLSCAN_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Posix/ScopedFd.h"
#include "Transport.h"

namespace Courier {

struct SpoolEntry {
  std::string name;          // file name in the spool
  std::string path;          // spool directory + "/" + name
  std::int64_t mtimeNs = 0;  // modification time, nanoseconds since the epoch
  std::uint64_t size = 0;    // bytes
  std::uint64_t device = 0;  // identity at scan time, so a replaced file is noticed
  std::uint64_t inode = 0;
};

// True for "ulog_" + at least one byte + ".rdy" or ".xml", without "/", a
// line feed or a NUL (a name the attempt ledger could not hold is not a usage log).
bool IsUsageLogName(const std::string& name);

// The usage logs of `dir`, oldest modification time first (then by name).
// Empty when the directory cannot be listed.
std::vector<SpoolEntry> ScanSpool(const std::string& dir);

// An exclusive, non-blocking lock on one usage log, held while the file is
// sent or deleted. A crash processor holds the same kind of lock while it
// writes, so a file whose lock cannot be had is still being written.
class SpoolFileLock : public UploadBody {
 public:
  SpoolFileLock(const SpoolFileLock&) = delete;
  SpoolFileLock& operator=(const SpoolFileLock&) = delete;
  SpoolFileLock(SpoolFileLock&&) noexcept = default;
  SpoolFileLock& operator=(SpoolFileLock&&) noexcept = default;
  ~SpoolFileLock() override = default;

  // Not held when the file is locked by another open file, is gone, is no
  // longer the file that was scanned, or is not a regular file.
  static SpoolFileLock TryLock(const SpoolEntry& entry);

  bool IsHeld() const { return fd_.is_valid(); }

  // The file's bytes as stored, read while the lock is held (the upload
  // streams them from here). Size() is 0 when the file cannot be examined.
  std::uint64_t Size() const override;
  long ReadAt(std::uint64_t offset, char* into, std::size_t n) const override;

  // Deletes the file while the lock is held. False when nothing was deleted.
  bool Remove();

 private:
  SpoolFileLock(ScopedFd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}
  ScopedFd fd_;
  std::string path_;
};

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_SPOOLSCAN_H_
