// Store calls no tool reaches, racing and dying writers, plist guards, privacy preferences.
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "PlistTrailer.h"
#include "Posix/PlistGuards.h"
#include "Posix/ScopedPlist.h"
#include "Preferences.h"
#include "PrivacyPrefs.h"
#include "TestSupport.h"

namespace {

using Names = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

constexpr PrefUser kMe = PrefUser::kCurrentUser;
constexpr PrefHost kAny = PrefHost::kAnyHost;
constexpr PrefHost kHere = PrefHost::kCurrentHost;
const std::string kDomain = "com.example.preftest";
const std::string kPrivacy = "com.quorvik.lumetryqx";

class PreferencesTest : public ::testing::Test {
 protected:
  testing_support::ScopedHome home_;
  testing_support::ScopedTempDir system_;
  const testing_support::ScopedOverride system_dir_{&SetSystemPreferencesDirForTesting,
                                                    system_.path()};
  const std::string file_ = PreferenceFilePath(kDomain, kMe, kAny);
};

// Wrong kinds and bad arguments fail, keeping the caller's defaults and the file.
TEST_F(PreferencesTest, ReadersKindsAndRefusedCalls) {
  ASSERT_TRUE(SetPreferenceDictionaryString("k", "e", kDomain, "stored", kMe, kAny) &&
              SetPreferenceDictionaryNumber("k", "n", kDomain, -9, kMe, kAny) &&
              SetPreferenceString("str", kDomain, "12", kMe, kAny) &&
              SetPreferenceNumber("num", kDomain, 12, kMe, kAny));
  const std::string before = testing_support::Contents(file_);
  std::int32_t n = -99;
  std::string s = "<none>";
  Pairs pairs = {{"keep", "me"}};
  EXPECT_FALSE(GetPreferenceNumber("str", kDomain, &n, kMe, kAny) ||
               GetPreferenceString("num", kDomain, &s, kMe, kAny) ||
               GetPreferenceDictionaryPairs("str", kDomain, &pairs, kMe, kAny));
  EXPECT_EQ(std::to_string(n) + s + std::to_string(pairs.size()), "-99<none>1");
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
  const std::vector<Case> cases = {{"str", "e", kDomain, "v", kMe, kAny},
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
    s = "default";  // only a bad value to write leaves the entry readable
    EXPECT_EQ(value == bad, GetPreferenceDictionaryString(key, entry, domain, &s, user, host));
    EXPECT_EQ(value == bad ? "stored" : "default", s);
  }
  EXPECT_EQ(before, testing_support::Contents(file_));
  // Removing an entry creates the dictionary if need be, and keeps the others.
  EXPECT_TRUE(RemovePreferenceDictionaryEntry("new", "e", kDomain, kMe, kAny));
  EXPECT_EQ(0u, CopyPreferenceValue("new", kDomain, kMe, kAny).Count());
  EXPECT_TRUE(RemovePreferenceDictionaryEntry("k", "e", kDomain, kMe, kAny) &&
              GetPreferenceDictionaryPairs("k", kDomain, &pairs, kMe, kAny) && pairs.empty());
  EXPECT_TRUE(GetPreferenceDictionaryNumber("k", "n", kDomain, &n, kMe, kAny) && n == -9);
}

TEST_F(PreferencesTest, WriterKilledMidWriteLeavesAReadableFile) {
  ASSERT_TRUE(SetPreferenceString("anchor", kDomain, "here", kMe, kAny));
  for (int round = 0; round < 15; ++round) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
      for (std::int32_t i = 0;; ++i) SetPreferenceNumber("counter", kDomain, i, kMe, kAny);
    usleep(static_cast<useconds_t>(round) * 2000);  // killed at a different moment each round
    kill(pid, SIGKILL);
    int status = 0;
    EXPECT_TRUE(waitpid(pid, &status, 0) == pid && WTERMSIG(status) == SIGKILL);
    std::string s;
    EXPECT_TRUE(GetPreferenceString("anchor", kDomain, &s, kMe, kAny) && s == "here") << round;
  }
  ASSERT_TRUE(SetPreferenceNumber("counter", kDomain, -1, kMe, kAny));  // clears what they left
  EXPECT_EQ((Names{kDomain + ".plist", kDomain + ".plist.lock"}),
            testing_support::ListNames(home_.Library() + "/Preferences"));
}

// Processes released at once: one machine identifier made, no key lost.
TEST_F(PreferencesTest, ConcurrentWritersKeepEveryKeyAndOneMachineId) {
  constexpr int kProcesses = 4;
  auto id_file = [&](int i) { return home_.path() + "/id" + std::to_string(i); };
  int gate[2];
  ASSERT_EQ(0, pipe(gate));
  for (int w = 0; w < kProcesses; ++w) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      char c;
      close(gate[1]);
      if (read(gate[0], &c, 1) != 0) _exit(2);  // end of file: everyone is released at once
      if (!testing_support::WriteFile(id_file(w), GetMachineID())) testing_support::ExitChild(1);
      for (int i = w; i < 120; i += kProcesses)
        if (!SetPreferenceNumber("k" + std::to_string(i), kDomain, i, kMe, kAny))
          testing_support::ExitChild(1);
      testing_support::ExitChild(0);
    }
  }
  close(gate[0]);
  close(gate[1]);
  for (int status = 0; wait(&status) > 0;) EXPECT_EQ(0, status);
  for (std::int32_t i = 0, n = -1; i < 120; ++i)
    EXPECT_TRUE(GetPreferenceNumber("k" + std::to_string(i), kDomain, &n, kMe, kAny) && n == i);
  const std::string id = GetMachineID();
  for (int i = 0; i < kProcesses; ++i) EXPECT_EQ(testing_support::Contents(id_file(i)), id) << i;
}

TEST_F(PreferencesTest, MachineIdIsKeptAsStoredElseMadeAnew) {
  ASSERT_TRUE(SetPreferenceString("MachineID", kPrivacy, "abc0def", kMe, kHere));
  EXPECT_EQ("abc0def", GetMachineID());
  // A value of another kind is no identifier: a new one replaces it.
  ASSERT_TRUE(SetPreferenceNumber("MachineID", kPrivacy, 5, kMe, kHere));
  const std::string fresh = GetMachineID();
  uuid_t parsed;  // 36 characters, random (version 4), upper case
  EXPECT_TRUE(uuid_parse(fresh.c_str(), parsed) == 0 && uuid_type(parsed) == UUID_TYPE_DCE_RANDOM &&
              fresh.find_first_of("abcdef") == std::string::npos);
}

TEST_F(PreferencesTest, FlagsAndTheirDefaults) {
  EXPECT_EQ("", GetUserType());
  ASSERT_TRUE(SetPreferenceString("UserType", kPrivacy, "Student", kMe, kHere));
  EXPECT_EQ("Student", GetUserType());
  // Absent, a non-zero number or a string (no number at all) means on.
  for (const auto& [key, flag] : std::vector<std::pair<std::string, bool (*)()>>{
           {"obfuscate", &IsObfuscationOn}, {"send", &IsSendAllowed}}) {
    std::string seen = flag() ? "1" : "0";
    for (const std::int32_t n : {0, -3}) {
      ASSERT_TRUE(SetPreferenceNumber(key, kPrivacy, n, kMe, kHere));
      seen += flag() ? "1" : "0";
    }
    ASSERT_TRUE(SetPreferenceString(key, kPrivacy, "0", kMe, kHere));
    EXPECT_EQ("1011", seen + (flag() ? "1" : "0")) << key;
  }

  // The opt-in lives in the dictionary named by the signed-in person.
  ASSERT_TRUE(WriteTelemetryNumber("P-1", "optin", 0));
  EXPECT_EQ(1, GetOptIn());
  ASSERT_TRUE(SetPreferenceString("PersonGUID", kPrivacy, "P-1", kMe, kHere));
  EXPECT_EQ(0, GetOptIn());

  // Collection is switched off machine-wide only, by "Enabled" 0.
  for (const auto& [user, enabled, disabled] : std::vector<std::tuple<PrefUser, int, bool>>{
           {kMe, 0, false}, {PrefUser::kAnyUser, 0, true}, {PrefUser::kAnyUser, 2, false}}) {
    ASSERT_TRUE(SetPreferenceNumber("Enabled", "com.quorvik.lumetry.apipqx", enabled, user, kHere));
    EXPECT_EQ(disabled, IsCollectionDisabled()) << enabled;
  }
}

TEST_F(PreferencesTest, PIINoticeFile) {
  const std::string path =
      home_.Library() + "/Application Support/Quorvik/PII/com.quorvik.pii.prefs";
  EXPECT_TRUE(GetPIIPrefsPath() == path && !IsPIINoticeShown());  // no file
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

// One trailer field spoiled at a time, with values that overflow naive arithmetic.
TEST(PlistTrailerTest, EveryFieldIsCheckedAgainstTheFile) {
  const auto make = [](unsigned offset_size, unsigned ref_size, std::uint64_t count,
                       std::uint64_t top, std::uint64_t table, unsigned char entry) {
    // An empty dictionary at 8, the offset table at 9, then the trailer.
    std::string bytes = "bplist00\xD0" + std::string(1, static_cast<char>(entry)) +
                        std::string(6, '\0') + static_cast<char>(offset_size) +
                        static_cast<char>(ref_size);
    for (std::uint64_t value : {count, top, table})
      for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
    return bytes;
  };
  const std::uint64_t kMax = ~std::uint64_t{0};
  PlistTrailer::Fields fields;
  const std::string sound = make(1, 1, 1, 0, 9, 8);
  EXPECT_TRUE(PlistTrailer::IsSound(sound.data(), sound.size(), &fields));
  for (const std::string& b :
       {make(0, 1, 1, 0, 9, 8), make(9, 1, 1, 0, 9, 8), make(1, 0, 1, 0, 9, 8),
        make(1, 9, 1, 0, 9, 8), make(1, 1, 0, 0, 9, 8), make(1, 1, 1, 1, 9, 8),
        make(1, 1, kMax, 0, 9, 8), make(8, 8, kMax / 4, 0, 9, 8), make(1, 1, 1, 0, kMax - 7, 8),
        make(1, 1, 1, 0, 3, 8), make(1, 1, 1, 0, 10, 8), make(1, 1, 1, 0, 9, 9),
        make(1, 1, 1, 0, 9, 2), make(1, 1, 1, 0, 9, 8).substr(0, 39),
        "bplist01" + make(1, 1, 1, 0, 9, 8).substr(8)})
    EXPECT_FALSE(PlistTrailer::IsSound(b.data(), b.size(), &fields)) << b.size();
}

// Nesting, loops and counts past the objects are refused before the library recurses.
TEST(PlistTrailerTest, NestingLoopsAndCountsAreBounded) {
  const std::uint32_t limit = PlistTrailer::kMaxDepth;
  using testing_support::NestedBinaryArrays;
  std::string overrun = NestedBinaryArrays(2);
  overrun[8] = '\xA5';  // five references where the object area holds one
  const std::pair<std::string, bool> cases[] = {{NestedBinaryArrays(1), true},
                                                {NestedBinaryArrays(limit), true},
                                                {NestedBinaryArrays(limit + 1), false},
                                                {NestedBinaryArrays(3, true), false},
                                                {overrun, false}};
  for (const auto& [bytes, sound] : cases)
    EXPECT_EQ(sound, PlistTrailer::IsWithinBounds(bytes.data(), bytes.size())) << bytes.size();
}

// Bytes that would not read back as the tree (text not UTF-8) are refused until repaired.
TEST(PlistGuardTest, OnlyBytesThatReadBackTheSameAreWritten) {
  const ScopedPlist owner = AdoptPlist(plist_new_dict());
  const auto tree = static_cast<plist_t>(owner.get());
  plist_dict_set_item(tree, "MachineID", plist_new_string("ID-1"));
  plist_dict_set_item(tree, "city", plist_new_string("\xE9t\xE9"));
  std::string bytes = "untouched";
  EXPECT_FALSE(plist_guard::SerialiseVerified(tree, &bytes) || bytes != "untouched");
  plist_guard::RepairStrings(tree);
  EXPECT_TRUE(plist_guard::SerialiseVerified(tree, &bytes) && bytes != "untouched");
  EXPECT_FALSE(plist_guard::SameTree(plist_dict_get_item(tree, "city"),
                                     plist_dict_get_item(tree, "MachineID")));
}

}  // namespace
