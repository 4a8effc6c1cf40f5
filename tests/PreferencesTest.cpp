// The preference store: value kinds through the store and through Python's
// plistlib, the dictionary-entry rules, bad arguments, damaged files, file
// modes, and writers racing or dying mid-write.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "PlatformPaths.h"
#include "Preferences.h"
#include "TestSupport.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

constexpr PrefUser kMe = PrefUser::kCurrentUser;
constexpr PrefHost kAny = PrefHost::kAnyHost;
const std::string kDomain = "com.example.preftest";

class PreferencesTest : public ::testing::Test {
 protected:
  PreferencesTest() { SetSystemPreferencesDirForTesting(system_.path()); }
  ~PreferencesTest() override { SetSystemPreferencesDirForTesting(""); }

  std::string FileOf(const std::string& domain) { return PreferenceFilePath(domain, kMe, kAny); }

  // Runs a Python script (argv[1] is `arg`) and answers its standard output.
  static std::string Python(const std::string& script, const std::string& arg) {
    auto run = testing_support::RunProgram({"/usr/bin/env", "python3", "-c", script, arg});
    EXPECT_EQ(0, run.status) << run.err;
    return run.out;
  }

  // The stored string / number, or a sentinel when the read fails.
  static std::string Str(const std::string& key, const std::string& domain = kDomain) {
    std::string s = "<none>";
    GetPreferenceString(key, domain, &s, kMe, kAny);
    return s;
  }
  static std::int32_t Num(const std::string& key, const std::string& domain = kDomain) {
    std::int32_t n = -99;
    GetPreferenceNumber(key, domain, &n, kMe, kAny);
    return n;
  }

  static int WaitExit(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  testing_support::ScopedHome home_;
  testing_support::ScopedTempDir system_;
};

TEST_F(PreferencesTest, RoundTripsInEveryScopeAndFile) {
  const std::string prefs = home_.Library() + "/Preferences/";
  const std::string by_host = "ByHost/" + kDomain + "." + Platform::GetHostId() + ".plist";
  const std::vector<std::tuple<PrefUser, PrefHost, std::string>> scopes = {
      {kMe, kAny, prefs + kDomain + ".plist"},
      {kMe, PrefHost::kCurrentHost, prefs + by_host},
      {PrefUser::kAnyUser, kAny, system_.Sub(kDomain + ".plist")},
      {PrefUser::kAnyUser, PrefHost::kCurrentHost, system_.Sub(by_host)}};
  for (const auto& [user, host, file] : scopes) {
    EXPECT_EQ(file, PreferenceFilePath(kDomain, user, host));
    for (std::int32_t n : {0, 1, -1, 42, INT32_MIN, INT32_MAX}) {
      std::int32_t got = 7;
      EXPECT_TRUE(SetPreferenceNumber("n", kDomain, n, user, host) &&
                  GetPreferenceNumber("n", kDomain, &got, user, host));
      EXPECT_EQ(n, got);
    }
    for (const std::string s : {"", "plain", "h\xC3\xA9llo \xE2\x82\xAC"}) {
      std::string got = "x";
      EXPECT_TRUE(SetPreferenceString("s", kDomain, s, user, host) &&
                  GetPreferenceString("s", kDomain, &got, user, host));
      EXPECT_EQ(s, got);
    }
    EXPECT_EQ(0600, testing_support::FileMode(file));
    EXPECT_EQ(0600, testing_support::FileMode(file + ".lock"));
  }
  EXPECT_EQ("", PreferenceFilePath("a/b", kMe, kAny));
}

TEST_F(PreferencesTest, ReadsWhatPlistlibWroteInBothForms) {
  const char* script = R"(
import plistlib, datetime, sys
d = {'s': 'h\u00e9', 'n': -7, 'big': 2**40, 'b': True, 'r': 1.5, 'data': b'x',
     'dt': datetime.datetime(2020, 1, 1), 'a': [1, 'x'], 'd': {'e': 'v', 'n': 3, 'x': [1]}}
fmt = plistlib.FMT_XML if sys.argv[1].endswith('x.plist') else plistlib.FMT_BINARY
open(sys.argv[1], 'wb').write(plistlib.dumps(d, fmt=fmt))
)";
  for (const std::string domain : {"py.x", "py.b"}) {
    ASSERT_TRUE(testing_support::MakeDirs(home_.Library() + "/Preferences"));
    Python(script, FileOf(domain));
    EXPECT_EQ("h\xC3\xA9", Str("s", domain));
    EXPECT_EQ(-7, Num("n", domain));
    EXPECT_EQ(-99, Num("big", domain));  // does not fit in 32 bits
    const std::vector<std::pair<std::string, int>> kinds = {
        {"s", kPrefString},     {"n", kPrefNumber},    {"big", kPrefNumber}, {"b", kPrefNone},
        {"r", kPrefNone},       {"data", kPrefNone},   {"dt", kPrefNone},    {"a", kPrefArray},
        {"d", kPrefDictionary}, {"missing", kPrefNone}};
    for (const auto& [key, kind] : kinds) {
      PrefValue value = CopyPreferenceValue(key, domain, kMe, kAny);
      EXPECT_EQ(kind, PreferenceTypeOf(value)) << domain << " " << key;
      for (int code = -1; code <= 4; ++code) {
        EXPECT_EQ(code == kind && kind != kPrefNone, IsPreferenceType(value, code)) << key;
      }
    }
    std::int32_t n = 0;
    EXPECT_TRUE(GetPreferenceDictionaryNumber("d", "n", domain, &n, kMe, kAny));
    EXPECT_EQ(3, n);
    std::vector<std::pair<std::string, std::string>> pairs;
    EXPECT_TRUE(GetPreferenceDictionaryPairs("d", domain, &pairs, kMe, kAny));
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"e", "v"}}), pairs);
    std::vector<std::string> keys;
    EXPECT_TRUE(GetDictionaryKeys("any", domain, &keys, kMe, kAny));
    EXPECT_EQ(std::vector<std::string>{"d"}, keys);
  }
}

TEST_F(PreferencesTest, WritesBinaryThatPlistlibReads) {
  ASSERT_TRUE(SetPreferenceString("s", kDomain, "h\xC3\xA9", kMe, kAny));
  ASSERT_TRUE(SetPreferenceNumber("neg", kDomain, -5, kMe, kAny));
  ASSERT_TRUE(SetPreferenceNumber("min", kDomain, INT32_MIN, kMe, kAny));
  ASSERT_TRUE(SetPreferenceDictionaryNumber("d", "n", kDomain, -9, kMe, kAny));
  ASSERT_TRUE(SetPreferenceDictionaryString("d", "e", kDomain, "v", kMe, kAny));
  std::string bytes;
  ASSERT_TRUE(ReadFile(FileOf(kDomain), &bytes));
  EXPECT_EQ("bplist00", bytes.substr(0, 8));
  EXPECT_EQ("{'d': {'e': 'v', 'n': -9}, 'min': -2147483648, 'neg': -5, 's': 'h\xC3\xA9'}\n",
            Python("import plistlib, sys, pprint\n"
                   "pprint.pprint(plistlib.load(open(sys.argv[1], 'rb')))",
                   FileOf(kDomain)));
}

TEST_F(PreferencesTest, WrongKindsFailAndLeaveValues) {
  ASSERT_TRUE(SetPreferenceString("str", kDomain, "12", kMe, kAny));
  ASSERT_TRUE(SetPreferenceNumber("num", kDomain, 12, kMe, kAny));
  EXPECT_EQ(-99, Num("str"));
  EXPECT_EQ("<none>", Str("num"));
  std::string s = "default";
  EXPECT_FALSE(GetPreferenceDictionaryString("str", "e", kDomain, &s, kMe, kAny));
  EXPECT_EQ("default", s);

  // An entry set or removed under a key holding a string fails; the string stays.
  EXPECT_FALSE(SetPreferenceDictionaryString("str", "e", kDomain, "v", kMe, kAny));
  EXPECT_FALSE(SetPreferenceDictionaryNumber("str", "e", kDomain, 1, kMe, kAny));
  EXPECT_FALSE(RemovePreferenceDictionaryEntry("str", "e", kDomain, kMe, kAny));
  EXPECT_EQ("12", Str("str"));

  std::vector<std::pair<std::string, std::string>> pairs = {{"keep", "me"}};
  EXPECT_FALSE(GetPreferenceDictionaryPairs("str", kDomain, &pairs, kMe, kAny));
  EXPECT_EQ(1u, pairs.size());
  std::vector<std::string> keys = {"stale"};
  EXPECT_TRUE(GetDictionaryKeys("x", kDomain, &keys, kMe, kAny));  // strings and numbers only
  EXPECT_TRUE(keys.empty());
}

TEST_F(PreferencesTest, DictionaryEntriesEditInPlace) {
  EXPECT_TRUE(RemovePreferenceDictionaryEntry("dict", "e", kDomain, kMe, kAny));
  PrefValue created = CopyPreferenceValue("dict", kDomain, kMe, kAny);
  EXPECT_TRUE(IsPreferenceType(created, kPrefDictionary));
  EXPECT_EQ(0u, created.Count());

  ASSERT_TRUE(SetPreferenceDictionaryString("dict", "a", kDomain, "1", kMe, kAny));
  ASSERT_TRUE(SetPreferenceDictionaryNumber("dict", "b", kDomain, 2, kMe, kAny));
  EXPECT_TRUE(RemovePreferenceDictionaryEntry("dict", "a", kDomain, kMe, kAny));
  std::string s = "default";
  std::int32_t n = 0;
  EXPECT_FALSE(GetPreferenceDictionaryString("dict", "a", kDomain, &s, kMe, kAny));
  EXPECT_TRUE(GetPreferenceDictionaryNumber("dict", "b", kDomain, &n, kMe, kAny));
  EXPECT_EQ(2, n);
}

TEST_F(PreferencesTest, BadArgumentsFailWithoutTouchingAnything) {
  ASSERT_TRUE(SetPreferenceDictionaryString("k", "e", kDomain, "stored", kMe, kAny));
  std::string before, after;
  ASSERT_TRUE(ReadFile(FileOf(kDomain), &before));
  const std::string bad = "k\xFF";
  struct Case {
    std::string key, entry, domain, value;
    PrefUser user;
    PrefHost host;
    bool read_fails;  // false when only the value to write is bad
  };
  const std::vector<Case> cases = {{bad, "e", kDomain, "v", kMe, kAny, true},
                                   {"k", bad, kDomain, "v", kMe, kAny, true},
                                   {"k", "e", "dom\xC0\xAF", "v", kMe, kAny, true},
                                   {"k", "e", kDomain, bad, kMe, kAny, false},
                                   {"", "e", kDomain, "v", kMe, kAny, true},
                                   {"k", "", kDomain, "v", kMe, kAny, true},
                                   {"k", "e", "", "v", kMe, kAny, true},
                                   {"k", "e", "a/b", "v", kMe, kAny, true},
                                   {"k", "e", kDomain, "v", static_cast<PrefUser>(9), kAny, true},
                                   {"k", "e", kDomain, "v", kMe, static_cast<PrefHost>(-1), true},
                                   {std::string("k\0x", 3), "e", kDomain, "v", kMe, kAny, true}};
  for (const Case& c : cases) {
    EXPECT_FALSE(SetPreferenceDictionaryString(c.key, c.entry, c.domain, c.value, c.user, c.host))
        << c.key << "/" << c.entry << "/" << c.domain;
    if (c.entry == "e") {
      EXPECT_FALSE(SetPreferenceString(c.key, c.domain, c.value, c.user, c.host)) << c.key;
    }
    std::string s = "default";
    EXPECT_EQ(!c.read_fails,
              GetPreferenceDictionaryString(c.key, c.entry, c.domain, &s, c.user, c.host));
    EXPECT_EQ(c.read_fails ? "default" : "stored", s);
  }
  ASSERT_TRUE(ReadFile(FileOf(kDomain), &after));
  EXPECT_EQ(before, after);
  EXPECT_EQ((std::vector<std::string>{kDomain + ".plist", kDomain + ".plist.lock"}),
            testing_support::ListNames(home_.Library() + "/Preferences"));
}

TEST_F(PreferencesTest, DamagedFilesReadEmptyAndAreReplaced) {
  ASSERT_TRUE(SetPreferenceString("k", "other", "kept", kMe, kAny));
  ASSERT_TRUE(SetPreferenceString("k", kDomain, "v", kMe, kAny));
  std::string valid;
  ASSERT_TRUE(ReadFile(FileOf(kDomain), &valid));
  const std::string xml =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>k</key><string>v</string>"
      "</dict></plist>";
  // Every cut of a valid file either reads the value or reads nothing.
  for (const std::string& whole : {valid, xml}) {
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
      ASSERT_TRUE(WriteFile(FileOf(kDomain), whole.substr(0, cut)));
      EXPECT_TRUE(Str("k") == "<none>" || Str("k") == "v") << cut;
    }
  }
  for (const std::string& junk : {std::string(), std::string("garbage\n"), valid.substr(0, 20),
                                  std::string("<plist><array/></plist>")}) {
    ASSERT_TRUE(WriteFile(FileOf(kDomain), junk));
    EXPECT_EQ("<none>", Str("k"));
    ASSERT_TRUE(SetPreferenceNumber("n", kDomain, 3, kMe, kAny));
    EXPECT_EQ(3, Num("n"));
  }
  EXPECT_EQ("kept", Str("k", "other"));
}

TEST_F(PreferencesTest, ConcurrentWritersKeepEveryKey) {
  constexpr int kWriters = 2, kRounds = 60;
  auto key = [](int w, int i) { return "w" + std::to_string(w) + "." + std::to_string(i); };
  std::vector<pid_t> writers;
  for (int w = 0; w < kWriters; ++w) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      int failures = 0;
      for (int i = 0; i < kRounds; ++i)
        failures += !SetPreferenceNumber(key(w, i), kDomain, i, kMe, kAny);
      _exit(failures == 0 ? 0 : 1);
    }
    writers.push_back(pid);
  }
  for (pid_t pid : writers) EXPECT_EQ(0, WaitExit(pid));
  for (int w = 0; w < kWriters; ++w) {
    for (int i = 0; i < kRounds; ++i) EXPECT_EQ(i, Num(key(w, i)));
  }
}

TEST_F(PreferencesTest, WriterKilledMidWriteLeavesAReadableFile) {
  ASSERT_TRUE(SetPreferenceString("anchor", kDomain, "here", kMe, kAny));
  std::mt19937 random(12345);
  for (int round = 0; round < 15; ++round) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (std::int32_t i = 0;; ++i) SetPreferenceNumber("counter", kDomain, i, kMe, kAny);
    }
    usleep(std::uniform_int_distribution<useconds_t>(0, 30000)(random));
    kill(pid, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, WaitExit(pid));
    EXPECT_EQ("here", Str("anchor")) << round;
  }
  // The next write clears whatever the killed writers left behind.
  ASSERT_TRUE(SetPreferenceNumber("counter", kDomain, -1, kMe, kAny));
  EXPECT_EQ((std::vector<std::string>{kDomain + ".plist", kDomain + ".plist.lock"}),
            testing_support::ListNames(home_.Library() + "/Preferences"));
}

}  // namespace
