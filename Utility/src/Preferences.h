// A thin, uniform layer over the user's preference domains. Callers speak in
// UTF-8 byte strings and signed 32-bit numbers; every operation answers a
// success flag, never throws, and leaves its out-arguments untouched on
// failure (so callers preset their defaults). Every read sees the domain as it
// is on disk now; every write is on disk when the call returns.
// Linux bindings (property-list files, libplist): Posix/PrefValuePosix.cpp for
// the values, Posix/PreferenceStorePosix.cpp for the files.
#ifndef LUMETRY_UTILITY_PREFERENCES_H_
#define LUMETRY_UTILITY_PREFERENCES_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// Scopes of a preference domain. A value outside the enumerators counts as a
// missing scope and fails the operation.
enum class PrefUser { kCurrentUser, kAnyUser };
enum class PrefHost { kCurrentHost, kAnyHost };

// Kind codes of the type operations.
enum PrefKind : int {
  kPrefDictionary = 0,
  kPrefString = 1,
  kPrefNumber = 2,
  kPrefArray = 3,
  kPrefNone = 4,
};

// An owned copy of one stored value (or none). Move-only; releases its node
// when the scope ends.
class PrefValue {
 public:
  PrefValue() = default;
  PrefValue(const PrefValue&) = delete;
  PrefValue& operator=(const PrefValue&) = delete;
  PrefValue(PrefValue&& other) noexcept = default;
  PrefValue& operator=(PrefValue&& other) noexcept = default;

  static PrefValue String(const std::string& utf8);
  static PrefValue Number(std::int32_t value);
  static PrefValue Dictionary();

  bool IsNone() const { return node_ == nullptr; }
  int Kind() const;                                       // a PrefKind
  bool GetString(std::string* out) const;                 // true for a string value
  bool GetNumber(std::int32_t* out) const;                // true for an integer value
  std::size_t Count() const;                              // entries of a dictionary or array
  PrefValue ArrayItem(std::size_t index) const;           // copy, or none
  bool HasKey(const std::string& key) const;              // dictionary only
  PrefValue Item(const std::string& key) const;           // copy, or none
  std::vector<std::string> Keys() const;                  // dictionary keys in store order
  bool SetItem(const std::string& key, PrefValue value);  // dictionary only
  bool RemoveItem(const std::string& key);                // dictionary only

  // Adopts / exposes the underlying node (a plist_t on this platform).
  static PrefValue Adopt(void* node);
  void* Node() const { return node_.get(); }
  void* Release() { return node_.release(); }

 private:
  // The node with the platform's release function (null for none).
  std::unique_ptr<void, void (*)(void*)> node_{nullptr, nullptr};
};

// Reads answer false, leaving the out-argument as it was, when the value is
// absent or of another kind; a stored integer outside the signed 32-bit range
// is refused rather than truncated. List outputs are replaced only on success.
PrefValue CopyPreferenceValue(const std::string& key, const std::string& domain, PrefUser user,
                              PrefHost host);
bool GetPreferenceString(const std::string& key, const std::string& domain, std::string* out,
                         PrefUser user, PrefHost host);
bool GetPreferenceNumber(const std::string& key, const std::string& domain, std::int32_t* out,
                         PrefUser user, PrefHost host);
bool GetPreferenceDictionaryString(const std::string& key, const std::string& entry,
                                   const std::string& domain, std::string* out, PrefUser user,
                                   PrefHost host);
bool GetPreferenceDictionaryNumber(const std::string& key, const std::string& entry,
                                   const std::string& domain, std::int32_t* out, PrefUser user,
                                   PrefHost host);
bool SetPreferenceString(const std::string& key, const std::string& domain,
                         const std::string& value, PrefUser user, PrefHost host);
bool SetPreferenceNumber(const std::string& key, const std::string& domain, std::int32_t value,
                         PrefUser user, PrefHost host);
bool SetPreferenceDictionaryString(const std::string& key, const std::string& entry,
                                   const std::string& domain, const std::string& value,
                                   PrefUser user, PrefHost host);
bool SetPreferenceDictionaryNumber(const std::string& key, const std::string& entry,
                                   const std::string& domain, std::int32_t value, PrefUser user,
                                   PrefHost host);
bool RemovePreferenceDictionaryEntry(const std::string& key, const std::string& entry,
                                     const std::string& domain, PrefUser user, PrefHost host);
bool GetDictionaryKeys(const std::string& name, const std::string& domain,
                       std::vector<std::string>* keys, PrefUser user, PrefHost host);
bool GetPreferenceDictionaryPairs(const std::string& key, const std::string& domain,
                                  std::vector<std::pair<std::string, std::string>>* pairs,
                                  PrefUser user, PrefHost host);
// Read-or-create of a string, atomic across processes: under the domain's
// write lock, answers the string stored under `key`, or stores `fresh` there
// (replacing a value of another kind) and answers it. False, with `out`
// untouched, when the domain could not be locked, read or written.
bool GetOrAddPreferenceString(const std::string& key, const std::string& domain,
                              const std::string& fresh, std::string* out, PrefUser user,
                              PrefHost host);

bool IsPreferenceType(const PrefValue& value, int kind);
int PreferenceTypeOf(const PrefValue& value);

// The file that holds `domain` in the given scope (see the platform notes), or
// "" for an invalid domain or scope.
std::string PreferenceFilePath(const std::string& domain, PrefUser user, PrefHost host);

// Test hook: the directory of the any-user domains (default: the build's
// LUMETRY_SYSTEM_PREFS_DIR). Empty restores the default.
void SetSystemPreferencesDirForTesting(const std::string& dir);

#endif  // LUMETRY_UTILITY_PREFERENCES_H_
