// The one owner of libplist nodes: a node adopted here is freed with
// plist_free when its scope ends. PrefValue holds the same owner type.
#ifndef LUMETRY_UTILITY_POSIX_SCOPEDPLIST_H_
#define LUMETRY_UTILITY_POSIX_SCOPEDPLIST_H_

#include <plist/plist.h>

#include <memory>

using ScopedPlist = std::unique_ptr<void, void (*)(void*)>;

inline ScopedPlist AdoptPlist(plist_t node) { return ScopedPlist(node, &plist_free); }

#endif  // LUMETRY_UTILITY_POSIX_SCOPEDPLIST_H_
