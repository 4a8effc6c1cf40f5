// The preference store: value kinds, scopes and file modes, plistlib as an
// independent reader and writer, refused calls, damaged files, racing writers.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "PlatformPaths.h"
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
  static std::string Str(const std::string& key, const std::string& domain = kDomain,
                         PrefUser user = kMe, PrefHost host = kAny) {
    std::string s = "<none>";
    GetPreferenceString(key, domain, &s, user, host);
    return s;
  }
  static std::int32_t Num(const std::string& key, const std::string& domain = kDomain,
                          PrefUser user = kMe, PrefHost host = kAny) {
    std::int32_t n = -99;
    GetPreferenceNumber(key, domain, &n, user, host);
    return n;
  }

  testing_support::ScopedHome home_;
  testing_support::ScopedTempDir system_;
  const testing_support::ScopedOverride system_dir_{&SetSystemPreferencesDirForTesting,
                                                    system_.path()};
  const std::string file_ = PreferenceFilePath(kDomain, kMe, kAny);
};

TEST_F(PreferencesTest, RoundTripsInEveryScopeAndFile) {
  const std::string by_host = "ByHost/" + kDomain + "." + Platform::GetHostId() + ".plist";
  const std::vector<std::tuple<PrefUser, PrefHost, std::string>> scopes = {
      {kMe, kAny, home_.Library() + "/Preferences/" + kDomain + ".plist"},
      {kMe, PrefHost::kCurrentHost, home_.Library() + "/Preferences/" + by_host},
      {PrefUser::kAnyUser, kAny, system_.Sub(kDomain + ".plist")},
      {PrefUser::kAnyUser, PrefHost::kCurrentHost, system_.Sub(by_host)}};
  for (const auto& [user, host, file] : scopes) {
    EXPECT_EQ(file, PreferenceFilePath(kDomain, user, host));
    for (std::int32_t n : {0, -1, 42, INT32_MIN, INT32_MAX}) {
      const std::string s = n == 0 ? "" : "h\xC3\xA9llo " + std::to_string(n);
      ASSERT_TRUE(SetPreferenceNumber("n", kDomain, n, user, host) &&
                  SetPreferenceString("s", kDomain, s, user, host));
      EXPECT_EQ(n, Num("n", kDomain, user, host));
      EXPECT_EQ(s, Str("s", kDomain, user, host));
    }
    EXPECT_EQ(0600, testing_support::FileMode(file));
    EXPECT_EQ(0600, testing_support::FileMode(file + ".lock"));
    Names keys = {"stale"};  // strings and numbers only: no dictionary keys
    EXPECT_TRUE(GetDictionaryKeys("x", kDomain, &keys, user, host) && keys.empty());
  }
}

// Our binary file read by plistlib, and plistlib's XML and binary files read by us.
TEST_F(PreferencesTest, ExchangesEveryKindWithPlistlib) {
  ASSERT_TRUE(SetPreferenceString("s", kDomain, "h\xC3\xA9", kMe, kAny));
  ASSERT_TRUE(SetPreferenceNumber("min", kDomain, INT32_MIN, kMe, kAny));
  ASSERT_TRUE(SetPreferenceDictionaryNumber("d", "n", kDomain, -9, kMe, kAny));
  ASSERT_TRUE(SetPreferenceDictionaryString("d", "e", kDomain, "v", kMe, kAny));
  const char* script = R"(
import datetime, os, plistlib, pprint, sys
data = open(sys.argv[1], 'rb').read()
pprint.pprint((data[:8], plistlib.loads(data)))
d = {'1s': 'h\u00e9', '2n': -7, '2big': 2**40, '4b': True, '4r': 1.5, '4data': b'x',
     '4dt': datetime.datetime(2020, 1, 1), '3a': [1, 'x'], '0d': {'e': 'v', 'n': 3, 'x': [1]}}
for name, fmt in (('py.x', plistlib.FMT_XML), ('py.b', plistlib.FMT_BINARY)):
    open(os.path.join(os.path.dirname(sys.argv[1]), name + '.plist'), 'wb').write(plistlib.dumps(d, fmt=fmt))
)";
  auto run = testing_support::RunProgram({"/usr/bin/env", "python3", "-c", script, file_});
  ASSERT_EQ(0, run.status) << run.err;
  EXPECT_EQ("(b'bplist00', {'d': {'e': 'v', 'n': -9}, 'min': -2147483648, 's': 'h\xC3\xA9'})\n",
            run.out);

  for (const std::string domain : {"py.x", "py.b"}) {
    EXPECT_EQ("h\xC3\xA9", Str("1s", domain));
    EXPECT_EQ(-7, Num("2n", domain));
    EXPECT_EQ(-99, Num("2big", domain));  // does not fit in 32 bits
    // Each key starts with the kind code that its value must report.
    for (const std::string key :
         {"1s", "2n", "2big", "4b", "4r", "4data", "4dt", "3a", "0d", "4none"}) {
      const int kind = key[0] - '0';
      PrefValue value = CopyPreferenceValue(key, domain, kMe, kAny);
      EXPECT_EQ(kind, PreferenceTypeOf(value)) << domain << " " << key;
      for (int code = -1; code <= 4; ++code)
        EXPECT_EQ(code == kind && kind != kPrefNone, IsPreferenceType(value, code)) << key;
    }
    Pairs pairs;
    Names keys;
    EXPECT_TRUE(GetPreferenceDictionaryPairs("0d", domain, &pairs, kMe, kAny) &&
                GetDictionaryKeys("any", domain, &keys, kMe, kAny));
    EXPECT_EQ((Pairs{{"e", "v"}}), pairs);  // only entries whose values are strings
    EXPECT_EQ(Names{"0d"}, keys);           // only keys whose values are dictionaries
  }
}

// Wrong kinds and bad arguments fail, keeping the caller's defaults and the file.
TEST_F(PreferencesTest, RefusedCallsChangeNothingAndEntriesEditInPlace) {
  ASSERT_TRUE(SetPreferenceDictionaryString("k", "e", kDomain, "stored", kMe, kAny));
  ASSERT_TRUE(SetPreferenceString("str", kDomain, "12", kMe, kAny));
  ASSERT_TRUE(SetPreferenceNumber("num", kDomain, 12, kMe, kAny));
  std::string before;
  ASSERT_TRUE(testing_support::ReadFile(file_, &before));
  EXPECT_EQ(-99, Num("str"));
  EXPECT_EQ("<none>", Str("num"));
  Pairs pairs = {{"keep", "me"}};
  EXPECT_FALSE(GetPreferenceDictionaryPairs("str", kDomain, &pairs, kMe, kAny));
  EXPECT_EQ(1u, pairs.size());
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

  EXPECT_TRUE(RemovePreferenceDictionaryEntry("dict", "e", kDomain, kMe, kAny));
  PrefValue created = CopyPreferenceValue("dict", kDomain, kMe, kAny);
  EXPECT_TRUE(IsPreferenceType(created, kPrefDictionary) && created.Count() == 0);
  ASSERT_TRUE(SetPreferenceDictionaryString("dict", "a", kDomain, "1", kMe, kAny) &&
              SetPreferenceDictionaryString("dict", "b", kDomain, "2", kMe, kAny));
  EXPECT_TRUE(RemovePreferenceDictionaryEntry("dict", "a", kDomain, kMe, kAny));
  EXPECT_TRUE(GetPreferenceDictionaryPairs("dict", kDomain, &pairs, kMe, kAny));
  EXPECT_EQ((Pairs{{"b", "2"}}), pairs);
}

TEST_F(PreferencesTest, DamagedFilesReadEmptyAndAreReplaced) {
  ASSERT_TRUE(SetPreferenceString("k", "other", "kept", kMe, kAny));
  ASSERT_TRUE(SetPreferenceString("k", kDomain, "v", kMe, kAny));
  std::string valid;
  ASSERT_TRUE(testing_support::ReadFile(file_, &valid));
  // Every cut of a valid file, and of junk, reads the value (only when the
  // bytes hold it) or nothing; the next write replaces it.
  for (const std::string& whole :
       {valid, std::string("<plist><dict><key>k</key><string>v</string></dict></plist>"),
        std::string("garbage\n"), std::string("<plist><array/></plist>")}) {
    for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
      ASSERT_TRUE(testing_support::WriteFile(file_, whole.substr(0, cut)));
      const std::string read = Str("k");
      EXPECT_TRUE(read == "<none>" || (read == "v" && whole.find('v') != std::string::npos)) << cut;
      ASSERT_TRUE(SetPreferenceNumber("n", kDomain, 3, kMe, kAny));
      EXPECT_EQ(3, Num("n"));
      EXPECT_EQ(read, Str("k"));
    }
  }
  EXPECT_EQ("kept", Str("k", "other"));
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

// Another tool's binary file whose key is Latin-1 (a one-byte string "k\xE9"):
// the key is repaired at read, so the domain can be written again and its
// "MachineID" stays the same.
TEST_F(PreferencesTest, KeyThatIsNotUtf8IsRepairedAndTheDomainStaysWritable) {
  const std::string objects = std::string("\xD2\x01\x02\x03\x04", 5) + "\x59MachineID" +
                              "\x52k\xE9" + "\x54ID-1" + std::string("\x10\x07", 2);
  std::string trailer(32, '\0');
  trailer[6] = trailer[7] = 1;  // one-byte offsets and references; five objects, the
  trailer[15] = 5;              // first one on top, the offset table after them
  trailer[31] = 33;
  ASSERT_TRUE(testing_support::WriteFile(
      file_, "bplist00" + objects + std::string("\x08\x0D\x17\x1A\x1F", 5) + trailer));
  ASSERT_EQ("ID-1", Str("MachineID"));
  EXPECT_TRUE(SetPreferenceNumber("send", kDomain, 1, kMe, kAny));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ("ID-1", Str("MachineID")) << round;
    EXPECT_EQ(7, Num("k\xC3\xA9")) << round;
  }
}

}  // namespace
