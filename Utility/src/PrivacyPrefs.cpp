// Privacy preferences and machine identity, read and written through the
// preference layer; the PII notice flag comes from its XML file.
#include "PrivacyPrefs.h"

#include <uuid/uuid.h>

#include <fstream>

#include "FileUtil.h"
#include "PIIPrefParser.h"
#include "Preferences.h"
#include "StringUtil.h"

namespace {

constexpr const char* kDomain = "com.quorvik.lumetryqx";
constexpr const char* kSystemDomain = "com.quorvik.lumetry.apipqx";
constexpr const char* kMachineIdKey = "MachineID";
constexpr const char* kObfuscateKey = "obfuscate";
constexpr const char* kSendKey = "send";
constexpr const char* kUserTypeKey = "UserType";
constexpr const char* kEnabledKey = "Enabled";
constexpr const char* kOptInEntry = "optin";
// The signed-in person is recorded by the host applications as the string
// "PersonGUID" of the domain. Nobody signed in means no person and so no
// opt-in dictionary: the opt-in keeps its default.
constexpr const char* kPersonKey = "PersonGUID";
constexpr const char* kPIIPrefsSuffix = "/Application Support/Quorvik/PII/com.quorvik.pii.prefs";

std::int32_t ReadFlag(const char* key, const char* domain, PrefUser user) {
  std::int32_t value = 1;
  GetPreferenceNumber(key, domain, &value, user, PrefHost::kCurrentHost);
  return value;
}

std::string NewIdentifier() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37] = {};
  uuid_unparse_upper(uuid, text);
  return text;
}

}  // namespace

std::string GetMachineID() {
  try {
    std::string id;
    if (GetPreferenceString(kMachineIdKey, kDomain, &id, PrefUser::kCurrentUser,
                            PrefHost::kCurrentHost)) {
      return id;
    }
    // Created under the domain's lock: a concurrent first caller's identifier
    // wins and is answered here too.
    std::string fresh = NewIdentifier();
    if (GetOrAddPreferenceString(kMachineIdKey, kDomain, fresh, &id, PrefUser::kCurrentUser,
                                 PrefHost::kCurrentHost)) {
      return id;
    }
    return fresh;
  } catch (...) {
    return "";
  }
}

bool IsObfuscationOn() { return ReadFlag(kObfuscateKey, kDomain, PrefUser::kCurrentUser) != 0; }

bool IsSendAllowed() { return ReadFlag(kSendKey, kDomain, PrefUser::kCurrentUser) != 0; }

bool IsCollectionDisabled() {
  return ReadFlag(kEnabledKey, kSystemDomain, PrefUser::kAnyUser) == 0;
}

std::int32_t GetOptIn() {
  std::int32_t optin = 1;
  std::string person;
  if (GetPreferenceString(kPersonKey, kDomain, &person, PrefUser::kCurrentUser,
                          PrefHost::kCurrentHost)) {
    GetPreferenceDictionaryNumber(person, kOptInEntry, kDomain, &optin, PrefUser::kCurrentUser,
                                  PrefHost::kCurrentHost);
  }
  return optin;
}

std::string GetUserType() {
  std::string type;
  GetPreferenceString(kUserTypeKey, kDomain, &type, PrefUser::kCurrentUser, PrefHost::kCurrentHost);
  return type;
}

bool ReadTelemetryNumber(const std::string& dictionary, const std::string& entry,
                         std::int32_t* value) {
  return GetPreferenceDictionaryNumber(dictionary, entry, kDomain, value, PrefUser::kCurrentUser,
                                       PrefHost::kCurrentHost);
}

bool WriteTelemetryNumber(const std::string& dictionary, const std::string& entry,
                          std::int32_t value) {
  return SetPreferenceDictionaryNumber(dictionary, entry, kDomain, value, PrefUser::kCurrentUser,
                                       PrefHost::kCurrentHost);
}

std::string GetPIIPrefsPath() {
  try {
    std::string library;
    if (!FileUtil::GetUserLibraryDirectory(&library) || library.empty()) return "";
    return library + kPIIPrefsSuffix;
  } catch (...) {
    return "";
  }
}

bool IsPIINoticeShown() {
  try {
    const std::string path = GetPIIPrefsPath();
    if (path.empty()) return false;
    std::ifstream file(path);
    if (!file.is_open()) return false;
    // Line breaks are dropped, so an element written over two lines reads as one.
    std::string text;
    std::string line;
    while (std::getline(file, line)) text += line;
    PIINoticeAccess access(text);
    std::string value;
    access.GetValue(&value);
    return StringUtil::ToLower(value) == "yes";
  } catch (...) {
    return false;
  }
}
