// The text of a usage document (root UsageDoc, version "0.5.5"): fragments
// written one after another, each ending in a line feed, with the record
// counters and UTC time stamps. This is the only place that knows the text.
// A piece of the usage-log writer: out of memory, a builder throws
// std::bad_alloc to the writer's guarded entry points (MiniSession), which
// drop what cannot be built.
#ifndef LUMETRY_UTILITY_USAGEDOC_H_
#define LUMETRY_UTILITY_USAGEDOC_H_

#include <cstdint>
#include <ctime>
#include <string>

namespace UsageDoc {

constexpr const char* kVersion = "0.5.5";

// Escapes an attribute value (& < > " ' \ as numeric references, "&" first);
// invalid UTF-8 counts as empty, and an empty result becomes "NOVALUE".
std::string EscapeAttributeValue(const std::string& value);

// `when` in UTC as "%Y-%m-%dT%H:%M:%SZ"; "" if it cannot be broken down.
std::string FormatTime(std::time_t when);
// FormatTime of the current calendar time, read afresh.
std::string CurrentTime();

// The fragments. `id` is written as it stands; the texts passed as category,
// subcategory, name, doc and data are escaped here.
std::string StartFragment(const std::string& id, const std::string& time, std::int32_t seq);
std::string NewGroupFragment(const std::string& category, const std::string& subcategory,
                             const std::string& name, const std::string& time, std::int32_t group,
                             const std::string& doc, std::int32_t seq);
std::string DataRecFragment(const std::string& time, std::int32_t group, const std::string& name,
                            const std::string& data, std::int32_t seq);
std::string EndFragment(const std::string& id, const std::string& time, std::int32_t seq);

// The two counters of one document, both starting at -1. NextSeq is called
// once before every element, NextGroup once per NewGroup.
class Counters {
 public:
  std::int32_t NextSeq() { return ++seq_; }
  std::int32_t NextGroup() { return ++group_; }
  std::int32_t seq() const { return seq_; }
  std::int32_t group() const { return group_; }

 private:
  std::int32_t seq_ = -1;
  std::int32_t group_ = -1;
};

}  // namespace UsageDoc

#endif  // LUMETRY_UTILITY_USAGEDOC_H_
