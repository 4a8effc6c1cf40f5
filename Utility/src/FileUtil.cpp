// The portable part of FileUtil: path arithmetic and the listing, deleting,
// matching and comparing logic, built on the primitives of
// FileUtilPlatform.h. Paths are byte strings; names that are not valid
// UTF-8 pass through untouched.
#include "FileUtil.h"

#include <cstring>
#include <memory>

#include "ExtendedRegex.h"
#include "FileIO.h"
#include "FileUtilPlatform.h"
#include "StringUtil.h"

namespace FileUtil {
namespace {

const char kSeparator = '/';

// Collapses every run of "/" into one and drops a trailing "/", except when
// the whole path is "/".
std::string NormaliseSeparators(const std::string& path) {
  std::string result;
  result.reserve(path.size());
  for (char c : path) {
    if (c == kSeparator && !result.empty() && result.back() == kSeparator) continue;
    result.push_back(c);
  }
  if (result.size() > 1 && result.back() == kSeparator) result.pop_back();
  return result;
}

// Every key occurs in the NUL-terminated name as a contiguous run of bytes;
// the C library's substring search, as fast as it gets.
bool ContainsAll(const char* name, const std::vector<std::string>& substrings) {
  for (const std::string& part : substrings) {
    if (std::strstr(name, part.c_str()) == nullptr) return false;
  }
  return true;
}

// The listing that the deleting walks use: names of `dir`, or with `recursive`
// the relative paths of everything below it.
bool ListEntries(const std::string& dir, bool recursive, std::vector<std::string>* entries) {
  return recursive ? platform::ListTree(dir, entries) : platform::ListNames(dir, entries);
}

// "?" matches one character, "*" any run, "." only itself; other characters
// are taken as they are, regular-expression characters included.
std::string WildcardToExtendedRegex(const std::string& pattern) {
  std::string expression;
  for (char c : pattern) {
    switch (c) {
      case '?':
        expression += ".{1}";
        break;
      case '.':
        expression += "\\.";
        break;
      case '*':
        expression += ".*";
        break;
      default:
        expression.push_back(c);
        break;
    }
  }
  return expression;
}

// Copy and Move clear the destination first and do not restore it when the
// copy fails. Onto the source itself they refuse, as clearing the destination
// would destroy the source.
bool ClearDestinationFor(const std::string& source, const std::string& destination) {
  return !source.empty() && Exists(source) && !platform::IsSameItem(source, destination) &&
         Remove(destination);
}

}  // namespace

// ---- Path arithmetic ----

std::string PathSeparator() { return std::string(1, kSeparator); }

// The result is dir + "/" + component with every run of "/" collapsed into
// one and a trailing "/" dropped ("/" alone stays "/"). An empty dir gives the
// component alone, normalised the same way; two empty parts give "".
std::string JoinPath(const std::string& dir, const std::string& component) {
  if (dir.empty()) return NormaliseSeparators(component);
  return NormaliseSeparators(dir + kSeparator + component);
}

std::string StripTrailingSeparators(const std::string& path) {
  std::string::size_type end = path.find_last_not_of(kSeparator);
  return end == std::string::npos ? std::string() : path.substr(0, end + 1);
}

std::string ParentDirectory(const std::string& path) {
  if (path.empty()) return std::string();
  std::string stripped = StripTrailingSeparators(path);
  std::string::size_type slash = stripped.rfind(kSeparator);
  if (slash == std::string::npos) return std::string();
  if (slash == 0) return PathSeparator();
  return stripped.substr(0, slash);
}

// "/a/b/" -> "b", "/" and "///" -> "/", "" -> "".
std::string LastPathComponent(const std::string& path) {
  if (path.empty()) return std::string();
  std::string stripped = StripTrailingSeparators(path);
  if (stripped.empty()) return PathSeparator();
  std::string::size_type slash = stripped.rfind(kSeparator);
  return slash == std::string::npos ? stripped : stripped.substr(slash + 1);
}

std::string FileName(const std::string& path) {
  if (path.empty() || path.back() == kSeparator) return std::string();
  return LastPathComponent(path);
}

std::string WithTrailingSeparator(const std::string& path) {
  if (path.empty()) return PathSeparator();
  if (path.back() == kSeparator) return path;
  return path + kSeparator;
}

// ---- Standard per-user directories ----

bool GetUserLibraryDirectory(std::string* path) {
  return GetUserDirectory(kUserDomain, kLibraryDirectory, path);
}

bool GetApplicationSupportDirectory(std::string* path) {
  return GetUserDirectory(kUserDomain, kApplicationSupportDirectory, path);
}

// ---- Tests and probes ----

bool GetModificationTime(const std::string& path, std::uint64_t* seconds) {
  if (seconds == nullptr || path.empty() || !Exists(path)) return false;
  platform::ItemAttributes attributes;
  if (!platform::GetItemAttributes(path, &attributes)) return false;
  if (attributes.kind == platform::ItemKind::kSymbolicLink) {
    // One level only, and the stored target is taken as it is: a relative
    // target resolves against the current directory, not the link's.
    std::string target;
    if (!platform::ReadSymbolicLink(path, &target)) return false;
    if (!platform::GetItemAttributes(target, &attributes)) return false;
  }
  // Whole seconds, the fraction dropped; instants before 1970 clamp to 0.
  std::int64_t whole = attributes.modified.seconds;
  *seconds = whole < 0 ? 0 : static_cast<std::uint64_t>(whole);
  return true;
}

bool IsNewer(const std::string& source, const std::string& destination) {
  std::string::size_type slash = source.rfind(kSeparator);
  std::string source_dir = slash == std::string::npos ? source : source.substr(0, slash);

  platform::ItemAttributes dir_attributes;
  platform::ItemAttributes source_attributes;
  platform::ItemAttributes destination_attributes;
  bool have_dir = platform::GetItemAttributes(source_dir, &dir_attributes);
  bool have_source = platform::GetItemAttributes(source, &source_attributes);
  bool have_destination = platform::GetItemAttributes(destination, &destination_attributes);
  // A missing item has no dates, and a comparison with no date never says
  // "later".
  if (!have_destination) return false;

  // A source folder made after the destination was last written means a
  // newer installation, whatever the file dates say.
  if (have_dir && platform::IsLater(dir_attributes.created, destination_attributes.modified)) {
    return true;
  }
  return have_source &&
         platform::IsLater(source_attributes.modified, destination_attributes.modified);
}

bool IsFileSizeAtMost(const std::string& path, std::int32_t limit) {
  // Looked at without blocking; a FIFO or device counts as a file that
  // cannot be opened, so as size 0.
  std::uint64_t size = 0;
  if (!FileIO::GetRegularFileSize(path, &size)) size = 0;
  // The position is compared as a signed 32-bit value.
  auto size32 = static_cast<std::int32_t>(static_cast<std::uint32_t>(size));
  return size32 <= limit;
}

// ---- Listings ----

bool ListDirectoryMatching(const std::string& dir, const std::vector<std::string>& substrings,
                           std::vector<std::string>* names) {
  // A path that is not UTF-8 is not a path of this system (no platform string).
  if (names == nullptr || !StringUtil::IsValidUTF8(dir)) return false;
  // No name holds a NUL byte, so a key with one matches nothing (and must
  // not reach strstr, which would see only the part before it).
  for (const std::string& part : substrings) {
    if (part.find('\0') != std::string::npos) return !names->empty();
  }
  // Each name is tested on the directory's own bytes as it is read; only a
  // match is copied, so an unrelated entry costs no allocation.
  const std::size_t before = names->size();
  const bool listed = platform::ForEachName(dir, [&](const char* name) {
    if (ContainsAll(name, substrings)) names->emplace_back(name);
  });
  if (!listed) names->resize(before);  // a listing that failed part-way adds nothing
  // Never cleared here: a list that was non-empty on entry answers true.
  return !names->empty();
}

bool ListFiles(const std::string& dir, std::vector<std::string>* paths, bool recursive) {
  if (paths == nullptr || !IsDirectory(dir)) return false;
  std::vector<std::string> entries;
  if (!ListEntries(dir, recursive, &entries)) return true;
  for (const std::string& entry : entries) {
    std::string joined = JoinPath(dir, entry);
    if (!IsSkippedEntry(joined)) paths->push_back(joined);
  }
  return true;
}

bool IsSkippedEntry(const std::string& path) {
  if (path.empty() || IsDirectory(path)) return true;
  std::string last = LastPathComponent(path);
  return last.empty() || last[0] == '.';
}

// ---- Creation, removal, copying ----

bool CreateDirectories(const std::string& path) {
  // A name that is not UTF-8 cannot be converted for the platform: refused.
  if (path.empty() || !StringUtil::IsValidUTF8(path)) return false;
  std::string parent = ParentDirectory(path);
  if (parent == path) return true;

  // A plain file in the way gives place to the directory. An existing
  // directory carries on: its creation below reports "exists", a success.
  if (Exists(path) && !IsDirectory(path) && !RemoveFile(path)) return false;

  // The recursion ends at the first ancestor that exists; an empty parent
  // ("/" itself, or a relative single component) fails.
  if (!Exists(parent) && !CreateDirectories(parent)) return false;

  std::string name = LastPathComponent(path);
  FSRef parent_ref;
  if (name.empty() || !MakeFSRef(parent, &parent_ref)) return false;
  return platform::MakeDirectoryLikeParent(parent_ref, name) !=
         platform::MakeDirectoryResult::kFailed;
}

// "Missing" is decided as Exists decides it, through a symbolic link: a
// dangling link counts as nothing there and is left in place.
bool RemoveFile(const std::string& path) {
  if (!Exists(path)) return true;
  return platform::RemoveItem(path);
}

bool Remove(const std::string& path) {
  if (!Exists(path)) return true;
  if (IsDirectory(path)) return RemoveDirectory(path, true);
  return RemoveFile(path);
}

bool DeleteNamedFiles(const std::string& dir, const std::vector<std::string>& names) {
  if (dir.empty()) return false;
  for (const std::string& name : names) {
    RemoveFile(dir + name);  // a failure does not stop the others
  }
  return true;
}

void DeleteMatching(const std::string& dir, const std::string& pattern, bool recursive) {
  if (dir.empty()) return;
  std::vector<std::string> entries;
  if (!ListEntries(dir, recursive, &entries)) return;

  bool wildcard = pattern.find_first_of("*?") != std::string::npos;
  // Compiled once: the expression is the same for every entry.
  std::unique_ptr<ExtendedRegex> regex;
  if (wildcard) {
    regex = std::make_unique<ExtendedRegex>(WildcardToExtendedRegex(pattern));
    if (!regex->IsValid()) return;
  }

  for (const std::string& entry : entries) {
    std::string joined = JoinPath(dir, entry);
    if (IsSkippedEntry(joined)) continue;
    // Without wildcards the sense is inverted: names that begin with the
    // pattern are kept, all others go. With wildcards, a match anywhere goes.
    bool remove = wildcard ? regex->Matches(entry) : entry.find(pattern) != 0;
    if (remove) RemoveFile(joined);
  }
}

void DeleteContaining(const std::string& dir, const std::string& substring) {
  if (dir.empty()) return;
  std::vector<std::string> entries;
  if (!platform::ListNames(dir, &entries)) return;
  for (const std::string& name : entries) {
    std::string joined = JoinPath(dir, name);
    if (IsSkippedEntry(joined)) continue;
    if (name.find(substring) != std::string::npos) RemoveFile(joined);
  }
}

bool Copy(const std::string& source, const std::string& destination) {
  return ClearDestinationFor(source, destination) && platform::CopyItem(source, destination);
}

bool Move(const std::string& source, const std::string& destination) {
  return ClearDestinationFor(source, destination) && platform::MoveItem(source, destination);
}

int WriteStringToFile(const std::string& text, const std::string& path) {
  // A planted link, a FIFO or a device is refused rather than written to.
  const std::unique_ptr<std::ostream> out = FileIO::OpenOutputStream(path, false);
  if (!out) return -1;
  out->write(text.data(), static_cast<std::streamsize>(text.size()));
  out->flush();
  return out->good() ? 0 : -1;  // a failed write is not reported as written
}

}  // namespace FileUtil
