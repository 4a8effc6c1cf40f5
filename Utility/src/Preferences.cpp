// The preference operations: argument checks, kind checks and conversions
// between byte strings / 32-bit numbers and stored values, built on the
// store's two primitives (read a domain, update a domain under its lock).
// Stored values are libplist nodes; integers are kept as 64-bit nodes holding
// the sign-extended value, which the binary form records as a signed integer.
#include "Preferences.h"

#include <plist/plist.h>

#include <cstdlib>
#include <limits>
#include <memory>

#include "Posix/PreferenceStore.h"
#include "StringUtil.h"

namespace {

plist_t AsNode(void* node) { return static_cast<plist_t>(node); }

// Key and entry names (PreferenceFilePath checks domains): non-empty UTF-8
// without NUL bytes (a NUL would silently cut the name short in the store).
bool IsValidName(const std::string& text) {
  return !text.empty() && text.find('\0') == std::string::npos && StringUtil::IsValidUTF8(text);
}

// String values may be empty.
bool IsValidStringValue(const std::string& text) {
  return text.find('\0') == std::string::npos && StringUtil::IsValidUTF8(text);
}

// Runs `body`, turning any exception into `fallback`.
template <typename Result, typename Body>
Result Guarded(Result fallback, Body body) {
  try {
    return body();
  } catch (...) {
    return fallback;
  }
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

// ---- PrefValue ----

PrefValue::PrefValue() = default;

PrefValue::~PrefValue() {
  if (node_ != nullptr) plist_free(AsNode(node_));
}

PrefValue::PrefValue(PrefValue&& other) noexcept : node_(other.Release()) {}

PrefValue& PrefValue::operator=(PrefValue&& other) noexcept {
  if (this != &other) {
    if (node_ != nullptr) plist_free(AsNode(node_));
    node_ = other.Release();
  }
  return *this;
}

PrefValue PrefValue::String(const std::string& utf8) {
  return Adopt(plist_new_string(utf8.c_str()));
}

PrefValue PrefValue::Number(std::int32_t value) {
  // Sign-extended, so that a negative number is written as a negative integer.
  return Adopt(plist_new_uint(static_cast<uint64_t>(static_cast<int64_t>(value))));
}

PrefValue PrefValue::Dictionary() { return Adopt(plist_new_dict()); }

PrefValue PrefValue::Adopt(void* node) {
  PrefValue value;
  value.node_ = node;
  return value;
}

void* PrefValue::Release() {
  void* node = node_;
  node_ = nullptr;
  return node;
}

int PrefValue::Kind() const {
  if (node_ == nullptr) return kPrefNone;
  switch (plist_get_node_type(AsNode(node_))) {
    case PLIST_DICT:
      return kPrefDictionary;
    case PLIST_STRING:
      return kPrefString;
    case PLIST_UINT:
      return kPrefNumber;
    case PLIST_ARRAY:
      return kPrefArray;
    default:
      return kPrefNone;
  }
}

bool PrefValue::GetString(std::string* out) const {
  if (out == nullptr || Kind() != kPrefString) return false;
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(AsNode(node_), &length);
  if (text == nullptr) return false;
  out->assign(text, static_cast<std::size_t>(length));
  return true;
}

bool PrefValue::GetNumber(std::int32_t* out) const {
  if (out == nullptr || Kind() != kPrefNumber) return false;
  uint64_t raw = 0;
  plist_get_uint_val(AsNode(node_), &raw);
  const auto value = static_cast<int64_t>(raw);
  // A number that does not fit is refused rather than silently truncated.
  if (value < std::numeric_limits<std::int32_t>::min() ||
      value > std::numeric_limits<std::int32_t>::max()) {
    return false;
  }
  *out = static_cast<std::int32_t>(value);
  return true;
}

std::size_t PrefValue::Count() const {
  switch (Kind()) {
    case kPrefDictionary:
      return plist_dict_get_size(AsNode(node_));
    case kPrefArray:
      return plist_array_get_size(AsNode(node_));
    default:
      return 0;
  }
}

PrefValue PrefValue::ArrayItem(std::size_t index) const {
  if (Kind() != kPrefArray || index >= Count()) return PrefValue();
  plist_t item = plist_array_get_item(AsNode(node_), static_cast<uint32_t>(index));
  return item == nullptr ? PrefValue() : Adopt(plist_copy(item));
}

bool PrefValue::HasKey(const std::string& key) const {
  return Kind() == kPrefDictionary && plist_dict_get_item(AsNode(node_), key.c_str()) != nullptr;
}

PrefValue PrefValue::Item(const std::string& key) const {
  if (Kind() != kPrefDictionary) return PrefValue();
  plist_t item = plist_dict_get_item(AsNode(node_), key.c_str());
  return item == nullptr ? PrefValue() : Adopt(plist_copy(item));
}

std::vector<std::string> PrefValue::Keys() const {
  std::vector<std::string> keys;
  if (Kind() != kPrefDictionary) return keys;
  plist_dict_iter iter = nullptr;
  plist_dict_new_iter(AsNode(node_), &iter);
  std::unique_ptr<void, void (*)(void*)> owned_iter(iter, &std::free);
  for (;;) {
    char* key = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(AsNode(node_), iter, &key, &item);
    std::unique_ptr<char, void (*)(void*)> owned_key(key, &std::free);
    if (item == nullptr) break;
    if (key != nullptr) keys.emplace_back(key);
  }
  return keys;
}

bool PrefValue::SetItem(const std::string& key, PrefValue value) {
  if (Kind() != kPrefDictionary || value.IsNone()) return false;
  plist_dict_set_item(AsNode(node_), key.c_str(), AsNode(value.Release()));
  return true;
}

bool PrefValue::RemoveItem(const std::string& key) {
  if (!HasKey(key)) return false;
  plist_dict_remove_item(AsNode(node_), key.c_str());
  return true;
}

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
