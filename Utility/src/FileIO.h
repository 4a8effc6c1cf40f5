// The file core that every reader and writer of the system stands on: a whole
// small file read with a size cap, an atomic replacement of a file, and the
// creation of a directory path. Each is written once, in the platform
// binding (Linux: Posix/FileIOPosix.cpp); callers never reach the system
// for these themselves. Nothing here throws.
#ifndef LUMETRY_UTILITY_FILEIO_H_
#define LUMETRY_UTILITY_FILEIO_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

namespace FileIO {

enum class ReadStatus {
  kOk,          // the whole file is in `contents`
  kMissing,     // nothing is at the path
  kNotRegular,  // a directory, FIFO, device or socket: never opened for reading
  kTooLarge,    // more than the cap
  kError,       // any other failure (permissions, I/O)
};

// Reads the regular file at `path` (a symbolic link is followed) into
// `contents` when it holds at most `max_bytes` bytes. The file is opened
// without blocking and checked to be a regular file before any byte is read,
// so a FIFO planted at the path cannot hang the caller. `contents` is written
// only on kOk; `error_number`, when given, receives the system's error code
// of a failure (0 for kTooLarge).
ReadStatus ReadFile(const std::string& path, std::size_t max_bytes, std::string* contents,
                    int* error_number = nullptr);

// The same for standard input, which may be a pipe or a terminal: read to its
// end, or refused past `max_bytes`.
ReadStatus ReadStandardInput(std::size_t max_bytes, std::string* contents,
                             int* error_number = nullptr);

// As ReadFile, but the file is opened for reading and writing (never created
// or truncated), for readers whose rules give no settings to a file this
// process may not write: such a file reads as kError.
ReadStatus ReadWritableFile(const std::string& path, std::size_t max_bytes, std::string* contents);

// The size of the regular file at `path`, looked at without blocking (a FIFO
// or a device is not a regular file). False, `size` untouched, otherwise.
bool GetRegularFileSize(const std::string& path, std::uint64_t* size);

// An output stream on the regular file at `path`, created with mode 0644
// (less the umask) when missing, appended to or truncated when it opens. A
// symbolic link at `path` is refused rather than followed, so a planted link
// cannot make the writer overwrite another file; a FIFO, device or directory
// is refused without blocking. Null when the file cannot be opened.
std::unique_ptr<std::ostream> OpenOutputStream(const std::string& path, bool append);

// How ReplaceFile treats the file it replaces.
struct ReplaceOptions {
  // Permission bits of a new file, and of every file unless `keep_mode`.
  unsigned mode = 0644;
  // An existing target keeps its permission bits, and a target this process
  // may not write is refused (as an open for writing would refuse it).
  bool keep_mode = true;
  // A symbolic link at `path` is followed, so the file it names is replaced
  // and the link stays; otherwise the link itself is replaced.
  bool follow_link = true;
  // When no temporary file can be made beside the target (a directory that
  // refuses new files: read-only, immutable) but the target is a regular
  // file this process may write, the bytes are written over it in place.
  // Not atomic, but the new contents are not lost to a directory's rules.
  bool in_place_fallback = false;
  // After a successful write, the target's temporary files older than this
  // are removed: left-overs of a killed writer, since no live writer takes a
  // minute to write a small file. A caller that holds the lock of every
  // writer of the file knows each one is stale and passes 0.
  std::int64_t stale_after_seconds = 60;
};

// Replaces the file at `path` with `size` bytes of `data`: a temporary file
// beside the target (named TemporaryPrefix + six characters), written whole,
// given its mode, flushed to disk, renamed over the target, and the directory
// flushed. False, with the old file intact and the temporary file removed,
// when any step fails. After a successful replacement, temporary files of
// the same target older than options.stale_after_seconds are removed.
bool ReplaceFile(const std::string& path, const void* data, std::size_t size,
                 const ReplaceOptions& options = ReplaceOptions());

// The name prefix of ReplaceFile's temporary files for the file `name`.
std::string TemporaryPrefix(const std::string& name);

// mkdir -p: creates every missing component of `path` with `mode` (less the
// umask). Never removes anything in the way. True when `path` is a directory
// afterwards.
bool MakeDirectoryPath(const std::string& path, unsigned mode);

}  // namespace FileIO

#endif  // LUMETRY_UTILITY_FILEIO_H_
