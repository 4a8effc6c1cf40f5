// The file-system primitives that FileUtil's portable logic stands on:
// item attributes with full timestamp resolution, raw listings, directory
// creation with inherited permissions, link-safe removal, copying and moving.
// One implementation per platform; the Linux one is Posix/FileUtilPosix.cpp
// with the tree walks in Posix/FileTreePosix.cpp. No system headers leak
// from here.
#ifndef LUMETRY_UTILITY_FILEUTILPLATFORM_H_
#define LUMETRY_UTILITY_FILEUTILPLATFORM_H_

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "FileUtil.h"

namespace FileUtil {
namespace platform {

// A point in time, seconds and nanoseconds since 1970-01-01 UTC.
struct Timestamp {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
};

// True when `a` is strictly later than `b`.
bool IsLater(const Timestamp& a, const Timestamp& b);

enum class ItemKind { kRegular, kDirectory, kSymbolicLink, kOther };

struct ItemAttributes {
  ItemKind kind = ItemKind::kOther;
  Timestamp modified;
  // Birth time where the file system records it, else the status-change time.
  Timestamp created;
};

// Attributes of the item itself; a symbolic link is not followed.
bool GetItemAttributes(const std::string& path, ItemAttributes* attributes);

// The target of a symbolic link exactly as stored in the link.
bool ReadSymbolicLink(const std::string& path, std::string* target);

// A non-owning reference to a callable that takes one entry name: the
// directory's own NUL-terminated bytes, valid only during the call, so a
// listing copies nothing that the callable does not keep. (A callable that
// takes a std::string_view gets one made from them.)
class NameVisitor {
 public:
  template <typename F, typename = std::enable_if_t<!std::is_same_v<std::decay_t<F>, NameVisitor>>>
  // NOLINTNEXTLINE(google-explicit-constructor): stands for any callable
  NameVisitor(F&& visit)
      : context_(const_cast<void*>(static_cast<const void*>(&visit))),
        call_([](void* context, const char* name) {
          (*static_cast<std::remove_reference_t<F>*>(context))(name);
        }) {}

  void operator()(const char* name) const { call_(context_, name); }

 private:
  void* context_;
  void (*call_)(void*, const char*);
};

// Calls `visit` with each entry name of `dir` (without "." and "..") as the
// directory yields it, in listing order. False when the directory cannot be
// opened or reading fails part-way; the names already visited stay visited.
// The one listing routine: everything that lists one directory level is
// built on it.
bool ForEachName(const std::string& dir, const NameVisitor& visit);

// Appends the entry names of `dir` in listing order, without "." and "..".
// False (nothing appended) when the directory cannot be read.
bool ListNames(const std::string& dir, std::vector<std::string>* names);

// Appends the paths, relative to `dir`, of every item below it; a directory
// comes before its contents. Symbolic links are listed, never descended into.
bool ListTree(const std::string& dir, std::vector<std::string>* relative_paths);

enum class MakeDirectoryResult { kCreated, kExists, kFailed };

// Creates `name` inside the existing directory `parent` and gives it the
// parent's mode, owner and group (a refused ownership change is ignored).
MakeDirectoryResult MakeDirectoryLikeParent(const FSRef& parent, const std::string& name);

// Removes the item and, for a directory, everything below it. Symbolic links
// are removed themselves, never followed. False when anything is left.
bool RemoveItem(const std::string& path);

// Copies a file, a symbolic link (as a link) or a directory tree to a
// destination that must not exist yet; permission bits are kept.
bool CopyItem(const std::string& source, const std::string& destination);

// Renames; across file systems copies and then removes the source.
bool MoveItem(const std::string& source, const std::string& destination);

// True when both paths exist and name the same item.
bool IsSameItem(const std::string& a, const std::string& b);

}  // namespace platform
}  // namespace FileUtil

#endif  // LUMETRY_UTILITY_FILEUTILPLATFORM_H_
