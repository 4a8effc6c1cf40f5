// The settings-file parser and writer; see SettingsFile.h for the syntax.
#include "SettingsFile.h"

#include "FileIO.h"
#include "StringUtil.h"

namespace {

const char kByteOrderMark[] = "\xEF\xBB\xBF";
constexpr std::string::size_type kByteOrderMarkSize = 3;

std::string Trimmed(const std::string& text) {
  return StringUtil::Trim(text, StringUtil::kWhitespace);
}

std::string TrimmedLower(const std::string& text) {
  std::string result = Trimmed(text);
  StringUtil::ToLower(result);
  return result;
}

// Where to cut `path` into a "[section]" header and a "key=value" line. The
// first "/" is the usual cut; a header that held "/" itself ("[a/b=c]",
// "[settings/#x]") needs a later one, since its key part would otherwise
// hold a "=" or begin like a comment. When no cut reads back as the same
// path (a key such as "a=b" stored by SetValue), the entry is still written
// verbatim at the first "/": a value the caller stored is never dropped.
std::string::size_type WritableSplit(const std::string& path) {
  for (std::string::size_type slash = path.find('/'); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string section = path.substr(0, slash);
    const std::string key = path.substr(slash + 1);
    const bool section_ok =
        section.find_first_of("]\n") == std::string::npos && Trimmed(section) == section;
    const bool key_ok = key.find_first_of("=\n") == std::string::npos && Trimmed(key) == key &&
                        (key.empty() || (key[0] != '#' && key[0] != ';' && key[0] != '['));
    if (section_ok && key_ok) return slash;
  }
  return path.find('/');
}

// The section part of a stored path: the text before its first "/".
std::string SectionOf(const std::string& path) { return path.substr(0, path.find('/')); }

}  // namespace

int SettingsFile::Load(const std::string& path) {
  entries_.clear();
  std::string contents;
  if (FileIO::ReadFile(path, kMaxFileBytes, &contents) != FileIO::ReadStatus::kOk) return -1;
  ParseText(contents);
  return 0;
}

int SettingsFile::LoadText(const std::string& text) {
  ParseText(text);
  return 0;
}

void SettingsFile::ParseText(const std::string& text) {
  std::string section;  // each load starts in the empty section
  std::string::size_type start = 0;
  if (text.compare(0, kByteOrderMarkSize, kByteOrderMark) == 0) start = kByteOrderMarkSize;
  // Split by hand: lines may hold NUL bytes, which the generic splitter stops at.
  while (start <= text.size()) {
    std::string::size_type end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    ParseLine(text.substr(start, end - start), &section);
    start = end + 1;
  }
}

void SettingsFile::ParseLine(const std::string& raw_line, std::string* section) {
  const std::string line = Trimmed(raw_line);
  if (line.empty() || line[0] == '#' || line[0] == ';') return;

  if (line[0] == '[') {
    const std::string::size_type close = line.find(']');
    *section =
        TrimmedLower(close == std::string::npos ? line.substr(1) : line.substr(1, close - 1));
    return;
  }

  // A line without "=" is kept on purpose: the whole line is key and value.
  const std::string::size_type equals = line.find('=');
  entries_[*section + "/" + TrimmedLower(line.substr(0, equals))] =
      equals == std::string::npos ? line : Trimmed(line.substr(equals + 1));
}

int SettingsFile::Save(const std::string& path) const {
  std::string text;
  std::string current;
  bool first = true;
  for (const auto& entry : entries_) {
    const std::string::size_type slash = WritableSplit(entry.first);
    const std::string section = entry.first.substr(0, slash);
    if (first || section != current) {
      text += "[" + section + "]\n";
      current = section;
      first = false;
    }
    text += entry.first.substr(slash + 1) + "=" + entry.second + "\n";
  }
  // A link keeps pointing at the file: its target is replaced, in the
  // target's own directory. A directory that refuses the temporary file
  // still lets the file itself be rewritten.
  FileIO::ReplaceOptions options;
  options.follow_link = true;
  options.in_place_fallback = true;
  return FileIO::ReplaceFile(path, text.data(), text.size(), options) ? 0 : -1;
}

std::string SettingsFile::GetValue(const std::string& section, const std::string& key) const {
  const auto it = entries_.find(TrimmedLower(section) + "/" + TrimmedLower(key));
  return it == entries_.end() ? std::string() : it->second;
}

std::string SettingsFile::SetValue(const std::string& section, const std::string& key,
                                   const std::string& value) {
  const std::string s = TrimmedLower(section);
  const std::string k = TrimmedLower(key);
  if (s.empty() || k.empty() || s.find('/') != std::string::npos ||
      k.find('/') != std::string::npos) {
    return std::string();
  }
  return StoreAt(s + "/" + k, value);
}

std::string SettingsFile::SetValueAt(const std::string& path, const std::string& value) {
  const std::string p = TrimmedLower(path);
  if (p.empty() || p.find('/') == std::string::npos) return std::string();
  return StoreAt(p, value);
}

std::string SettingsFile::StoreAt(const std::string& path, const std::string& value) {
  // The trim only decides emptiness; a non-empty value is kept as given.
  if (Trimmed(value).empty()) {
    entries_.erase(path);
    return std::string();
  }
  entries_[path] = value;
  return value;
}

void SettingsFile::GetSectionEntries(const std::string& section, EntryList* entries) const {
  if (entries == nullptr) return;
  for (const auto& entry : entries_) {
    const std::string::size_type slash = entry.first.find('/');
    if (entry.first.compare(0, slash, section) == 0) {
      entries->emplace_back(entry.first.substr(slash + 1), entry.second);
    }
  }
}

int SettingsFile::RemoveSection(const std::string& section) {
  if (section.empty() || section == "*") {
    entries_.clear();
    return 0;
  }
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (SectionOf(it->first) == section) {
      it = entries_.erase(it);
    } else {
      ++it;
    }
  }
  return 0;
}
