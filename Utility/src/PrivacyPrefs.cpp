// Privacy preferences and machine identity, read and written through the
// preference layer; the PII notice flag comes from its XML file.
#include "PrivacyPrefs.h"

#include <algorithm>

#include "FileIO.h"
#include "FileUtil.h"
#include "Guarded.h"
#include "PIIPrefParser.h"
#include "Preferences.h"
#include "RuntimePlaces.h"
#include "StringUtil.h"
#include "Uuid.h"

namespace {

// The PII file is a few lines of XML; a larger file is not one.
constexpr std::size_t kMaxPIIPrefsBytes = std::size_t{1} << 20;

std::int32_t ReadFlag(const char* key, const char* domain, PrefUser user) {
  std::int32_t value = 1;
  GetPreferenceNumber(key, domain, &value, user, PrefHost::kCurrentHost);
  return value;
}

}  // namespace

std::string GetMachineID() {
  return Guarded(std::string(), [] {
    std::string id;
    if (GetPreferenceString(Places::kMachineIdKey, Places::kTelemetryDomain, &id,
                            PrefUser::kCurrentUser, PrefHost::kCurrentHost)) {
      return id;
    }
    // Created under the domain's lock: a concurrent first caller's identifier
    // wins and is answered here too.
    std::string fresh = Platform::NewRandomUuid();
    if (GetOrAddPreferenceString(Places::kMachineIdKey, Places::kTelemetryDomain, fresh, &id,
                                 PrefUser::kCurrentUser, PrefHost::kCurrentHost)) {
      return id;
    }
    return fresh;
  });
}

bool IsObfuscationOn() {
  return ReadFlag(Places::kObfuscateKey, Places::kTelemetryDomain, PrefUser::kCurrentUser) != 0;
}

bool IsSendAllowed() {
  return ReadFlag(Places::kSendKey, Places::kTelemetryDomain, PrefUser::kCurrentUser) != 0;
}

bool IsCollectionDisabled() {
  return ReadFlag(Places::kEnabledKey, Places::kSystemDomain, PrefUser::kAnyUser) == 0;
}

// The signed-in person is recorded by the host applications as the string
// "PersonGUID" of the domain. Nobody signed in means no person and so no
// opt-in dictionary: the opt-in keeps its default.
std::int32_t GetOptIn() {
  std::int32_t optin = 1;
  std::string person;
  if (GetPreferenceString(Places::kPersonKey, Places::kTelemetryDomain, &person,
                          PrefUser::kCurrentUser, PrefHost::kCurrentHost)) {
    GetPreferenceDictionaryNumber(person, Places::kOptInEntry, Places::kTelemetryDomain, &optin,
                                  PrefUser::kCurrentUser, PrefHost::kCurrentHost);
  }
  return optin;
}

std::string GetUserType() {
  std::string type;
  GetPreferenceString(Places::kUserTypeKey, Places::kTelemetryDomain, &type, PrefUser::kCurrentUser,
                      PrefHost::kCurrentHost);
  return type;
}

bool ReadTelemetryNumber(const std::string& dictionary, const std::string& entry,
                         std::int32_t* value) {
  return GetPreferenceDictionaryNumber(dictionary, entry, Places::kTelemetryDomain, value,
                                       PrefUser::kCurrentUser, PrefHost::kCurrentHost);
}

bool WriteTelemetryNumber(const std::string& dictionary, const std::string& entry,
                          std::int32_t value) {
  return SetPreferenceDictionaryNumber(dictionary, entry, Places::kTelemetryDomain, value,
                                       PrefUser::kCurrentUser, PrefHost::kCurrentHost);
}

std::string GetPIIPrefsPath() {
  return Guarded(std::string(), [] {
    std::string library;
    if (!FileUtil::GetUserLibraryDirectory(&library) || library.empty()) return std::string();
    return library + Places::kPIIPrefsSubpath;
  });
}

bool IsPIINoticeShown() {
  return Guarded(false, [] {
    const std::string path = GetPIIPrefsPath();
    std::string text;
    if (path.empty() ||
        FileIO::ReadFile(path, kMaxPIIPrefsBytes, &text) != FileIO::ReadStatus::kOk) {
      return false;
    }
    // Line breaks are dropped, so an element written over two lines reads as one.
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    PIINoticeAccess access(text);
    std::string value;
    access.GetValue(&value);
    return StringUtil::ToLower(value) == "yes";
  });
}
