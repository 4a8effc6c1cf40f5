// The preference operations: argument checks, kind checks and conversions
// between byte strings / 32-bit numbers and stored values, built on the
// store's two primitives (read a domain, update a domain under its lock).
// The values themselves are the platform's (Posix/PrefValuePosix.cpp).
#include "Preferences.h"

#include "Guarded.h"
#include "PreferenceStore.h"
#include "StringUtil.h"

namespace {

// Key and entry names (PreferenceFilePath checks domains): non-empty UTF-8
// without NUL bytes (a NUL would silently cut the name short in the store).
bool IsValidName(const std::string& text) {
  return !text.empty() && text.find('\0') == std::string::npos && StringUtil::IsValidUTF8(text);
}

// String values may be empty.
bool IsValidStringValue(const std::string& text) {
  return text.find('\0') == std::string::npos && StringUtil::IsValidUTF8(text);
}

bool ReadString(const PrefValue& value, std::string* out) {
  std::string raw;
  if (!value.GetString(&raw)) return false;
  return StringUtil::CFStringToUTF8(&raw, out);
}

// A copy of one entry of the dictionary under `key`, or none (also when the
// value is not a dictionary).
PrefValue CopyDictionaryEntry(const std::string& key, const std::string& entry,
                              const std::string& domain, PrefUser user, PrefHost host) {
  if (!IsValidName(entry)) return PrefValue();
  return CopyPreferenceValue(key, domain, user, host).Item(entry);
}

bool SetKey(const std::string& key, const std::string& domain, PrefValue value, PrefUser user,
            PrefHost host) {
  const std::string path = PreferenceFilePath(domain, user, host);
  if (path.empty() || !IsValidName(key) || value.IsNone()) return false;
  return PreferenceStore::UpdateDomain(path, [&](PrefValue* all) {
    return all->SetItem(key, std::move(value)) ? PreferenceStore::Edit::kStore
                                               : PreferenceStore::Edit::kFail;
  });
}

// Writes (a value) or removes (none) one entry of the dictionary under `key`.
// A value under `key` that is not a dictionary fails and is left alone; a
// missing dictionary starts empty.
bool EditDictionaryEntry(const std::string& key, const std::string& entry,
                         const std::string& domain, PrefValue value, bool remove, PrefUser user,
                         PrefHost host) {
  const std::string path = PreferenceFilePath(domain, user, host);
  if (path.empty() || !IsValidName(key) || !IsValidName(entry)) return false;
  if (!remove && value.IsNone()) return false;
  return PreferenceStore::UpdateDomain(path, [&](PrefValue* all) {
    PrefValue dictionary = all->Item(key);
    if (dictionary.IsNone()) {
      dictionary = PrefValue::Dictionary();
    } else if (dictionary.Kind() != kPrefDictionary) {
      return PreferenceStore::Edit::kFail;
    }
    if (remove) {
      dictionary.RemoveItem(entry);
    } else if (!dictionary.SetItem(entry, std::move(value))) {
      return PreferenceStore::Edit::kFail;
    }
    return all->SetItem(key, std::move(dictionary)) ? PreferenceStore::Edit::kStore
                                                    : PreferenceStore::Edit::kFail;
  });
}

}  // namespace

// ---- Reads ----

PrefValue CopyPreferenceValue(const std::string& key, const std::string& domain, PrefUser user,
                              PrefHost host) {
  return Guarded(PrefValue(), [&] {
    const std::string path = PreferenceFilePath(domain, user, host);
    if (path.empty() || !IsValidName(key)) return PrefValue();
    return PreferenceStore::ReadDomain(path).Item(key);
  });
}

bool GetPreferenceString(const std::string& key, const std::string& domain, std::string* out,
                         PrefUser user, PrefHost host) {
  return Guarded(false, [&] {
    return out != nullptr && ReadString(CopyPreferenceValue(key, domain, user, host), out);
  });
}

bool GetPreferenceNumber(const std::string& key, const std::string& domain, std::int32_t* out,
                         PrefUser user, PrefHost host) {
  return Guarded(false, [&] {
    return out != nullptr && CopyPreferenceValue(key, domain, user, host).GetNumber(out);
  });
}

bool GetPreferenceDictionaryString(const std::string& key, const std::string& entry,
                                   const std::string& domain, std::string* out, PrefUser user,
                                   PrefHost host) {
  return Guarded(false, [&] {
    return out != nullptr && ReadString(CopyDictionaryEntry(key, entry, domain, user, host), out);
  });
}

bool GetPreferenceDictionaryNumber(const std::string& key, const std::string& entry,
                                   const std::string& domain, std::int32_t* out, PrefUser user,
                                   PrefHost host) {
  return Guarded(false, [&] {
    return out != nullptr && CopyDictionaryEntry(key, entry, domain, user, host).GetNumber(out);
  });
}

// ---- Writes ----

bool SetPreferenceString(const std::string& key, const std::string& domain,
                         const std::string& value, PrefUser user, PrefHost host) {
  return Guarded(false, [&] {
    return IsValidStringValue(value) && SetKey(key, domain, PrefValue::String(value), user, host);
  });
}

bool SetPreferenceNumber(const std::string& key, const std::string& domain, std::int32_t value,
                         PrefUser user, PrefHost host) {
  return Guarded(false, [&] { return SetKey(key, domain, PrefValue::Number(value), user, host); });
}

bool SetPreferenceDictionaryString(const std::string& key, const std::string& entry,
                                   const std::string& domain, const std::string& value,
                                   PrefUser user, PrefHost host) {
  return Guarded(false, [&] {
    return IsValidStringValue(value) &&
           EditDictionaryEntry(key, entry, domain, PrefValue::String(value), false, user, host);
  });
}

bool SetPreferenceDictionaryNumber(const std::string& key, const std::string& entry,
                                   const std::string& domain, std::int32_t value, PrefUser user,
                                   PrefHost host) {
  return Guarded(false, [&] {
    return EditDictionaryEntry(key, entry, domain, PrefValue::Number(value), false, user, host);
  });
}

bool RemovePreferenceDictionaryEntry(const std::string& key, const std::string& entry,
                                     const std::string& domain, PrefUser user, PrefHost host) {
  return Guarded(false, [&] {
    return EditDictionaryEntry(key, entry, domain, PrefValue(), true, user, host);
  });
}

bool GetOrAddPreferenceString(const std::string& key, const std::string& domain,
                              const std::string& fresh, std::string* out, PrefUser user,
                              PrefHost host) {
  return Guarded(false, [&] {
    const std::string path = PreferenceFilePath(domain, user, host);
    if (out == nullptr || path.empty() || !IsValidName(key) || !IsValidStringValue(fresh)) {
      return false;
    }
    std::string result;
    const bool done = PreferenceStore::UpdateDomain(path, [&](PrefValue* all) {
      if (ReadString(all->Item(key), &result)) return PreferenceStore::Edit::kKeep;
      result = fresh;
      return all->SetItem(key, PrefValue::String(fresh)) ? PreferenceStore::Edit::kStore
                                                         : PreferenceStore::Edit::kFail;
    });
    if (done) *out = result;
    return done;
  });
}

// ---- Listings ----

bool GetDictionaryKeys(const std::string& name, const std::string& domain,
                       std::vector<std::string>* keys, PrefUser user, PrefHost host) {
  return Guarded(false, [&] {
    const std::string path = PreferenceFilePath(domain, user, host);
    if (keys == nullptr || path.empty() || !IsValidName(name)) return false;
    std::vector<std::string> found;
    for (const std::string& key : PreferenceStore::ReadDomain(path).Keys()) {
      // Each value is read afresh, as another process may have changed it.
      if (PreferenceStore::ReadDomain(path).Item(key).Kind() == kPrefDictionary) {
        found.push_back(key);
      }
    }
    keys->swap(found);
    return true;
  });
}

bool GetPreferenceDictionaryPairs(const std::string& key, const std::string& domain,
                                  std::vector<std::pair<std::string, std::string>>* pairs,
                                  PrefUser user, PrefHost host) {
  return Guarded(false, [&] {
    if (pairs == nullptr) return false;
    PrefValue dictionary = CopyPreferenceValue(key, domain, user, host);
    if (dictionary.Kind() != kPrefDictionary) return false;
    std::vector<std::pair<std::string, std::string>> found;
    for (const std::string& name : dictionary.Keys()) {
      std::string utf8_name;
      std::string utf8_value;
      if (StringUtil::CFStringToUTF8(&name, &utf8_name) &&
          ReadString(dictionary.Item(name), &utf8_value)) {
        found.emplace_back(utf8_name, utf8_value);
      }
    }
    pairs->swap(found);
    return true;
  });
}

// ---- Kinds ----

bool IsPreferenceType(const PrefValue& value, int kind) {
  if (value.IsNone() || kind < kPrefDictionary || kind > kPrefArray) return false;
  return value.Kind() == kind;
}

int PreferenceTypeOf(const PrefValue& value) { return value.Kind(); }
