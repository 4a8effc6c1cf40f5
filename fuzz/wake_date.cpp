// Wake dates: any text answers "paused" or "not paused" without touching
// the date library's overflow, and texts of plain year, month and day
// tokens agree with a small independent model of the date rule.
#include <boost/date_time/gregorian/gregorian.hpp>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "UploaderStatus.h"

namespace {

const char* const kMonths[] = {"jan", "feb", "mar", "apr", "may", "jun",
                               "jul", "aug", "sep", "oct", "nov", "dec"};
const char* const kLongMonths[] = {"january",   "february", "march",    "april",
                                   "may",       "june",     "july",     "august",
                                   "september", "october",  "november", "december"};

bool Digits(const std::string& token) {
  if (token.empty() || token.size() > 5) return false;
  for (char c : token) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// 1..12 for a month token the model understands, 0 for one it refuses, -1
// for one it does not know how the library treats.
int ModelMonth(const std::string& token) {
  if (Digits(token)) return std::stoi(token) >= 1 && std::stoi(token) <= 12 ? std::stoi(token) : 0;
  std::string lower;
  for (char c : token) {
    if (!std::isalpha(static_cast<unsigned char>(c))) return -1;
    lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  for (int i = 0; i < 12; ++i) {
    if (lower == kMonths[i] || lower == kLongMonths[i]) return i + 1;
  }
  return token.size() <= 9 ? 0 : -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = fuzz_support::Bytes(data, size);
  const boost::gregorian::date today(2020, 6, 15);
  const int state = Uploader::WakeDateState(text, today);
  FUZZ_CHECK(state == Uploader::kNotPaused || state == Uploader::kPaused);

  std::vector<std::string> tokens;
  std::string current;
  for (char c : text) {
    if (c == ',' || c == '-' || c == '.' || c == ' ' || c == '/') {
      if (!current.empty()) tokens.push_back(current);
      current.clear();
    } else {
      current += c;
    }
  }
  if (!current.empty()) tokens.push_back(current);
  if (tokens.size() < 3 || !Digits(tokens[0]) || !Digits(tokens[2])) return 0;
  const int month = ModelMonth(tokens[1]);
  if (month < 0) return 0;
  const int year = std::stoi(tokens[0]);
  const int day = std::stoi(tokens[2]);
  bool valid = month > 0 && year >= 1400 && year <= 9999 && day >= 1 && day <= 31;
  if (valid) {
    valid = day <= boost::gregorian::gregorian_calendar::end_of_month_day(
                       static_cast<unsigned short>(year), static_cast<unsigned short>(month));
  }
  if (!valid) {
    if (year != 10000) FUZZ_CHECK(state == Uploader::kNotPaused);
    return 0;
  }
  const bool later = year * 10000 + month * 100 + day > 20200615;
  FUZZ_CHECK(state == (later ? Uploader::kPaused : Uploader::kNotPaused));
  return 0;
}
