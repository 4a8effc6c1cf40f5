// The property-list guards; see PlistGuards.h.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "PlistTrailer.h"
#include "Posix/PlistGuards.h"
#include "Posix/ScopedPlist.h"
#include "StringUtil.h"

namespace plist_guard {
namespace {

using ScopedChars = std::unique_ptr<char, void (*)(void*)>;

// Every (key, child) of a dictionary, in the library's order.
std::vector<std::pair<std::string, plist_t>> Items(plist_t dict) {
  std::vector<std::pair<std::string, plist_t>> items;
  plist_dict_iter iter = nullptr;
  plist_dict_new_iter(dict, &iter);
  const ScopedChars owned_iter(static_cast<char*>(iter), &std::free);
  for (;;) {
    char* key = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(dict, iter, &key, &item);
    const ScopedChars owned_key(key, &std::free);
    if (item == nullptr) break;
    items.emplace_back(key != nullptr ? key : "", item);
  }
  return items;
}

// True when the elements of an XML text nest at most PlistTrailer::kMaxDepth
// deep and it holds no NUL character. Counted over the raw tags (comments and the like may make it
// count more, never less): "<name", "</name" and "<name/>".
bool XmlNestingBounded(const std::string& text) {
  // No NUL character either, raw or as a reference: the library aborts on a
  // dictionary key holding one, and XML allows none.
  if (text.find('\0') != std::string::npos) return false;
  for (std::string::size_type at = text.find("&#"); at != std::string::npos;
       at = text.find("&#", at + 2)) {
    std::string::size_type digit = at + 2;
    const bool hex = digit < text.size() && (text[digit] == 'x' || text[digit] == 'X');
    if (hex) ++digit;
    while (digit < text.size() && text[digit] == '0') ++digit;
    if (digit > at + 2 + (hex ? 1 : 0) && digit < text.size() && text[digit] == ';') return false;
  }
  std::size_t depth = 0;
  for (std::string::size_type at = text.find('<'); at != std::string::npos;
       at = text.find('<', at + 1)) {
    if (at + 1 >= text.size()) break;
    const char next = text[at + 1];
    if (next == '/') {
      if (depth > 0) --depth;
    } else if (next != '!' && next != '?') {
      const std::string::size_type close = text.find('>', at);
      if (close == std::string::npos) break;
      if (text[close - 1] != '/' && ++depth > PlistTrailer::kMaxDepth) return false;
    }
  }
  return true;
}

}  // namespace

plist_t Parse(const std::string& data) {
  if (data.empty() || data.size() > UINT32_MAX) return nullptr;
  if (PlistTrailer::IsBinary(data.data(), data.size())) {
    if (!PlistTrailer::IsWithinBounds(data.data(), data.size())) return nullptr;
  } else if (!XmlNestingBounded(data)) {
    return nullptr;
  }
  plist_t root = nullptr;
  plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
  return root;
}

void RepairStrings(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
      // By pointer and length: the copying getter asserts (aborts) on a
      // string that holds a NUL byte, which an XML or binary file can carry.
      uint64_t length = 0;
      const char* value = plist_get_string_ptr(node, &length);
      if (value == nullptr) break;
      std::string text(value, static_cast<std::size_t>(length));
      const bool has_nul = text.find('\0') != std::string::npos;
      text.resize(std::strlen(text.c_str()));  // a NUL ends the text, as at every boundary
      if (has_nul || !StringUtil::IsValidUTF8(text)) {
        plist_set_string_val(node, StringUtil::RepairUTF8(text).c_str());
      }
      break;
    }
    case PLIST_ARRAY:
      for (uint32_t i = 0; i < plist_array_get_size(node); ++i) {
        RepairStrings(plist_array_get_item(node, i));
      }
      break;
    case PLIST_DICT:
      for (const auto& item : Items(node)) {
        RepairStrings(item.second);
        if (StringUtil::IsValidUTF8(item.first)) continue;
        const std::string repaired = StringUtil::RepairUTF8(item.first);
        ScopedPlist moved = AdoptPlist(plist_copy(item.second));
        plist_dict_remove_item(node, item.first.c_str());
        // A repaired key that collides with an existing one gives way to it.
        if (plist_dict_get_item(node, repaired.c_str()) == nullptr) {
          plist_dict_set_item(node, repaired.c_str(), moved.release());
        }
      }
      break;
    default:
      break;
  }
}

bool SameTree(plist_t a, plist_t b) {
  if (a == nullptr || b == nullptr) return a == b;
  const plist_type type = plist_get_node_type(a);
  if (type != plist_get_node_type(b)) return false;
  switch (type) {
    case PLIST_DICT: {
      if (plist_dict_get_size(a) != plist_dict_get_size(b)) return false;
      for (const auto& item : Items(a)) {
        if (!SameTree(item.second, plist_dict_get_item(b, item.first.c_str()))) return false;
      }
      return true;
    }
    case PLIST_ARRAY: {
      const uint32_t size = plist_array_get_size(a);
      if (size != plist_array_get_size(b)) return false;
      for (uint32_t i = 0; i < size; ++i) {
        if (!SameTree(plist_array_get_item(a, i), plist_array_get_item(b, i))) return false;
      }
      return true;
    }
    default:
      return plist_compare_node_value(a, b) != 0;
  }
}

bool SerialiseVerified(plist_t root, std::string* bytes) {
  if (root == nullptr || bytes == nullptr) return false;
  char* raw = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &raw, &length);
  const std::unique_ptr<char, void (*)(char*)> owned(raw, &plist_to_bin_free);
  if (owned == nullptr || length == 0) return false;
  std::string written(owned.get(), length);
  const ScopedPlist reread = AdoptPlist(Parse(written));
  if (!SameTree(root, static_cast<plist_t>(reread.get()))) return false;
  bytes->swap(written);
  return true;
}

}  // namespace plist_guard
