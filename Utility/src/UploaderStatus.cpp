// The uploader's status policy; see UploaderStatus.h.
#include "UploaderStatus.h"

#include <boost/date_time/gregorian/gregorian.hpp>

#include "Guarded.h"
#include "SettingsFile.h"

namespace Uploader {
namespace {

const char kStatusKey[] = "status";
const char kWakeDateKey[] = "wakeupdate";
const char kOperationKey[] = "operation";
const char kMergeOperation[] = "Merge";

// The characters that cut a date into its year, month and day tokens.
const char kDateSeparators[] = ",-. /";
// Year and day fit an unsigned 16-bit number: five characters at most. A
// longer token drives the library's number conversion into signed overflow,
// so it is refused before the library sees it. A month name is at most
// nine letters ("September").
constexpr std::size_t kMaxNumberToken = 5;
constexpr std::size_t kMaxMonthNameToken = 9;

// True when the first three tokens of `text` are short enough for the date
// library. Later tokens are ignored by the date rules and are not looked at.
bool DateTokensBounded(const std::string& text) {
  std::string::size_type pos = 0;
  for (int index = 0; index < 3; ++index) {
    pos = text.find_first_not_of(kDateSeparators, pos);
    if (pos == std::string::npos) return true;
    const std::string::size_type end = text.find_first_of(kDateSeparators, pos);
    const std::size_t length = (end == std::string::npos ? text.size() : end) - pos;
    const bool month_name = index == 1 && (text[pos] < '0' || text[pos] > '9');
    if (length > (month_name ? kMaxMonthNameToken : kMaxNumberToken)) return false;
    if (end == std::string::npos) return true;
    pos = end;
  }
  return true;
}

}  // namespace

UploaderStatus StatusFromString(const std::string& text) {
  if (text == "Kill") return UploaderStatus::Kill;
  if (text == "Hibernate") return UploaderStatus::Hibernate;
  return UploaderStatus::Active;
}

std::string StatusToString(UploaderStatus status) {
  switch (status) {
    case UploaderStatus::Hibernate:
      return "Hibernate";
    case UploaderStatus::Kill:
      return "Kill";
    default:
      return "Active";
  }
}

int WakeDateState(const std::string& date_text, const boost::gregorian::date& today) {
  if (date_text.empty() || today.is_special() || !DateTokensBounded(date_text)) return kNotPaused;
  // Year and month ranges, impossible days and non-numeric tokens all throw
  // (out_of_range, bad_lexical_cast, ...): every one means "no date".
  return Guarded(kNotPaused, [&] {
    const boost::gregorian::date wake = boost::gregorian::from_simple_string(date_text);
    return (wake - today).days() > 0 ? kPaused : kNotPaused;
  });
}

int WakeDateState(const std::string& date_text) {
  // local_day throws when the clock cannot be converted to local time.
  return Guarded(kNotPaused, [&] {
    return WakeDateState(date_text, boost::gregorian::day_clock::local_day());
  });
}

int ReadUploaderStatus(SettingsFile& settings, const std::string& section, UploaderStatus* status) {
  if (status == nullptr) return 1;
  UploaderStatus result = StatusFromString(settings.GetValue(section, kStatusKey));
  if (result == UploaderStatus::Hibernate &&
      WakeDateState(settings.GetValue(section, kWakeDateKey)) != kPaused) {
    // A pause without a future wake date ends now.
    result = UploaderStatus::Active;
    settings.SetValue(section, kWakeDateKey, "");
  }
  if (result == UploaderStatus::Active) settings.SetValue(section, kStatusKey, "Active");
  *status = result;
  return 0;
}

int CheckItemHibernation(const std::string& first, const std::string& second,
                         SettingsFile& settings, const std::string& section,
                         UploaderStatus* status) {
  const std::string key = first + "_" + second;
  const std::string value = settings.GetValue(section, key);
  if (value.empty()) return 0;
  const std::string::size_type bar = value.find('|');
  if (bar != std::string::npos && WakeDateState(value.substr(bar + 1)) == kPaused) {
    if (status != nullptr) *status = UploaderStatus::Hibernate;
    return 0;
  }
  settings.SetValue(section, key, "");
  if (status != nullptr) *status = UploaderStatus::Active;
  return 0;
}

int EvaluateUploaderStatus(const std::string& first, const std::string& second,
                           const std::string& path, const std::string& section,
                           UploaderStatus* status) {
  if (status == nullptr || path.empty()) return 1;
  SettingsFile settings;
  settings.Load(path);  // a missing file is an empty configuration
  ReadUploaderStatus(settings, section, status);
  // A whole-uploader Kill or Hibernate outranks any item pause.
  if (*status == UploaderStatus::Active) {
    CheckItemHibernation(first, second, settings, "hibernate", status);
  }
  settings.Save(path);
  return 0;
}

int MergeSettings(SettingsFile& target, const std::string& text) {
  SettingsFile parsed;
  parsed.LoadText(text);
  SettingsFile staged;
  for (const auto& entry : parsed.entries()) {
    const std::string section = entry.first.substr(0, entry.first.find('/'));
    if (parsed.GetValue(section, kOperationKey) == kMergeOperation) {
      target.SetValueAt(entry.first, entry.second);
    } else {
      target.RemoveSection(section);
      staged.SetValueAt(entry.first, entry.second);
    }
  }
  for (const auto& entry : staged.entries()) target.SetValueAt(entry.first, entry.second);
  return 0;
}

std::string GetUploaderStatusName(SettingsFile& settings) {
  UploaderStatus status = UploaderStatus::Active;
  ReadUploaderStatus(settings, "ulog", &status);
  return StatusToString(status);
}

}  // namespace Uploader
