// Session liveness on Linux: flock on the file, its birth time from statx,
// the boot time and a process's start time from procfs.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FileIO.h"
#include "SessionLiveness.h"

namespace Courier {
namespace {

// procfs files report a size of 0 but are small; this bounds a damaged one.
constexpr std::size_t kProcFileCap = 1 << 20;

bool ReadProcFile(const std::string& path, std::string* text) {
  return FileIO::ReadFile(path, kProcFileCap, text) == FileIO::ReadStatus::kOk;
}

// Whether `pid` runs (a zombie has ended) and when it started.
bool ProcessStart(long pid, std::int64_t bootTime, std::int64_t* start) {
  std::string stat;
  if (!ReadProcFile("/proc/" + std::to_string(pid) + "/stat", &stat)) return false;
  // "pid (comm) S f4 ... f22": comm may hold anything, so fields count from
  // its last ")".
  const std::string::size_type close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size() || stat[close + 2] == 'Z') {
    return false;
  }
  const char* field = stat.c_str() + close + 2;
  for (int skipped = 0; skipped < 19 && field != nullptr; ++skipped) {
    field = std::strchr(field, ' ');
    if (field != nullptr) ++field;
  }
  const long ticks = ::sysconf(_SC_CLK_TCK);
  // Alive, start unknown: never "started after the file".
  if (field == nullptr || ticks <= 0 || bootTime <= 0) return true;
  *start = bootTime + static_cast<std::int64_t>(std::strtoull(field, nullptr, 10) /
                                                static_cast<unsigned long long>(ticks));
  return true;
}

}  // namespace

std::int64_t BootTime() {
  std::string stat;
  if (!ReadProcFile("/proc/stat", &stat)) return 0;
  const std::string::size_type at = stat.find("\nbtime ");
  return at == std::string::npos ? 0 : std::strtoll(stat.c_str() + at + 7, nullptr, 10);
}

SessionClaim SessionClaim::Take(const std::string& path) {
  int raw = -1;
  do {
    raw = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  } while (raw < 0 && errno == EINTR);
  ScopedFd fd(raw);
  struct stat st;
  if (!fd.is_valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
      ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    return SessionClaim(ScopedFd());
  }
  // Another sweep may have consumed the file between our open and our lock:
  // the claim holds only while the name still leads to this very file.
  struct stat named;
  if (::fstat(fd.get(), &st) != 0 || st.st_nlink == 0 || ::lstat(path.c_str(), &named) != 0 ||
      named.st_dev != st.st_dev || named.st_ino != st.st_ino) {
    return SessionClaim(ScopedFd());
  }
  return SessionClaim(std::move(fd));
}

namespace {

bool FactsOf(int dirFd, const char* path, int flags, const std::string& name, std::int64_t bootTime,
             SessionFacts* facts) {
  struct statx stx;
  if (::statx(dirFd, path, flags, STATX_BTIME | STATX_CTIME, &stx) != 0) return false;
  facts->fileMade = (stx.stx_mask & STATX_BTIME) != 0 ? stx.stx_btime.tv_sec : stx.stx_ctime.tv_sec;
  facts->bootTime = bootTime;
  const long pid = SessionPid(name);
  facts->hasPid = pid > 0;
  facts->processStart = 0;
  facts->processAlive = facts->hasPid && ProcessStart(pid, bootTime, &facts->processStart);
  return true;
}

}  // namespace

bool SessionClaim::Facts(const std::string& name, std::int64_t bootTime,
                         SessionFacts* facts) const {
  return IsHeld() && FactsOf(fd_.get(), "", AT_EMPTY_PATH, name, bootTime, facts);
}

bool SessionFactsAt(const std::string& path, const std::string& name, std::int64_t bootTime,
                    SessionFacts* facts) {
  return FactsOf(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, name, bootTime, facts);
}

}  // namespace Courier
