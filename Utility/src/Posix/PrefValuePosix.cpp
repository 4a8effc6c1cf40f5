// Linux binding of PrefValue: stored values are libplist nodes. Integers
// are kept as 64-bit nodes holding the sign-extended value, which the binary
// form records as a signed integer, so other property-list tools read a
// negative number as negative.
#include <plist/plist.h>

#include <cstdlib>
#include <limits>
#include <memory>

#include "Posix/ScopedPlist.h"
#include "Preferences.h"

namespace {

plist_t AsNode(void* node) { return static_cast<plist_t>(node); }

}  // namespace

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
  value.node_ = AdoptPlist(static_cast<plist_t>(node));
  return value;
}

int PrefValue::Kind() const {
  if (node_ == nullptr) return kPrefNone;
  switch (plist_get_node_type(AsNode(node_.get()))) {
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
  const char* text = plist_get_string_ptr(AsNode(node_.get()), &length);
  if (text == nullptr) return false;
  out->assign(text, static_cast<std::size_t>(length));
  return true;
}

bool PrefValue::GetNumber(std::int32_t* out) const {
  if (out == nullptr || Kind() != kPrefNumber) return false;
  uint64_t raw = 0;
  plist_get_uint_val(AsNode(node_.get()), &raw);
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
      return plist_dict_get_size(AsNode(node_.get()));
    case kPrefArray:
      return plist_array_get_size(AsNode(node_.get()));
    default:
      return 0;
  }
}

PrefValue PrefValue::ArrayItem(std::size_t index) const {
  if (Kind() != kPrefArray || index >= Count()) return PrefValue();
  plist_t item = plist_array_get_item(AsNode(node_.get()), static_cast<uint32_t>(index));
  return item == nullptr ? PrefValue() : Adopt(plist_copy(item));
}

bool PrefValue::HasKey(const std::string& key) const {
  return Kind() == kPrefDictionary &&
         plist_dict_get_item(AsNode(node_.get()), key.c_str()) != nullptr;
}

PrefValue PrefValue::Item(const std::string& key) const {
  if (Kind() != kPrefDictionary) return PrefValue();
  plist_t item = plist_dict_get_item(AsNode(node_.get()), key.c_str());
  return item == nullptr ? PrefValue() : Adopt(plist_copy(item));
}

std::vector<std::string> PrefValue::Keys() const {
  std::vector<std::string> keys;
  if (Kind() != kPrefDictionary) return keys;
  plist_dict_iter iter = nullptr;
  plist_dict_new_iter(AsNode(node_.get()), &iter);
  std::unique_ptr<void, void (*)(void*)> owned_iter(iter, &std::free);
  for (;;) {
    char* key = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(AsNode(node_.get()), iter, &key, &item);
    std::unique_ptr<char, void (*)(void*)> owned_key(key, &std::free);
    if (item == nullptr) break;
    if (key != nullptr) keys.emplace_back(key);
  }
  return keys;
}

bool PrefValue::SetItem(const std::string& key, PrefValue value) {
  if (Kind() != kPrefDictionary || value.IsNone()) return false;
  plist_dict_set_item(AsNode(node_.get()), key.c_str(), AsNode(value.Release()));
  return true;
}

bool PrefValue::RemoveItem(const std::string& key) {
  if (!HasKey(key)) return false;
  plist_dict_remove_item(AsNode(node_.get()), key.c_str());
  return true;
}
