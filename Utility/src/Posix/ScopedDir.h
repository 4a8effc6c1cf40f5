// Owns one POSIX directory stream and closes it when the scope ends, and
// reads the entry names of a stream. The only DIR* owner of the bindings.
#ifndef LUMETRY_UTILITY_POSIX_SCOPEDDIR_H_
#define LUMETRY_UTILITY_POSIX_SCOPEDDIR_H_

#include <dirent.h>

#include <memory>
#include <string>
#include <vector>

#include "FileUtilPlatform.h"

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using ScopedDir = std::unique_ptr<DIR, DirCloser>;

namespace posix_io {

// True for the "." and ".." entries that every listing leaves out.
inline bool IsDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Calls `visit` with every entry name of `dir` except "." and "..", in
// listing order, on the stream's own bytes. False when reading the stream
// fails part-way.
bool VisitNames(DIR* dir, const FileUtil::platform::NameVisitor& visit);

// Appends every entry name of `dir` except "." and "..", in listing order.
// False when reading the stream fails part-way.
bool ReadNames(DIR* dir, std::vector<std::string>* names);

// The same for the directory open as `dir_fd`; the descriptor stays open.
bool ReadNamesAt(int dir_fd, std::vector<std::string>* names);

// Opens the directory `name` inside the directory open as `parent_fd`
// without following a symbolic link; -1 for links, files and failures.
int OpenDirectoryAt(int parent_fd, const std::string& name);

}  // namespace posix_io

#endif  // LUMETRY_UTILITY_POSIX_SCOPEDDIR_H_
