// The few file services the uploader takes from the utility layer's
// platform bindings, gathered here so that they are reached through one
// place: the file descriptor owner, a capped whole-file read and an atomic
// replacement (temporary file, flush to disk, rename).
#ifndef LUMETRY_UPLOADER_COURIERFILES_H_
#define LUMETRY_UPLOADER_COURIERFILES_H_

#include <cstddef>
#include <string>

#include "Posix/ScopedFd.h"  // IWYU pragma: export

namespace Courier {

// The whole file when it holds at most `maxBytes` bytes. False, `contents`
// untouched, when it cannot be read or is larger.
bool ReadFileCapped(const std::string& path, std::size_t maxBytes, std::string* contents);

// Replaces the file at `path` with `contents` so that a reader (or a crash
// at any moment) sees the old file or the new one, never a mix. False, the
// old file intact, on any failure.
bool ReplaceFileAtomically(const std::string& path, const std::string& contents);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_COURIERFILES_H_
