// Preference files written by other programs (XML or binary): every read of
// the store, then one write. Invariants: every string the store hands out is
// valid UTF-8; after the write, every key of the domain as read before is
// still there with the same kind (and the same text, for strings), the new
// key reads back, and the file reads as the same dictionary plus that key.
// The same bytes as the privacy XML file give a deterministic answer.
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

void ReadEverything() {
  std::vector<std::string> keys;
  FUZZ_CHECK(GetDictionaryKeys("any", kDomain, &keys, kUser, kHost));
  for (const std::string& key :
       PreferenceStore::ReadDomain(PreferenceFilePath(kDomain, kUser, kHost)).Keys()) {
    FUZZ_CHECK(StringUtil::IsValidUTF8(key));
    std::string text;
    std::int32_t number = 0;
    if (GetPreferenceString(key, kDomain, &text, kUser, kHost))
      FUZZ_CHECK(StringUtil::IsValidUTF8(text));
    GetPreferenceNumber(key, kDomain, &number, kUser, kHost);
    std::vector<std::pair<std::string, std::string>> pairs;
    if (GetPreferenceDictionaryPairs(key, kDomain, &pairs, kUser, kHost)) {
      for (const auto& pair : pairs) {
        FUZZ_CHECK(StringUtil::IsValidUTF8(pair.first) && StringUtil::IsValidUTF8(pair.second));
        GetPreferenceDictionaryString(key, pair.first, kDomain, &text, kUser, kHost);
        GetPreferenceDictionaryNumber(key, pair.first, kDomain, &number, kUser, kHost);
      }
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
  FUZZ_CHECK(!path.empty());
  FUZZ_CHECK(fuzz_support::WriteBytes(path, text));

  ReadEverything();
  const PrefValue before = PreferenceStore::ReadDomain(path);
  FUZZ_CHECK(before.Kind() == kPrefDictionary);
  std::string raw_before;
  FUZZ_CHECK(fuzz_support::ReadBytes(path, &raw_before));

  const std::string key = "fuzz-written";
  const bool written = SetPreferenceNumber(key, kDomain, 7, kUser, kHost);
  const PrefValue after = PreferenceStore::ReadDomain(path);
  if (!written) {
    // A refused write leaves the file exactly as it was.
    std::string raw_after;
    FUZZ_CHECK(fuzz_support::ReadBytes(path, &raw_after) && raw_after == raw_before);
    return 0;
  }
  std::int32_t number = 0;
  FUZZ_CHECK(GetPreferenceNumber(key, kDomain, &number, kUser, kHost) && number == 7);
  for (const std::string& old_key : before.Keys()) {
    if (old_key == key) continue;
    const PrefValue old_value = before.Item(old_key);
    const PrefValue new_value = after.Item(old_key);
    FUZZ_CHECK(new_value.Kind() == old_value.Kind());
    std::string old_text;
    std::string new_text;
    if (old_value.GetString(&old_text))
      FUZZ_CHECK(new_value.GetString(&new_text) && new_text == old_text);
    FUZZ_CHECK(new_value.Count() == old_value.Count());
  }
  ReadEverything();
  return 0;
}
