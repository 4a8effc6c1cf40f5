// Privacy preferences: the machine identifier (also when several processes
// ask first at once), the flags and their defaults, and the PII notice file.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <string>
#include <vector>

#include "PIIPrefParser.h"
#include "Preferences.h"
#include "PrivacyPrefs.h"
#include "TestSupport.h"

namespace {

const std::string kDomain = "com.quorvik.lumetryqx";
constexpr PrefUser kMe = PrefUser::kCurrentUser;
constexpr PrefHost kHere = PrefHost::kCurrentHost;

class PrivacyPrefsTest : public ::testing::Test {
 protected:
  PrivacyPrefsTest() { SetSystemPreferencesDirForTesting(system_.path()); }
  ~PrivacyPrefsTest() override { SetSystemPreferencesDirForTesting(""); }

  testing_support::ScopedHome home_;
  testing_support::ScopedTempDir system_;
};

TEST_F(PrivacyPrefsTest, MachineIdIsMadeOnceAndKeptAsStored) {
  const std::string id = GetMachineID();
  EXPECT_TRUE(std::regex_match(id, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"))) << id;
  EXPECT_EQ('4', id[14]);  // random (version 4)
  std::string stored;
  EXPECT_TRUE(GetPreferenceString("MachineID", kDomain, &stored, kMe, kHere));
  EXPECT_EQ(id, stored);
  EXPECT_EQ(id, GetMachineID());

  ASSERT_TRUE(SetPreferenceString("MachineID", kDomain, "abc0def", kMe, kHere));
  EXPECT_EQ("abc0def", GetMachineID());
  // A value of another kind is no identifier: a new one replaces it.
  ASSERT_TRUE(SetPreferenceNumber("MachineID", kDomain, 5, kMe, kHere));
  const std::string fresh = GetMachineID();
  EXPECT_EQ(36u, fresh.size());
  EXPECT_EQ(fresh, GetMachineID());
}

TEST_F(PrivacyPrefsTest, ConcurrentFirstCallsAgree) {
  constexpr int kProcesses = 6;
  constexpr std::size_t kIdSize = 36;
  int barrier[2], results[2];
  ASSERT_EQ(0, pipe(barrier));
  ASSERT_EQ(0, pipe(results));
  for (int i = 0; i < kProcesses; ++i) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      char c;
      close(barrier[1]);
      while (read(barrier[0], &c, 1) > 0) {
      }  // end of file: the parent has released everyone at once
      const std::string id = GetMachineID();
      _exit(id.size() == kIdSize && write(results[1], id.data(), kIdSize) == kIdSize ? 0 : 1);
    }
  }
  close(barrier[0]);
  close(barrier[1]);
  close(results[1]);
  std::set<std::string> ids;
  char id[kIdSize];
  // Each identifier arrives whole: pipe writes this small are atomic.
  for (int i = 0; i < kProcesses; ++i) {
    ASSERT_EQ(static_cast<ssize_t>(kIdSize), read(results[0], id, kIdSize));
    ids.emplace(id, kIdSize);
  }
  close(results[0]);
  while (wait(nullptr) > 0) {
  }
  EXPECT_EQ(std::set<std::string>{GetMachineID()}, ids);
}

TEST_F(PrivacyPrefsTest, FlagsFallBackToTheirDefaults) {
  EXPECT_TRUE(IsObfuscationOn());
  EXPECT_TRUE(IsSendAllowed());
  EXPECT_FALSE(IsCollectionDisabled());
  EXPECT_EQ(1, GetOptIn());
  EXPECT_EQ("", GetUserType());

  ASSERT_TRUE(SetPreferenceNumber("obfuscate", kDomain, 0, kMe, kHere));
  ASSERT_TRUE(SetPreferenceNumber("send", kDomain, -3, kMe, kHere));
  ASSERT_TRUE(SetPreferenceString("UserType", kDomain, "Student", kMe, kHere));
  EXPECT_FALSE(IsObfuscationOn());
  EXPECT_TRUE(IsSendAllowed());
  EXPECT_EQ("Student", GetUserType());
  ASSERT_TRUE(SetPreferenceString("obfuscate", kDomain, "0", kMe, kHere));
  ASSERT_TRUE(SetPreferenceNumber("send", kDomain, 0, kMe, kHere));
  EXPECT_TRUE(IsObfuscationOn());  // a string counts as absent
  EXPECT_FALSE(IsSendAllowed());

  // The opt-in lives in the dictionary named by the signed-in person.
  ASSERT_TRUE(WriteTelemetryNumber("P-1", "optin", 0));
  EXPECT_EQ(1, GetOptIn());
  ASSERT_TRUE(SetPreferenceString("PersonGUID", kDomain, "P-1", kMe, kHere));
  EXPECT_EQ(0, GetOptIn());
  std::int32_t value = 9;
  EXPECT_FALSE(ReadTelemetryNumber("P-1", "other", &value));
  EXPECT_EQ(9, value);
  EXPECT_TRUE(ReadTelemetryNumber("P-1", "optin", &value));
  EXPECT_EQ(0, value);
}

TEST_F(PrivacyPrefsTest, CollectionSwitchIsMachineWide) {
  const std::string domain = "com.quorvik.lumetry.apipqx";
  ASSERT_TRUE(SetPreferenceNumber("Enabled", domain, 0, PrefUser::kCurrentUser, kHere));
  EXPECT_FALSE(IsCollectionDisabled());  // only the any-user value counts
  ASSERT_TRUE(SetPreferenceNumber("Enabled", domain, 0, PrefUser::kAnyUser, kHere));
  EXPECT_TRUE(IsCollectionDisabled());
  EXPECT_EQ(2u, testing_support::ListNames(system_.path() + "/ByHost").size());  // file, lock
  ASSERT_TRUE(SetPreferenceNumber("Enabled", domain, 2, PrefUser::kAnyUser, kHere));
  EXPECT_FALSE(IsCollectionDisabled());
}

TEST_F(PrivacyPrefsTest, PIINoticeFile) {
  const std::string path = GetPIIPrefsPath();
  EXPECT_EQ(home_.Library() + "/Application Support/Quorvik/PII/com.quorvik.pii.prefs", path);
  EXPECT_FALSE(IsPIINoticeShown());  // no file
  const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<prefs>\n";
  struct Case {
    std::string body;
    bool shown;
  };
  const std::vector<Case> cases = {
      {"<PIINOTICESHOWN>YES</PIINOTICESHOWN></prefs>", true},
      {"<PiiNoticeShown>yEs</PiiNoticeShown></prefs>", true},
      {"<PIINOTICESHOWN>yes </PIINOTICESHOWN></prefs>", false},
      {"<PIINOTICESHOWN>no</PIINOTICESHOWN></prefs>", false},
      {"<PIINOTICESHOWN>Y\nES</PIINOTICESHOWN>\n</prefs>", true},      // lines joined
      {"<PIINOTICESHOWN>yes</PIINOTICESHOWN><broken", true},           // kept before the error
      {"<pref name=\"piiNoticeShown\">yes</pref></prefs>", true},      // attribute matches
      {"<PIINOTICESHOWN><b>yes</b></PIINOTICESHOWN></prefs>", false},  // child not collected
      {"<PIINOTICESHOWN>y</PIINOTICESHOWN><x>z</x><PIINOTICESHOWN>es</PIINOTICESHOWN></prefs>",
       true},
      {"<PIINOTICESHOWN>yes</PIINOTICESHOWN><PIINOTICESHOWN>yes</PIINOTICESHOWN></prefs>", false},
  };
  for (const Case& c : cases) {
    ASSERT_TRUE(testing_support::WriteFile(path, head + c.body));
    EXPECT_EQ(c.shown, IsPIINoticeShown()) << c.body;
  }
  std::string value = "old";
  PIINoticeAccess("<a PIINOTICESHOWN=\"1\">x<b>y</b>z</a>").GetValue(&value);
  EXPECT_EQ("xz", value);
}

}  // namespace
