// The preference store's calls that no tool reaches: the dictionary readers,
// the kind tests, refused calls, and writers that race or die mid-write.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "Preferences.h"
#include "TestSupport.h"

namespace {

using Names = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

constexpr PrefUser kMe = PrefUser::kCurrentUser;
constexpr PrefHost kAny = PrefHost::kAnyHost;
const std::string kDomain = "com.example.preftest";

class PreferencesTest : public ::testing::Test {
 protected:
  // The stored string / number, or a sentinel when the read fails.
  static std::string Str(const std::string& key) {
    std::string s = "<none>";
    GetPreferenceString(key, kDomain, &s, kMe, kAny);
    return s;
  }
  static std::int32_t Num(const std::string& key) {
    std::int32_t n = -99;
    GetPreferenceNumber(key, kDomain, &n, kMe, kAny);
    return n;
  }

  testing_support::ScopedHome home_;
  const std::string file_ = PreferenceFilePath(kDomain, kMe, kAny);
};

// Wrong kinds and bad arguments fail, keeping the caller's defaults and the file.
TEST_F(PreferencesTest, ReadersKindsAndRefusedCalls) {
  ASSERT_TRUE(SetPreferenceDictionaryString("k", "e", kDomain, "stored", kMe, kAny) &&
              SetPreferenceDictionaryNumber("k", "n", kDomain, -9, kMe, kAny) &&
              SetPreferenceString("str", kDomain, "12", kMe, kAny) &&
              SetPreferenceNumber("num", kDomain, 12, kMe, kAny));
  const std::string before = testing_support::Contents(file_);
  EXPECT_EQ(-99, Num("str"));
  EXPECT_EQ("<none>", Str("num"));
  Pairs pairs = {{"keep", "me"}};
  EXPECT_FALSE(GetPreferenceDictionaryPairs("str", kDomain, &pairs, kMe, kAny));
  EXPECT_EQ(1u, pairs.size());
  Names keys;
  EXPECT_TRUE(GetPreferenceDictionaryPairs("k", kDomain, &pairs, kMe, kAny) &&
              GetDictionaryKeys("any", kDomain, &keys, kMe, kAny));
  EXPECT_EQ((Pairs{{"e", "stored"}}), pairs);  // only entries whose values are strings
  EXPECT_EQ(Names{"k"}, keys);                 // only keys whose values are dictionaries
  for (const auto& [key, kind] : std::vector<std::pair<std::string, int>>{
           {"k", kPrefDictionary}, {"str", kPrefString}, {"num", kPrefNumber}, {"no", kPrefNone}}) {
    const PrefValue value = CopyPreferenceValue(key, kDomain, kMe, kAny);
    EXPECT_EQ(kind, PreferenceTypeOf(value)) << key;
    for (int code = -1; code <= 4; ++code)
      EXPECT_EQ(code == kind && kind != kPrefNone, IsPreferenceType(value, code)) << key << code;
  }
  const std::string bad = "k\xFF";
  using Case = std::tuple<std::string, std::string, std::string, std::string, PrefUser, PrefHost>;
  const std::vector<Case> cases = {{"str", "e", kDomain, "v", kMe, kAny},  // holds a string
                                   {bad, "e", kDomain, "v", kMe, kAny},
                                   {"k", bad, kDomain, "v", kMe, kAny},
                                   {"k", "e", kDomain, bad, kMe, kAny},
                                   {"", "e", kDomain, "v", kMe, kAny},
                                   {"k", "e", "../a", "v", kMe, kAny},
                                   {"k", "e", kDomain, "v", static_cast<PrefUser>(9), kAny},
                                   {"k", "e", kDomain, "v", kMe, static_cast<PrefHost>(-1)},
                                   {std::string("k\0x", 3), "e", kDomain, "v", kMe, kAny}};
  for (const auto& [key, entry, domain, value, user, host] : cases) {
    EXPECT_FALSE(
        SetPreferenceDictionaryString(key, entry, domain, value, user, host) ||
        (entry == "e" && key != "str" && SetPreferenceString(key, domain, value, user, host)))
        << key << "/" << entry << "/" << domain;
    std::string s = "default";  // only a bad value to write leaves the entry readable
    EXPECT_EQ(value == bad, GetPreferenceDictionaryString(key, entry, domain, &s, user, host));
    EXPECT_EQ(value == bad ? "stored" : "default", s);
  }
  EXPECT_EQ(before, testing_support::Contents(file_));
  // Removing an entry creates the dictionary if need be, and keeps the others.
  EXPECT_TRUE(RemovePreferenceDictionaryEntry("new", "e", kDomain, kMe, kAny));
  EXPECT_EQ(0u, CopyPreferenceValue("new", kDomain, kMe, kAny).Count());
  EXPECT_TRUE(RemovePreferenceDictionaryEntry("k", "e", kDomain, kMe, kAny) &&
              GetPreferenceDictionaryPairs("k", kDomain, &pairs, kMe, kAny) && pairs.empty());
  std::int32_t n = 0;
  EXPECT_TRUE(GetPreferenceDictionaryNumber("k", "n", kDomain, &n, kMe, kAny) && n == -9);
}

TEST_F(PreferencesTest, ConcurrentWritersKeepEveryKey) {
  for (int w = 0; w < 2; ++w) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (int i = w; i < 120; i += 2)
        if (!SetPreferenceNumber("k" + std::to_string(i), kDomain, i, kMe, kAny)) _exit(1);
      _exit(0);
    }
  }
  for (int status = 0; wait(&status) > 0;) EXPECT_EQ(0, status);
  for (int i = 0; i < 120; ++i) EXPECT_EQ(i, Num("k" + std::to_string(i)));
}

TEST_F(PreferencesTest, WriterKilledMidWriteLeavesAReadableFile) {
  ASSERT_TRUE(SetPreferenceString("anchor", kDomain, "here", kMe, kAny));
  for (int round = 0; round < 15; ++round) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (std::int32_t i = 0;; ++i) SetPreferenceNumber("counter", kDomain, i, kMe, kAny);
    }
    usleep(static_cast<useconds_t>(round) * 2000);  // killed at a different moment each round
    kill(pid, SIGKILL);
    int status = 0;
    EXPECT_TRUE(waitpid(pid, &status, 0) == pid && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ("here", Str("anchor")) << round;
  }
  ASSERT_TRUE(SetPreferenceNumber("counter", kDomain, -1, kMe, kAny));  // clears what they left
  EXPECT_EQ((Names{kDomain + ".plist", kDomain + ".plist.lock"}),
            testing_support::ListNames(home_.Library() + "/Preferences"));
}

}  // namespace
