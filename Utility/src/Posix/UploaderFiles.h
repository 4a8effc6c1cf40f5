// The platform calls behind the settings file: reading a whole file and
// replacing a file atomically. Linux bindings: UploaderFilesPosix.cpp.
#ifndef LUMETRY_UTILITY_POSIX_UPLOADERFILES_H_
#define LUMETRY_UTILITY_POSIX_UPLOADERFILES_H_

#include <string>

namespace UploaderFiles {

// Reads every byte of the file at `path` into `contents`. False for a file
// that cannot be opened or read, or a directory; `contents` is then untouched.
bool ReadWholeFile(const std::string& path, std::string* contents);

// Replaces the file at `path` with `contents`: writes a temporary file in the
// same directory, flushes it to disk and renames it over the target (through
// a symbolic link to the file it names). A new file gets mode 0644, an
// existing one keeps its permission bits. False, with the old file intact and
// no temporary left behind, when any step fails or when an existing target is
// not writable by this process.
bool ReplaceFile(const std::string& path, const std::string& contents);

}  // namespace UploaderFiles

#endif  // LUMETRY_UTILITY_POSIX_UPLOADERFILES_H_
