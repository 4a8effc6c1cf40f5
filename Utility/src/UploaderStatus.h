// The uploader's status policy: the server can keep the uploader working
// ("Active"), stop it for good ("Kill") or pause it until a date
// ("Hibernate"), and can pause single items. These instructions live in the
// uploader's configuration file as "ulog"/"status", "ulog"/"wakeupdate" and
// the entries of section "hibernate"; this file reads them, ends expired
// pauses and merges settings texts received from the server.
//
// Wake dates are year-month-day texts ("2014-03-31", "2014/3/31",
// "2014.Mar.31", "2014 March 31"). A pause holds while the wake date lies
// after today's local date and ends at the local midnight that starts it.
// Unreadable or impossible dates count as "not paused".
//
// Nothing here throws or reports errors; results are small status codes.
#ifndef LUMETRY_UTILITY_UPLOADERSTATUS_H_
#define LUMETRY_UTILITY_UPLOADERSTATUS_H_

#include <cstdint>
#include <string>

class SettingsFile;

namespace boost {
namespace gregorian {
class date;
}  // namespace gregorian
}  // namespace boost

// The uploader's state as kept in the file: "Active", "Kill", "Hibernate".
enum class UploaderStatus : std::int32_t {
  Active = 0,
  Kill = 1,
  Hibernate = 2,
};

namespace Uploader {

// Results of WakeDateState.
constexpr int kNotPaused = 0;
constexpr int kPaused = 2;

// "" and "Active" -> Active, "Kill" -> Kill, "Hibernate" -> Hibernate, any
// other text -> Active. Case-sensitive ("kill" is Active).
UploaderStatus StatusFromString(const std::string& text);

// Hibernate -> "Hibernate", Kill -> "Kill", every other code -> "Active".
std::string StatusToString(UploaderStatus status);

// kPaused when `date_text` is a valid year-month-day date after today's local
// date, else kNotPaused (also when today's local date cannot be had). A year,
// day or numeric month token of more than five characters (leading zeros
// included), or a month name of more than nine, is no date.
int WakeDateState(const std::string& date_text);
// The same rule against a given `today` (kNotPaused if `today` is not a date).
int WakeDateState(const std::string& date_text, const boost::gregorian::date& today);

// Reads section/"status" of `settings`. A Hibernate whose section/"wakeupdate"
// is not in the future becomes Active and loses its "wakeupdate"; an Active
// result (also for an absent or unknown text) is written back as "Active".
// Kill is reported as it stands. Changes `settings` in memory only.
// 1 if `status` is null (nothing changed), else 0 with `*status` set.
int ReadUploaderStatus(SettingsFile& settings, const std::string& section, UploaderStatus* status);

// Looks up the item key first + "_" + second in `section` (callers pass
// "hibernate"); the value is "<text>|<wake date>". An absent or empty entry
// leaves `*status` untouched. A future wake date sets Hibernate; an entry
// without "|" or with an expired or unreadable date is removed and sets
// Active. Changes `settings` in memory only. Always 0.
int CheckItemHibernation(const std::string& first, const std::string& second,
                         SettingsFile& settings, const std::string& section,
                         UploaderStatus* status);

// Loads the file at `path` (a missing file counts as empty), evaluates the
// uploader status of `section` and, only when Active, the item pause of
// first/second; then saves the file back so expired pauses are removed and a
// missing status is written. 1 if `status` is null or `path` is empty
// (nothing touched), else 0.
int EvaluateUploaderStatus(const std::string& first, const std::string& second,
                           const std::string& path, const std::string& section,
                           UploaderStatus* status);

// Applies a received settings text to `target`: a section of the text that
// holds "operation=Merge" changes only the keys it names (an empty value
// deletes that key); any other section replaces the target's section of the
// same name wholesale; the empty section and "[*]" replace everything.
// `target` is not saved. Always 0.
int MergeSettings(SettingsFile& target, const std::string& text);

// The name of the status of section "ulog" (ReadUploaderStatus with Active
// preset), e.g. "Hibernate". May rewrite "ulog" entries in memory.
std::string GetUploaderStatusName(SettingsFile& settings);

}  // namespace Uploader

#endif  // LUMETRY_UTILITY_UPLOADERSTATUS_H_
