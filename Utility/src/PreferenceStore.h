// The primitives of the preference store: one property-list file per domain
// and scope. Readers see the file as it is on disk now; writers do a
// read-modify-write under an exclusive lock shared by every writer of the
// file, and replace the file atomically, so no writer loses another's change
// and a writer killed at any moment leaves a valid file behind.
// Internal to the preference layer; callers use Preferences.h. The Linux
// binding is Posix/PreferenceStorePosix.cpp.
#ifndef LUMETRY_UTILITY_PREFERENCESTORE_H_
#define LUMETRY_UTILITY_PREFERENCESTORE_H_

#include <functional>
#include <string>

#include "Preferences.h"

namespace PreferenceStore {

// The whole domain held in `path` as a dictionary. A missing, empty, truncated
// or unparsable file, or one whose top level is not a dictionary, reads as an
// empty dictionary. Never answers none.
PrefValue ReadDomain(const std::string& path);

// What an edit of UpdateDomain decided.
enum class Edit {
  kStore,  // write the edited dictionary back
  kKeep,   // leave the file as it is (the edit succeeded without a change)
  kFail,   // leave the file as it is and fail
};

// Locks the domain file against other writers, reads it, lets `edit` change
// the dictionary, and stores the result when asked. True when the edit
// succeeded and, for kStore, the new file is on disk. A file that exists but
// cannot be read (permissions, I/O) fails the update rather than be replaced.
bool UpdateDomain(const std::string& path, const std::function<Edit(PrefValue* domain)>& edit);

}  // namespace PreferenceStore

#endif  // LUMETRY_UTILITY_PREFERENCESTORE_H_
