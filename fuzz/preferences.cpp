// Preference files written by other programs (XML or binary), and the same
// bytes as the privacy XML file. Every string the store hands out is valid
// UTF-8; a write keeps every key of the domain with its kind and count and
// reads back, and a refused write leaves the file as it was; the privacy
// answer is deterministic.
#include "Preferences.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "PIIPrefParser.h"
#include "PreferenceStore.h"
#include "PrivacyPrefs.h"
#include "StringUtil.h"

namespace {

const char kDomain[] = "com.quorvik.fuzz";
constexpr PrefUser kUser = PrefUser::kCurrentUser;
constexpr PrefHost kHost = PrefHost::kCurrentHost;

void ReadEverything(const PrefValue& domain) {
  std::vector<std::string> keys;
  FUZZ_CHECK(GetDictionaryKeys("any", kDomain, &keys, kUser, kHost));
  for (const std::string& key : domain.Keys()) {
    std::string text;
    std::int32_t number = 0;
    FUZZ_CHECK(StringUtil::IsValidUTF8(key));
    if (GetPreferenceString(key, kDomain, &text, kUser, kHost))
      FUZZ_CHECK(StringUtil::IsValidUTF8(text));
    GetPreferenceNumber(key, kDomain, &number, kUser, kHost);
    std::vector<std::pair<std::string, std::string>> pairs;
    GetPreferenceDictionaryPairs(key, kDomain, &pairs, kUser, kHost);
    for (const auto& pair : pairs) {
      FUZZ_CHECK(StringUtil::IsValidUTF8(pair.first) && StringUtil::IsValidUTF8(pair.second));
      GetPreferenceDictionaryString(key, pair.first, kDomain, &text, kUser, kHost);
      GetPreferenceDictionaryNumber(key, pair.first, kDomain, &number, kUser, kHost);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_support::PrivateHome();
  const std::string text = fuzz_support::Bytes(data, size);
  std::string value;
  std::string again;
  PIINoticeAccess(text).GetValue(&value);
  PIINoticeAccess(text).GetValue(&again);
  FUZZ_CHECK(value == again);
  FUZZ_CHECK(fuzz_support::WriteBytes(GetPIIPrefsPath(), text));
  FUZZ_CHECK(IsPIINoticeShown() == IsPIINoticeShown());

  const std::string path = PreferenceFilePath(kDomain, kUser, kHost);
  FUZZ_CHECK(fuzz_support::WriteBytes(path, text));
  const PrefValue before = PreferenceStore::ReadDomain(path);
  FUZZ_CHECK(before.Kind() == kPrefDictionary);
  ReadEverything(before);
  std::int32_t number = 0;
  if (!SetPreferenceNumber("fuzz-written", kDomain, 7, kUser, kHost)) {
    std::string raw;
    FUZZ_CHECK(fuzz_support::ReadBytes(path, &raw) && raw == text);
    return 0;
  }
  FUZZ_CHECK(GetPreferenceNumber("fuzz-written", kDomain, &number, kUser, kHost) && number == 7);
  const PrefValue after = PreferenceStore::ReadDomain(path);
  for (const std::string& key : before.Keys()) {
    if (key == "fuzz-written") continue;
    FUZZ_CHECK(after.Item(key).Kind() == before.Item(key).Kind());
    FUZZ_CHECK(after.Item(key).Count() == before.Item(key).Count());
  }
  ReadEverything(after);
  return 0;
}
