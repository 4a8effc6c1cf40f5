// MergeSettings: the input is a configuration text and a received text,
// separated by the first NUL byte. Checked against the merge rule: a section
// marked "operation=Merge" changes only the keys it names (an empty value
// deletes), any other section of the text replaces the target's section, and
// sections the text does not name stay as they were. Texts with entries in
// the empty or "*" section empty the whole target first and are checked for
// that alone.
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>

#include "FuzzSupport.h"
#include "SettingsFile.h"
#include "StringUtil.h"
#include "UploaderStatus.h"

namespace {

std::string SectionOf(const std::string& path) { return path.substr(0, path.find('/')); }

std::map<std::string, std::string> SectionEntries(const SettingsFile::Entries& entries,
                                                  const std::string& section) {
  std::map<std::string, std::string> result;
  for (const auto& entry : entries) {
    if (SectionOf(entry.first) == section) result.insert(entry);
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string configuration;
  std::string received;
  fuzz_support::SplitOnce(fuzz_support::Bytes(data, size), '\0', &configuration, &received);

  SettingsFile target;
  target.LoadText(configuration);
  const SettingsFile::Entries before = target.entries();
  SettingsFile text;
  text.LoadText(received);

  FUZZ_CHECK(Uploader::MergeSettings(target, received) == 0);
  const SettingsFile::Entries& after = target.entries();

  std::set<std::string> named;
  bool clears_all = false;
  for (const auto& entry : text.entries()) {
    const std::string section = SectionOf(entry.first);
    named.insert(section);
    if ((section.empty() || section == "*") && text.GetValue(section, "operation") != "Merge") {
      clears_all = true;
    }
  }
  const auto blank = [](const std::string& value) {
    return StringUtil::Trim(value, StringUtil::kWhitespace).empty();
  };

  if (clears_all) {
    // Only staged entries of replaced sections can remain.
    for (const auto& entry : after) {
      const std::string section = SectionOf(entry.first);
      FUZZ_CHECK(named.count(section) == 1);
    }
    return 0;
  }
  for (const auto& entry : before) {
    if (named.count(SectionOf(entry.first)) == 0) {
      FUZZ_CHECK(after.count(entry.first) == 1 && after.at(entry.first) == entry.second);
    }
  }
  for (const std::string& section : named) {
    const auto sent = SectionEntries(text.entries(), section);
    const auto now = SectionEntries(after, section);
    if (text.GetValue(section, "operation") == "Merge") {
      for (const auto& entry : sent) {
        const auto found = now.find(entry.first);
        if (blank(entry.second)) {
          FUZZ_CHECK(found == now.end());
        } else {
          FUZZ_CHECK(found != now.end() && found->second == entry.second);
        }
      }
      for (const auto& entry : SectionEntries(before, section)) {
        if (sent.count(entry.first) == 0) FUZZ_CHECK(now.count(entry.first) == 1);
      }
    } else {
      std::map<std::string, std::string> expected;
      for (const auto& entry : sent) {
        if (!blank(entry.second)) expected.insert(entry);
      }
      FUZZ_CHECK(now == expected);
    }
  }
  for (const auto& entry : after) {
    const std::string section = SectionOf(entry.first);
    if (named.count(section) == 0) FUZZ_CHECK(before.count(entry.first) == 1);
  }
  return 0;
}
