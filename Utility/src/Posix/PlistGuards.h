// Guards around the property-list library where it cannot be trusted with
// files other programs wrote: a binary file is parsed only after its trailer
// passed PlistTrailer::IsSound, strings that are not UTF-8 are repaired at
// read (the library would write them back as objects its own reader
// rejects), and a domain is written only when its serialised bytes parse
// back into the same tree.
#ifndef LUMETRY_UTILITY_POSIX_PLISTGUARDS_H_
#define LUMETRY_UTILITY_POSIX_PLISTGUARDS_H_

#include <plist/plist.h>

#include <string>

namespace plist_guard {

// The tree held in `data` (XML or binary form), caller-owned; null when the
// bytes do not parse, a binary file fails PlistTrailer::IsWithinBounds, or
// the elements of an XML file nest deeper than PlistTrailer::kMaxDepth or
// it holds a NUL character (raw or as "&#0;").
plist_t Parse(const std::string& data);

// Replaces every string value and dictionary key of the tree that is not
// valid UTF-8 by StringUtil::RepairUTF8 of it; a string value holding a NUL
// byte is cut there first. A repaired key that collides with an existing
// key of the same dictionary gives way to it.
void RepairStrings(plist_t node);

// True when both trees hold the same kinds, keys and values.
bool SameTree(plist_t a, plist_t b);

// The binary form of `root`, when it parses back (through Parse) into the
// same tree; false, `bytes` untouched, otherwise.
bool SerialiseVerified(plist_t root, std::string* bytes);

}  // namespace plist_guard

#endif  // LUMETRY_UTILITY_POSIX_PLISTGUARDS_H_
