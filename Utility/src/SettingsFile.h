// An in-memory settings file: sections of key/value lines loaded into one
// sorted dictionary whose keys are "section/key" paths, both parts lower-case.
// The uploader's configuration and status records are kept in this syntax.
//
// Syntax, line by line (lines end at a line feed; every line and every part
// is trimmed of space, tab, carriage return and line feed):
//   - empty lines and lines starting with "#" or ";" are ignored;
//   - "[name]" selects a section (lower-cased; a missing "]" takes the rest
//     of the line; text after the "]" is ignored; "[]" is the empty section);
//   - "key=value" stores value (case kept) under section + "/" + key
//     (lower-cased); a line without "=" stores the whole line as both key
//     (lower-cased) and value. Later lines replace earlier ones.
// Lines before any header belong to the empty section (paths start with "/").
//
// Byte-order mark: a UTF-8 byte-order mark (EF BB BF) at the very start of a
// loaded file or text is skipped, so an editor that adds one does not hide
// the first key. A mark anywhere else is ordinary text.
//
// Bytes are bytes: no encoding is checked, lower-casing touches ASCII letters
// only, and any input (NUL bytes, binary data, very long lines) loads.
//
// Saving writes the canonical form: one "[section]" header per section in
// dictionary order, then "key=value" lines in sorted order, no comments, no
// blank lines, single line feeds. The file is replaced atomically. Every
// dictionary that a load produced saves and loads back unchanged: a path
// whose section part held "/" (from a header such as "[a/b=c]") is written
// under a header cut at a later "/", so that its key line cannot turn into
// a comment or a different key. A path that no header and key line can
// express (only SetValue with a key such as "a=b" or "#x" makes one) is
// still written verbatim, as "[" + section + "]" and key + "=" + value.
#ifndef LUMETRY_UTILITY_SETTINGSFILE_H_
#define LUMETRY_UTILITY_SETTINGSFILE_H_

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

class SettingsFile {
 public:
  using Entries = std::map<std::string, std::string>;
  using EntryList = std::vector<std::pair<std::string, std::string>>;

  // Settings files are small; a larger file is not loaded.
  static constexpr std::size_t kMaxFileBytes = std::size_t{1} << 20;

  SettingsFile() = default;

  // Clears the dictionary, then parses the file. 0, or -1 when the file
  // cannot be opened or read (a directory, a missing file, one of more than
  // kMaxFileBytes); the dictionary is then empty.
  int Load(const std::string& path);

  // Parses `text` into the dictionary without clearing it first. Always 0.
  int LoadText(const std::string& text);

  // Writes the canonical form to `path`: a temporary file beside it, flushed
  // to disk, then renamed over it, so a reader never sees half a file and a
  // failure leaves the old file as it was. A new file gets mode 0644, an
  // existing one keeps its mode. A symbolic link at `path` stays: the file
  // it names is replaced, in that file's own directory. When the directory refuses the temporary
  // file but the existing file may be written, the file is rewritten in
  // place. Temporary files that killed writers left (older than a minute)
  // are removed. 0, or -1 when the file cannot be written (including an
  // existing file without write permission).
  int Save(const std::string& path) const;

  // The value at section/key (both trimmed and lower-cased), or "".
  std::string GetValue(const std::string& section, const std::string& key) const;

  // Stores `value` exactly as given (untrimmed) at section/key, both trimmed
  // and lower-cased, and returns it. A value that trims to "" removes the
  // entry instead. An empty section or key, or one that contains "/",
  // changes nothing. Returns "" whenever nothing is stored.
  std::string SetValue(const std::string& section, const std::string& key,
                       const std::string& value);

  // As SetValue with a ready "section/key" path (trimmed and lower-cased;
  // it must be non-empty and contain a "/").
  std::string SetValueAt(const std::string& path, const std::string& value);

  // Appends (key, value) for every entry whose section part equals `section`
  // exactly (no trimming or lower-casing: pass lower-case names).
  void GetSectionEntries(const std::string& section, EntryList* entries) const;

  // Removes every entry of `section`; "" or "*" removes every entry. 0.
  int RemoveSection(const std::string& section);

  // The whole dictionary, in order.
  const Entries& entries() const { return entries_; }

 private:
  void ParseText(const std::string& text);
  void ParseLine(const std::string& raw_line, std::string* section);
  std::string StoreAt(const std::string& path, const std::string& value);

  Entries entries_;
};

#endif  // LUMETRY_UTILITY_SETTINGSFILE_H_
