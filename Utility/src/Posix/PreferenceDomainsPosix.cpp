// Whole-domain operations on Linux: the domain files of Preferences.h,
// edited only through PreferenceStore::UpdateDomain (so under the domain's
// lock, with atomic replacement), and libplist for XML and descriptions.
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "FileUtil.h"
#include "Guarded.h"
#include "Posix/PlistGuards.h"
#include "Posix/ScopedDir.h"
#include "PreferenceDomains.h"
#include "PreferenceStore.h"

namespace PreferenceDomains {
namespace {

plist_t AsNode(void* node) { return static_cast<plist_t>(node); }

// Files of any bytes are parsed: deeper nesting is shown cut short rather
// than walked on the stack.
constexpr int kMaxRenderDepth = 64;

// Seconds between the Unix epoch and the property-list epoch (2001-01-01).
constexpr std::int64_t kPlistEpoch = 978307200;

bool IsRegularFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char code[8];
          (void)std::snprintf(code, sizeof code, "\\%03o", static_cast<unsigned>(c));
          out += code;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

// Keys made of letters, digits and . _ - stay bare; any other is quoted.
std::string KeyText(const std::string& key) {
  const bool bare = !key.empty() && std::all_of(key.begin(), key.end(), [](char c) {
    const auto b = static_cast<unsigned char>(c);
    return (b >= 'a' && b <= 'z') || (b >= 'A' && b <= 'Z') || (b >= '0' && b <= '9') || c == '.' ||
           c == '_' || c == '-';
  });
  return bare ? key : Quote(key);
}

std::string ScalarText(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
      uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return Quote(text == nullptr ? "" : std::string(text, static_cast<std::size_t>(length)));
    }
    case PLIST_UINT: {
      uint64_t raw = 0;
      plist_get_uint_val(node, &raw);
      // Stored sign-extended: the top bit means a negative integer.
      return std::to_string(static_cast<std::int64_t>(raw));
    }
    case PLIST_BOOLEAN: {
      uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return value != 0 ? "1" : "0";
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      char text[64];
      (void)std::snprintf(text, sizeof text, "%.17g", value);
      return text;
    }
    case PLIST_DATE: {
      int32_t sec = 0;
      int32_t usec = 0;
      plist_get_date_val(node, &sec, &usec);
      const auto when = static_cast<std::time_t>(kPlistEpoch + sec);
      std::tm parts{};
      char text[64] = "";
      if (::gmtime_r(&when, &parts) != nullptr) {
        (void)std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &parts);
      }
      return text;
    }
    case PLIST_DATA: {
      uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      std::string out = "<";
      for (uint64_t i = 0; bytes != nullptr && i < length; ++i) {
        char hex[4];
        (void)std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(bytes[i]));
        out += hex;
      }
      return out + ">";
    }
    default:
      return "?";
  }
}

void Render(plist_t node, int depth, std::string* out) {
  if (depth > kMaxRenderDepth) {
    *out += "...";
    return;
  }
  const std::string inner(static_cast<std::size_t>(depth + 1) * 4, ' ');
  const std::string outer(static_cast<std::size_t>(depth) * 4, ' ');
  switch (plist_get_node_type(node)) {
    case PLIST_DICT: {
      *out += "{\n";
      plist_dict_iter iter = nullptr;
      plist_dict_new_iter(node, &iter);
      std::unique_ptr<void, void (*)(void*)> owned_iter(iter, &std::free);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iter, &key, &item);
        std::unique_ptr<char, void (*)(void*)> owned_key(key, &std::free);
        if (item == nullptr) break;
        *out += inner + KeyText(key == nullptr ? "" : key) + " = ";
        Render(item, depth + 1, out);
        *out += ";\n";
      }
      *out += outer + "}";
      break;
    }
    case PLIST_ARRAY: {
      *out += "(\n";
      const uint32_t count = plist_array_get_size(node);
      for (uint32_t i = 0; i < count; ++i) {
        *out += inner;
        Render(plist_array_get_item(node, i), depth + 1, out);
        *out += i + 1 < count ? ",\n" : "\n";
      }
      *out += outer + ")";
      break;
    }
    default:
      *out += ScalarText(node);
  }
}

}  // namespace

bool DomainExists(const std::string& domain, PrefUser user, PrefHost host) {
  return Guarded(false, [&] {
    const std::string path = PreferenceFilePath(domain, user, host);
    return !path.empty() && IsRegularFile(path);
  });
}

bool CopyDomain(const std::string& domain, PrefUser user, PrefHost host, PrefValue* out) {
  return Guarded(false, [&] {
    const std::string path = PreferenceFilePath(domain, user, host);
    if (out == nullptr || path.empty()) return false;
    // The store reads an unreadable file as an empty domain; a tool that
    // shows the domain must not claim it is empty.
    if (IsRegularFile(path) && ::access(path.c_str(), R_OK) != 0) return false;
    *out = PreferenceStore::ReadDomain(path);
    return true;
  });
}

bool ReplaceDomain(const std::string& domain, PrefUser user, PrefHost host,
                   const PrefValue& dictionary) {
  return Guarded(false, [&] {
    const std::string path = PreferenceFilePath(domain, user, host);
    if (path.empty() || dictionary.Kind() != kPrefDictionary) return false;
    return PreferenceStore::UpdateDomain(path, [&](PrefValue* all) {
      *all = PrefValue::Adopt(plist_copy(AsNode(dictionary.Node())));
      return all->IsNone() ? PreferenceStore::Edit::kFail : PreferenceStore::Edit::kStore;
    });
  });
}

EditResult RemoveKey(const std::string& key, const std::string& domain, PrefUser user,
                     PrefHost host) {
  return Guarded(EditResult::kFailed, [&] {
    const std::string path = PreferenceFilePath(domain, user, host);
    if (path.empty() || key.empty()) return EditResult::kFailed;
    bool found = false;
    const bool done = PreferenceStore::UpdateDomain(path, [&](PrefValue* all) {
      found = all->RemoveItem(key);
      return found ? PreferenceStore::Edit::kStore : PreferenceStore::Edit::kKeep;
    });
    if (!done) return EditResult::kFailed;
    return found ? EditResult::kDone : EditResult::kNotFound;
  });
}

EditResult RemoveDomain(const std::string& domain, PrefUser user, PrefHost host) {
  return Guarded(EditResult::kFailed, [&] {
    const std::string path = PreferenceFilePath(domain, user, host);
    if (path.empty()) return EditResult::kFailed;
    EditResult result = EditResult::kFailed;
    // Unlinked while the lock is held, so no writer is half-way through it;
    // the lock file stays, as other writers may be waiting on it.
    PreferenceStore::UpdateDomain(path, [&](PrefValue*) {
      if (!IsRegularFile(path)) {
        result = EditResult::kNotFound;
      } else if (::unlink(path.c_str()) == 0) {
        result = EditResult::kDone;
      }
      return PreferenceStore::Edit::kKeep;
    });
    return result;
  });
}

bool ListDomains(PrefUser user, PrefHost host, std::vector<std::string>* domains) {
  return Guarded(false, [&] {
    // A stand-in domain shows where the scope keeps its files and how their
    // names end (".plist", or ".<HOST-ID>.plist" for the current host).
    const std::string sample = PreferenceFilePath("_", user, host);
    if (domains == nullptr || sample.empty()) return false;
    const std::string dir = FileUtil::ParentDirectory(sample);
    const std::string suffix = FileUtil::LastPathComponent(sample).substr(1);
    const ScopedDir listing(::opendir(dir.c_str()));
    if (!listing) {
      if (errno != ENOENT) return false;
      domains->clear();
      return true;
    }
    std::vector<std::string> names;
    if (!posix_io::ReadNames(listing.get(), &names)) return false;
    std::vector<std::string> found;
    for (const std::string& name : names) {
      // Dot files are the store's temporaries; ".lock" files end otherwise.
      if (name.empty() || name[0] == '.' || name.size() <= suffix.size() ||
          name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0 ||
          !IsRegularFile(FileUtil::JoinPath(dir, name))) {
        continue;
      }
      found.push_back(name.substr(0, name.size() - suffix.size()));
    }
    std::sort(found.begin(), found.end());
    domains->swap(found);
    return true;
  });
}

bool ToXml(const PrefValue& value, std::string* xml) {
  return Guarded(false, [&] {
    if (xml == nullptr || value.IsNone()) return false;
    char* text = nullptr;
    uint32_t length = 0;
    plist_to_xml(AsNode(value.Node()), &text, &length);
    std::unique_ptr<char, void (*)(char*)> owned(text, &plist_to_xml_free);
    if (owned == nullptr || length == 0) return false;
    xml->assign(owned.get(), length);
    return true;
  });
}

bool FromPropertyList(const std::string& bytes, PrefValue* out) {
  return Guarded(false, [&] {
    if (out == nullptr || bytes.empty() || bytes.size() > UINT32_MAX) return false;
    // Imported files come from anywhere: the same guards as the store's reads.
    plist_t root = plist_guard::Parse(bytes);
    if (root == nullptr) return false;
    plist_guard::RepairStrings(root);
    *out = PrefValue::Adopt(root);
    return true;
  });
}

std::string Describe(const PrefValue& value) {
  return Guarded(std::string(), [&] {
    std::string out;
    if (!value.IsNone()) Render(AsNode(value.Node()), 0, &out);
    return out;
  });
}

std::string KindName(const PrefValue& value) {
  if (value.IsNone()) return "";
  switch (plist_get_node_type(AsNode(value.Node()))) {
    case PLIST_DICT:
      return "dictionary";
    case PLIST_STRING:
      return "string";
    case PLIST_UINT:
      return "integer";
    case PLIST_ARRAY:
      return "array";
    case PLIST_BOOLEAN:
      return "boolean";
    case PLIST_REAL:
      return "real";
    case PLIST_DATE:
      return "date";
    case PLIST_DATA:
      return "data";
    default:
      return "unknown";
  }
}

}  // namespace PreferenceDomains
