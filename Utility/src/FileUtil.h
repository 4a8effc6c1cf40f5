// Every file-system touch of the system goes through these free functions:
// path arithmetic, existence tests, the per-user directories, listings,
// creation, removal, copying and a few probes. Paths are UTF-8 POSIX paths.
// Each function settles a policy its callers rely on (what an empty path
// means, whether a missing item counts as removed, how permissions are
// inherited). Out-parameters are written only on success. Nothing throws.
// The portable part lives in FileUtil.cpp; the Linux bindings in
// Posix/FileUtilPosix.cpp and Posix/FileTreePosix.cpp; whole-file reads and
// atomic replacement are FileIO.h.
#ifndef LUMETRY_UTILITY_FILEUTIL_H_
#define LUMETRY_UTILITY_FILEUTIL_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace FileUtil {

// Domains and directory kinds of GetUserDirectory, numbered as the
// platform's directory services number them.
constexpr int kUserDomain = 1;
constexpr int kLibraryDirectory = 5;
constexpr int kApplicationSupportDirectory = 14;

// A reference to an existing file-system item; made only for paths that exist.
struct FSRef {
  std::string path;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
};

// ---- Path arithmetic (pure string work) ----
std::string PathSeparator();
// Exactly one "/" between dir and component; a trailing "/" of the result is
// dropped (except for "/" itself). Empty when both parts are empty.
std::string JoinPath(const std::string& dir, const std::string& component);
std::string StripTrailingSeparators(const std::string& path);
std::string ParentDirectory(const std::string& path);
std::string LastPathComponent(const std::string& path);
std::string FileName(const std::string& path);
std::string WithTrailingSeparator(const std::string& path);

// ---- Standard per-user directories (created when missing) ----
bool GetUserDirectory(int domain, int kind, std::string* path);
bool GetUserLibraryDirectory(std::string* path);
bool GetApplicationSupportDirectory(std::string* path);

// ---- Tests and probes ----
bool Exists(const std::string& path);  // follows links: a dangling link is absent
bool IsDirectory(const std::string& path);
bool GetFreeSpace(const std::string& path, std::uint64_t* bytes);
bool GetModificationTime(const std::string& path, std::uint64_t* seconds);
bool IsNewer(const std::string& source, const std::string& destination);
bool GetDirectorySize(const std::string& path, std::uint64_t* logical, std::uint64_t* physical);
// A FIFO, device or directory counts as a file that cannot be opened (size 0).
bool IsFileSizeAtMost(const std::string& path, std::int32_t limit);
bool IsFileLocked(const std::string& path);

// ---- Listings ----
// Appends (never clears) the names of `dir` that contain every substring;
// true when `names` is non-empty afterwards. False, nothing appended, for a
// `dir` that is not valid UTF-8.
bool ListDirectoryMatching(const std::string& dir, const std::vector<std::string>& substrings,
                           std::vector<std::string>* names);
bool ListFiles(const std::string& dir, std::vector<std::string>* paths, bool recursive);
// True for what the walks pass over: an empty path, a directory, a hidden
// name (leading ".").
bool IsSkippedEntry(const std::string& path);

// ---- Creation, removal, copying ----
// False for a path that is not valid UTF-8 (nothing is created).
bool CreateDirectories(const std::string& path);
// RemoveFile and Remove: true, nothing removed, when Exists says the path is
// absent, which includes a dangling symbolic link.
bool RemoveFile(const std::string& path);
bool RemoveDirectory(const std::string& path, bool recursive);
bool Remove(const std::string& path);
// Removes dir + name for each name (plain concatenation: dir must end in "/").
bool DeleteNamedFiles(const std::string& dir, const std::vector<std::string>& names);
void DeleteMatching(const std::string& dir, const std::string& pattern, bool recursive);
void DeleteContaining(const std::string& dir, const std::string& substring);
bool Copy(const std::string& source, const std::string& destination);
bool Move(const std::string& source, const std::string& destination);
// -1 also for a symbolic link, FIFO or device at `path` (never written through).
int WriteStringToFile(const std::string& text, const std::string& path);
bool MakeFSRef(const std::string& path, FSRef* ref);

}  // namespace FileUtil

#endif  // LUMETRY_UTILITY_FILEUTIL_H_
