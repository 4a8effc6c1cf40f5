// Privacy preferences: the machine identifier, the flags, the PII notice file.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <string>
#include <tuple>
#include <vector>

#include "Preferences.h"
#include "PrivacyPrefs.h"
#include "TestSupport.h"

namespace {

const std::string kDomain = "com.quorvik.lumetryqx";
constexpr PrefUser kMe = PrefUser::kCurrentUser;
constexpr PrefHost kHere = PrefHost::kCurrentHost;

class PrivacyPrefsTest : public ::testing::Test {
 protected:
  testing_support::ScopedHome home_;
  testing_support::ScopedTempDir system_;
  const testing_support::ScopedOverride system_dir_{&SetSystemPreferencesDirForTesting,
                                                    system_.path()};
};

TEST_F(PrivacyPrefsTest, MachineIdIsMadeOnceAndKeptAsStored) {
  constexpr int kProcesses = 6;
  auto id_file = [&](int i) { return home_.path() + "/id" + std::to_string(i); };
  int gate[2];
  ASSERT_EQ(0, pipe(gate));
  for (int i = 0; i < kProcesses; ++i) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      char c;
      close(gate[1]);
      if (read(gate[0], &c, 1) != 0) _exit(2);  // end of file: everyone is released at once
      _exit(testing_support::WriteFile(id_file(i), GetMachineID()) ? 0 : 1);
    }
  }
  close(gate[0]);
  close(gate[1]);
  for (int status = 0; wait(&status) > 0;) EXPECT_EQ(0, status);
  const std::string id = GetMachineID();
  for (int i = 0; i < kProcesses; ++i) EXPECT_EQ(testing_support::Contents(id_file(i)), id) << i;
  ASSERT_TRUE(SetPreferenceString("MachineID", kDomain, "abc0def", kMe, kHere));
  EXPECT_EQ("abc0def", GetMachineID());
  // A value of another kind is no identifier: a new one replaces it.
  ASSERT_TRUE(SetPreferenceNumber("MachineID", kDomain, 5, kMe, kHere));
  const std::string fresh = GetMachineID();
  uuid_t parsed;  // 36 characters, random (version 4), upper case
  EXPECT_TRUE(uuid_parse(fresh.c_str(), parsed) == 0 && uuid_type(parsed) == UUID_TYPE_DCE_RANDOM &&
              fresh.find_first_of("abcdef") == std::string::npos);
}

TEST_F(PrivacyPrefsTest, FlagsAndTheirDefaults) {
  EXPECT_FALSE(IsCollectionDisabled());
  EXPECT_EQ("", GetUserType());
  ASSERT_TRUE(SetPreferenceString("UserType", kDomain, "Student", kMe, kHere));
  EXPECT_EQ("Student", GetUserType());
  // Absent, a non-zero number or a string (no number at all) means on.
  for (const auto& [key, flag] : std::vector<std::pair<std::string, bool (*)()>>{
           {"obfuscate", &IsObfuscationOn}, {"send", &IsSendAllowed}}) {
    std::string seen = flag() ? "1" : "0";
    for (const std::int32_t n : {0, -3}) {
      ASSERT_TRUE(SetPreferenceNumber(key, kDomain, n, kMe, kHere));
      seen += flag() ? "1" : "0";
    }
    ASSERT_TRUE(SetPreferenceString(key, kDomain, "0", kMe, kHere));
    EXPECT_EQ("1011", seen + (flag() ? "1" : "0")) << key;
  }

  // The opt-in lives in the dictionary named by the signed-in person.
  ASSERT_TRUE(WriteTelemetryNumber("P-1", "optin", 0));
  EXPECT_EQ(1, GetOptIn());
  ASSERT_TRUE(SetPreferenceString("PersonGUID", kDomain, "P-1", kMe, kHere));
  EXPECT_EQ(0, GetOptIn());

  // Collection is switched off machine-wide only, by "Enabled" 0.
  for (const auto& [user, enabled, disabled] : std::vector<std::tuple<PrefUser, int, bool>>{
           {kMe, 0, false}, {PrefUser::kAnyUser, 0, true}, {PrefUser::kAnyUser, 2, false}}) {
    ASSERT_TRUE(SetPreferenceNumber("Enabled", "com.quorvik.lumetry.apipqx", enabled, user, kHere));
    EXPECT_EQ(disabled, IsCollectionDisabled()) << enabled;
  }
}

TEST_F(PrivacyPrefsTest, PIINoticeFile) {
  const std::string path = GetPIIPrefsPath();
  EXPECT_EQ(home_.Library() + "/Application Support/Quorvik/PII/com.quorvik.pii.prefs", path);
  EXPECT_FALSE(IsPIINoticeShown());  // no file
  const std::vector<std::pair<std::string, bool>> cases = {
      {"<PIINOTICESHOWN>YES</PIINOTICESHOWN></prefs>", true},
      {"<PIINOTICESHOWN>yes </PIINOTICESHOWN></prefs>", false},
      {"<PIINOTICESHOWN>Y\nES</PIINOTICESHOWN>\n</prefs>", true},       // lines joined
      {"<PIINOTICESHOWN>yes</PIINOTICESHOWN><broken", true},            // kept before the error
      {"<pref name=\"piiNoticeShown\">yes</pref></prefs>", true},       // attribute matches
      {"<PIINOTICESHOWN>y<b>no</b>es</PIINOTICESHOWN></prefs>", true},  // child not collected
      {"<PIINOTICESHOWN>yes</PIINOTICESHOWN><PIINOTICESHOWN>yes</PIINOTICESHOWN></prefs>", false},
  };
  for (const auto& [body, shown] : cases) {
    ASSERT_TRUE(testing_support::WriteFile(path, "<?xml version=\"1.0\"?>\n<prefs>\n" + body));
    EXPECT_EQ(shown, IsPIINoticeShown()) << body;
  }
}

}  // namespace
