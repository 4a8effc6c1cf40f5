// The attempt ledger: for each usage log, how many attempts to send it have
// failed and when the last one failed, plus the moment a server's
// Retry-After allows the next upload. It outlives the process in a small
// text file beside the configuration file, replaced atomically, so a pass
// killed at any moment leaves the old ledger or the new one.
//
// File format, one record a line (anything else is ignored, so a damaged
// file loses only its damaged lines):
//   notbefore <seconds since the epoch>
//   <failures> <last failure, seconds since the epoch> <file name>
#ifndef LUMETRY_UPLOADER_ATTEMPTLEDGER_H_
#define LUMETRY_UPLOADER_ATTEMPTLEDGER_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace Courier {

struct Attempts {
  std::uint32_t failures = 0;
  std::int64_t lastFailure = 0;  // seconds since the epoch
};

class AttemptLedger {
 public:
  // Limits that keep a hostile or damaged file from costing much.
  static constexpr std::size_t kMaxFileBytes = 1024 * 1024;
  static constexpr std::size_t kMaxEntries = 2048;

  // The ledger kept at `path`. A missing, unreadable, oversized or damaged
  // file gives what could be read of it (possibly nothing).
  static AttemptLedger Load(const std::string& path);

  // The record of `name`, or null.
  const Attempts* Find(const std::string& name) const;

  // Counts one failed attempt of `name` at `now`; answers the new count.
  std::uint32_t RecordFailure(const std::string& name, std::int64_t now);

  // Drops the record of `name` (sent, refused or given up).
  void Forget(const std::string& name);

  // Drops the records of files that are not in `present`.
  void KeepOnly(const std::set<std::string>& present);

  std::int64_t notBefore() const { return notBefore_; }
  void SetNotBefore(std::int64_t when);

  bool changed() const { return changed_; }

  // The file text (at most kMaxEntries records, the most recent failures kept).
  std::string Serialize() const;

  // Writes the ledger when it changed since loading (or the last save). True
  // when nothing needed writing or the write succeeded.
  bool SaveIfChanged();

 private:
  void Parse(const std::string& text);

  std::string path_;
  std::map<std::string, Attempts> entries_;
  std::int64_t notBefore_ = 0;
  bool changed_ = false;
};

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_ATTEMPTLEDGER_H_
