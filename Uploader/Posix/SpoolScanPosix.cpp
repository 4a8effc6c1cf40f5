// Listing the spool and locking its files. The listing goes through
// FileUtil; each entry is then examined with lstat so that a symbolic link is
// never taken for the file it points at.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

#include "FileUtil.h"
#include "Posix/FdWrite.h"
#include "SpoolScan.h"

namespace Courier {
namespace {

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::int64_t ModificationNs(const struct stat& st) {
  return static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 +
         static_cast<std::int64_t>(st.st_mtim.tv_nsec);
}

}  // namespace

bool IsUsageLogName(const std::string& name) {
  if (name.size() <= 9 || name.compare(0, 5, "ulog_") != 0) return false;
  if (name.find_first_of(std::string("/\n\0", 3)) != std::string::npos) return false;
  return EndsWith(name, ".rdy") || EndsWith(name, ".xml");
}

std::vector<SpoolEntry> ScanSpool(const std::string& dir) {
  std::vector<std::string> names;
  FileUtil::ListDirectoryMatching(dir, {"ulog_"}, &names);
  std::vector<SpoolEntry> entries;
  entries.reserve(names.size());
  for (const std::string& name : names) {
    if (!IsUsageLogName(name)) continue;
    SpoolEntry entry;
    entry.name = name;
    entry.path = FileUtil::JoinPath(dir, name);
    struct stat st;
    if (::lstat(entry.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    entry.mtimeNs = ModificationNs(st);
    entry.size = static_cast<std::uint64_t>(st.st_size);
    entry.device = static_cast<std::uint64_t>(st.st_dev);
    entry.inode = static_cast<std::uint64_t>(st.st_ino);
    entries.push_back(std::move(entry));
  }
  std::sort(entries.begin(), entries.end(), [](const SpoolEntry& a, const SpoolEntry& b) {
    return std::tie(a.mtimeNs, a.name) < std::tie(b.mtimeNs, b.name);
  });
  return entries;
}

SpoolFileLock SpoolFileLock::TryLock(const SpoolEntry& entry) {
  // O_NONBLOCK: a FIFO planted under a usage-log name must not hang the open.
  int raw = -1;
  do {
    raw = ::open(entry.path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  } while (raw < 0 && errno == EINTR);
  ScopedFd fd(raw);
  struct stat st;
  if (!fd.is_valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
      static_cast<std::uint64_t>(st.st_dev) != entry.device ||
      static_cast<std::uint64_t>(st.st_ino) != entry.inode ||
      ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    return SpoolFileLock(ScopedFd(), entry.path);
  }
  return SpoolFileLock(std::move(fd), entry.path);
}

std::uint64_t SpoolFileLock::Size() const {
  struct stat st;
  if (!IsHeld() || ::fstat(fd_.get(), &st) != 0) return 0;
  return static_cast<std::uint64_t>(st.st_size);
}

long SpoolFileLock::ReadAt(std::uint64_t offset, char* into, std::size_t n) const {
  if (!IsHeld()) return -1;
  for (;;) {
    const ssize_t got = ::pread(fd_.get(), into, n, static_cast<off_t>(offset));
    if (got >= 0) return static_cast<long>(got);
    if (errno != EINTR) return -1;
  }
}

bool SpoolFileLock::Remove() {
  if (!IsHeld()) return false;
  // The name must still lead to the locked file: never delete a newcomer.
  struct stat held;
  struct stat named;
  if (::fstat(fd_.get(), &held) != 0 || ::lstat(path_.c_str(), &named) != 0 ||
      held.st_dev != named.st_dev || held.st_ino != named.st_ino) {
    return false;
  }
  return ::unlink(path_.c_str()) == 0;
}

}  // namespace Courier
