// Linux bindings of FileIO.h, plus the directory-stream readers of
// ScopedDir.h: the one capped read, the one atomic replacement and the one
// mkdir -p of the system.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "FileIO.h"
#include "FileUtil.h"
#include "Posix/FdWrite.h"
#include "Posix/ScopedDir.h"
#include "Posix/ScopedFd.h"

namespace posix_io {

bool VisitNames(DIR* dir, const FileUtil::platform::NameVisitor& visit) {
  for (;;) {
    errno = 0;
    const struct dirent* entry = ::readdir(dir);
    if (entry == nullptr) return errno == 0;
    if (!IsDotOrDotDot(entry->d_name)) visit(entry->d_name);
  }
}

bool ReadNames(DIR* dir, std::vector<std::string>* names) {
  return VisitNames(dir, [names](const char* name) { names->emplace_back(name); });
}

bool ReadNamesAt(int dir_fd, std::vector<std::string>* names) {
  const int copy = ::fcntl(dir_fd, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) return false;
  ScopedDir dir(::fdopendir(copy));
  if (!dir) {
    ::close(copy);
    return false;
  }
  return ReadNames(dir.get(), names);
}

int OpenDirectoryAt(int parent_fd, const std::string& name) {
  return ::openat(parent_fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

}  // namespace posix_io

namespace FileIO {
namespace {

// Characters that mkostemp puts after the temporary prefix.
constexpr std::size_t kTempSuffixLength = 6;

// Unlinks a temporary file unless it was renamed into place.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string path) : path_(std::move(path)) {}
  ~TemporaryFile() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  void Commit() { path_.clear(); }

 private:
  std::string path_;
};

void SyncDirectory(const std::string& dir) {
  ScopedFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Best effort: the rename has happened; a failed directory sync only
  // weakens durability across a power loss.
  if (fd.is_valid()) ::fsync(fd.get());
}

// The path a write to `path` really lands on when links are followed: the
// file a symbolic link names. A dangling link stays as it is.
std::string ResolveLink(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return path;
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr),
                                                         &std::free);
  return real ? std::string(real.get()) : path;
}

// Rewrites the existing regular file `path` with `size` bytes of `data`,
// without a temporary file: the fallback when the directory refuses one.
bool WriteInPlace(const std::string& path, const void* data, std::size_t size) {
  ScopedFd fd(::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  struct stat st;
  if (!fd.is_valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  return posix_io::WriteAll(fd.get(), data, size) &&
         ::ftruncate(fd.get(), static_cast<off_t>(size)) == 0 && ::fsync(fd.get()) == 0 &&
         ::close(fd.release()) == 0;
}

void RemoveTemporariesOlderThan(const std::string& path, std::int64_t seconds);

ReadStatus ReadWithFlags(const std::string& path, int access_flags, std::size_t max_bytes,
                         std::string* contents, int* error_number) {
  int ignored = 0;
  int& error = error_number != nullptr ? *error_number : ignored;
  error = 0;
  if (contents == nullptr || path.empty()) {
    error = EINVAL;
    return ReadStatus::kError;
  }
  // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
  ScopedFd fd(::open(path.c_str(), access_flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (!fd.is_valid()) {
    error = errno;
    return errno == ENOENT ? ReadStatus::kMissing : ReadStatus::kError;
  }
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) {
    error = errno;
    return ReadStatus::kError;
  }
  if (!S_ISREG(st.st_mode)) {
    error = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    return ReadStatus::kNotRegular;
  }
  if (static_cast<unsigned long long>(st.st_size) > max_bytes) return ReadStatus::kTooLarge;
  return posix_io::ReadAll(fd.get(), max_bytes, contents, &error);
}

}  // namespace

ReadStatus ReadFile(const std::string& path, std::size_t max_bytes, std::string* contents,
                    int* error_number) {
  return ReadWithFlags(path, O_RDONLY, max_bytes, contents, error_number);
}

ReadStatus ReadWritableFile(const std::string& path, std::size_t max_bytes, std::string* contents) {
  return ReadWithFlags(path, O_RDWR, max_bytes, contents, nullptr);
}

ReadStatus ReadStandardInput(std::size_t max_bytes, std::string* contents, int* error_number) {
  int ignored = 0;
  int& error = error_number != nullptr ? *error_number : ignored;
  error = 0;
  if (contents == nullptr) {
    error = EINVAL;
    return ReadStatus::kError;
  }
  struct stat st;
  if (::fstat(STDIN_FILENO, &st) != 0) {
    error = errno;
    return ReadStatus::kError;
  }
  if (S_ISDIR(st.st_mode)) {
    error = EISDIR;
    return ReadStatus::kNotRegular;
  }
  return posix_io::ReadAll(STDIN_FILENO, max_bytes, contents, &error);
}

bool GetRegularFileSize(const std::string& path, std::uint64_t* size) {
  if (size == nullptr || path.empty()) return false;
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  struct stat st;
  if (!fd.is_valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  *size = static_cast<std::uint64_t>(st.st_size);
  return true;
}

std::string TemporaryPrefix(const std::string& name) { return "." + name + ".tmp-"; }

bool ReplaceFile(const std::string& path, const void* data, std::size_t size,
                 const ReplaceOptions& options) {
  if (path.empty()) return false;
  const std::string target = options.follow_link ? ResolveLink(path) : path;
  const std::string base = FileUtil::LastPathComponent(target);
  if (base.empty() || target.back() == '/') return false;
  const std::string parent = FileUtil::ParentDirectory(target);
  const std::string dir = parent.empty() ? std::string(".") : parent;

  auto mode = static_cast<mode_t>(options.mode & 07777);
  if (options.keep_mode) {
    struct stat st;
    const int found =
        options.follow_link ? ::stat(target.c_str(), &st) : ::lstat(target.c_str(), &st);
    if (found != 0 && errno != ENOENT) return false;
    // A link that is replaced rather than followed has no mode to keep: the
    // new file takes options.mode.
    if (found == 0 && !S_ISLNK(st.st_mode)) {
      // Refuse what an open for writing would refuse.
      if (S_ISDIR(st.st_mode) || ::access(target.c_str(), W_OK) != 0) return false;
      mode = st.st_mode & 07777;
    }
  }

  std::string temp_path = FileUtil::JoinPath(dir, TemporaryPrefix(base));
  temp_path.append(kTempSuffixLength, 'X');
  ScopedFd fd(::mkostemp(temp_path.data(), O_CLOEXEC));  // fills in the X's
  if (!fd.is_valid()) {
    return options.in_place_fallback && WriteInPlace(target, data, size);
  }
  TemporaryFile temporary(temp_path);
  if (!posix_io::WriteAll(fd.get(), data, size) || ::fchmod(fd.get(), mode) != 0 ||
      ::fsync(fd.get()) != 0 || ::close(fd.release()) != 0) {
    return false;
  }
  if (::rename(temp_path.c_str(), target.c_str()) != 0) return false;
  temporary.Commit();
  SyncDirectory(dir);
  RemoveTemporariesOlderThan(target, options.stale_after_seconds);
  return true;
}

namespace {

void RemoveTemporariesOlderThan(const std::string& path, std::int64_t seconds) {
  const std::string dir = FileUtil::ParentDirectory(path);
  ScopedDir listing(::opendir(dir.empty() ? "." : dir.c_str()));
  if (!listing) return;
  std::vector<std::string> names;
  posix_io::ReadNames(listing.get(), &names);
  const std::string prefix = TemporaryPrefix(FileUtil::LastPathComponent(path));
  const auto now = static_cast<std::int64_t>(std::time(nullptr));
  for (const std::string& name : names) {
    if (name.size() == prefix.size() + kTempSuffixLength &&
        name.compare(0, prefix.size(), prefix) == 0) {
      const std::string temp = FileUtil::JoinPath(dir, name);
      struct stat st;
      if (::lstat(temp.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
      if (seconds > 0 && static_cast<std::int64_t>(st.st_mtime) > now - seconds) continue;
      ::unlink(temp.c_str());
    }
  }
}

}  // namespace

bool MakeDirectoryPath(const std::string& path, unsigned mode) {
  if (path.empty()) return false;
  if (FileUtil::IsDirectory(path)) return true;
  std::string::size_type pos = 0;
  while (pos != std::string::npos) {
    pos = path.find('/', pos + 1);
    const std::string prefix = path.substr(0, pos);
    if (prefix.empty() || prefix == "/") continue;
    if (::mkdir(prefix.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST) return false;
  }
  return FileUtil::IsDirectory(path);
}

}  // namespace FileIO
