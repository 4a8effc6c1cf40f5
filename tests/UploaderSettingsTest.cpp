// The uploader's settings file, configuration values, status rules and merging.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <boost/date_time/gregorian/gregorian.hpp>
#include <ctime>

#include "FileIO.h"
#include "PatternBounds.h"
#include "PlatformPaths.h"
#include "SettingsFile.h"
#include "TestSupport.h"
#include "UploaderConfig.h"
#include "UploaderStatus.h"

namespace {

namespace ts = testing_support;
using Strings = std::vector<std::string>;
using namespace std::string_literals;

TEST(SettingsFileTest, SyntaxAndNames) {
  const std::pair<std::string, std::string> cases[] = {
      {" [ Settings ] \nk=v\n[Oth\nk=v\n[a]b]\nk=v\n[]\nk=w", "/k=w;a/k=v;oth/k=v;settings/k=v"},
      {"[ulog]\n Active\r\n#url=x\n;url=x\n\n  \t\nurl=a#b", "ulog/active=Active;ulog/url=a#b"},
      {"k=1\nK=2\n=v\nk2=\nk3 = a = b", "/=v;/k=2;/k2=;/k3=a = b"},
      {"\xEF\xBB\xBFKey=v\n\xEF\xBB\xBFK", "/key=v;/\xEF\xBB\xBFk=\xEF\xBB\xBFK"},
      {"a\0B=c\0d\n[\0]\nk"s, "\0/k=k;/a\0b=c\0d"s}};
  for (const auto& c : cases) {
    SettingsFile s;
    EXPECT_EQ(s.LoadText(c.first), 0);
    EXPECT_EQ(ts::DumpSettings(s), c.second) << c.first;
  }
  SettingsFile s;
  s.LoadText("[settings]\nMaxRetries = 5 ");
  EXPECT_EQ(s.GetValue(" SETTINGS ", "maxretries") + s.GetValue("settings", "none"), "5");
  EXPECT_EQ(s.SetValueAt(" A/B/C ", "x"), "x");
  EXPECT_EQ(s.SetValue("a/b", "c", "x") + s.SetValue(" ", "k", "x") + s.SetValueAt("k", "x") +
                s.SetValue("settings", "maxretries", " \t "),
            "");
  EXPECT_EQ(ts::DumpSettings(s), "a/b/c=x");
}

TEST(SettingsFileTest, SaveIsCanonicalAndAtomic) {
  ts::ScopedTempDir dir;
  const std::string path = dir.Sub("a.cfg");
  SettingsFile s;
  s.LoadText("# comment\n[Z]\nb = 2\na=1\n\n[]\nk=v\n[m]\nurl= x ");
  s.SetValue("m", "pad", " p ");
  ASSERT_TRUE(s.Save(path) == 0 && ts::FileMode(path) == 0644);
  EXPECT_EQ(ts::Contents(path), "[]\nk=v\n[m]\npad= p \nurl=x\n[z]\na=1\nb=2\n");
  EXPECT_TRUE(s.Load(path) == 0 && ts::DumpSettings(s) == "/k=v;m/pad=p;m/url=x;z/a=1;z/b=2");
  EXPECT_TRUE(s.Load(dir.Sub("missing.cfg")) + s.Load(dir.path()) == -2 && s.entries().empty());

  s.SetValue("a", "b", "new");
  EXPECT_EQ(s.Save(dir.path()) + s.Save(dir.Sub("no/x.cfg")) + s.Save(""), -3);
  EXPECT_TRUE(::chmod(path.c_str(), 0600) == 0 && s.Save(path) == 0 && ts::FileMode(path) == 0600);
  // Root ignores modes: an unprivileged child meets a read-only file and a read-only dir.
  ASSERT_TRUE(ts::MakeDirs(dir.Sub("ro")) && ::chmod(dir.Sub("ro").c_str(), 0555) == 0);
  ASSERT_EQ(::chmod(path.c_str(), 0444) + ::chmod(dir.path().c_str(), 0777), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(3);
    ::_exit(s.Save(path) == -1 && s.Save(dir.Sub("ro/new.cfg")) == -1 ? 0 : 1);
  }
  int status = -1;
  EXPECT_TRUE(::waitpid(child, &status, 0) == child && status == 0);
  EXPECT_EQ(ts::Contents(path), "[a]\nb=new\n");
  EXPECT_EQ(ts::ListNames(dir.path()), (Strings{"a.cfg", "ro"}));
}

// Headers holding "/" read back the same; every entry is saved verbatim.
TEST(SettingsFileTest, HeadersHoldingSlashAndOddNamesSurviveSave) {
  ts::ScopedTempDir dir;
  const std::string path = dir.Sub("slash.cfg");
  // The text, the section as written in its header, key, value.
  const std::array<const char*, 4> cases[] = {{"[a/b=c]\nk=v", "a/b=c", "k", "v"},
                                              {"[settings/#x]\nurl=y", "settings/#x", "url", "y"},
                                              {"[a/[b]\nk=v", "a/[b", "k", "v"},
                                              {"[a/b]\n=v", "a/b", "", "v"},
                                              {"[a/b]\nNoEquals", "a/b", "noequals", "NoEquals"}};
  for (const auto& [text, section, key, value] : cases) {
    SettingsFile original, reread;
    original.LoadText(std::string(text) + "\n[plain]\nkey=value");
    ASSERT_EQ(original.Save(path) + reread.Load(path), 0) << text;
    EXPECT_EQ(ts::DumpSettings(reread), ts::DumpSettings(original)) << text;
    EXPECT_EQ(reread.GetValue(section, key) + reread.GetValue("plain", "key"), value + "value"s);
  }
  SettingsFile odd;
  for (const char* name : {"x]y/k", "s/a=b", "s/#c", "s/ok"}) odd.SetValueAt(name, "1");
  ASSERT_EQ(odd.Save(path), 0);
  EXPECT_EQ(ts::Contents(path), "[s]\n#c=1\na=b=1\nok=1\n[x]y]\nk=1\n");
}

// Saving replaces a link's target in place, cleans up old temporaries, falls back.
TEST(SettingsFileTest, SaveThroughLinksCleansUpAndFallsBackInPlace) {
  ts::ScopedTempDir dir, elsewhere;
  const std::string path = dir.Sub("LogCourier2.cfg"),
                    stale = dir.Sub(".LogCourier2.cfg.tmp-a1B2c3");
  ASSERT_TRUE(ts::WriteFile(path, "old") && ts::WriteFile(stale, "[s]\nurl=half") &&
              ts::AgeFile(stale, 3600));
  ASSERT_EQ(0, ::symlink(path.c_str(), elsewhere.Sub("link").c_str()));
  SettingsFile s;
  s.LoadText("[ulog]\nstatus=Active");
  EXPECT_TRUE(s.Save(elsewhere.Sub("link")) == 0 &&
              ts::Contents(path) == "[ulog]\nstatus=Active\n");
  struct stat st;
  EXPECT_TRUE(::lstat(elsewhere.Sub("link").c_str(), &st) == 0 && S_ISLNK(st.st_mode));
  EXPECT_TRUE(ts::ListNames(dir.path()) == Strings{"LogCourier2.cfg"} &&
              ts::ListNames(elsewhere.path()) == Strings{"link"});

  ts::ScopedNoNewFiles locked(dir.path());
  if (!locked.active()) GTEST_SKIP() << "no way to make a directory refuse new files here";
  EXPECT_FALSE(FileIO::ReplaceFile(path, "x", 1));  // in place only when the caller asks
  s.SetValue("ulog", "status", "Kill");
  EXPECT_TRUE(s.Save(path) + s.Load(path) == 0 && s.GetValue("ulog", "status") == "Kill");
}

TEST(UploaderConfigTest, NumericRanges) {
  // Settings; maxdiskspace, maxretries and retryinterval as read and as then stored.
  const std::tuple<const char*, std::array<std::uint32_t, 3>, const char*> cases[] = {
      {"maxdiskspace=100\nmaxretries=5\nretryinterval=+60", {100, 5, 60}, "100 5 +60 "},
      {"maxdiskspace=5\nmaxretries=1\nretryinterval=1", {5, 1, 1}, "5 1 1 "},
      {"maxdiskspace=4\nmaxretries=2x\nretryinterval=0", {10, 2, 10}, "10 2x 10 "},
      {"maxdiskspace=101\nmaxretries=6\nretryinterval=-3", {10, 3, 10}, "10 3 10 "},
      {"maxdiskspace=4294967301\nmaxretries=x2", {10, 3, 10}, "10 3 10 "}};
  for (const auto& [text, expected, stored] : cases) {
    SettingsFile s;
    s.LoadText(std::string("[settings]\n") + text);
    const std::array<std::uint32_t, 3> got = {
        Uploader::GetMaxDiskSpace(s), Uploader::GetMaxRetries(s), Uploader::GetRetryInterval(s)};
    EXPECT_EQ(got, expected) << text;
    std::string values;
    for (const auto& entry : s.entries()) values += entry.second + " ";
    EXPECT_EQ(values, stored) << text;
  }
}

TEST(UploaderConfigTest, ServerAddressesAndBoundedPatterns) {
  for (const char* url : {"http://localhost/lumetry", "http://localhost/lumetry/v2",
                          "https://lumetry.quorvik.com/lumetry", "http://a.b.quorvik.com/",
                          "https://evil.example.com/?u=https://x.quorvik.com/"})
    EXPECT_TRUE(Uploader::IsAllowedServerUrl(url)) << url;
  for (const char* url :
       {"", "http://localhost/lumetr", "https://quorvik.com/lumetry", "https://lumetry.quorvik.com",
        "http://aXquorvik.com/x", "https://a.quorvik.com.evil.net/x", "HTTPS://a.quorvik.com/x",
        "https://aXquorvik.com/x", "https://evil.example.com/lumetry"})
    EXPECT_FALSE(Uploader::IsAllowedServerUrl(url)) << url;
  SettingsFile s;
  s.SetValue("settings", "url", "https://evil.example.com/lumetry");
  EXPECT_EQ(Uploader::GetServerUrl(s), Uploader::kDefaultServerUrl);
  EXPECT_EQ(s.GetValue("settings", "url"), Uploader::kDefaultServerUrl);
  // Patterns are bounded: "a" and 24 "+" would take the compiler to hundreds of megabytes.
  const std::string many_plus = "a" + std::string(24, '+');
  EXPECT_FALSE(Uploader::MatchesPattern("aaaa", many_plus));
  for (const std::string& fine :
       Strings{"http://[^/]+\\.quorvik\\.com/.*", "(a|b){3,5}[[:alpha:]]x?", "[]a+]*", "a{64}",
               "((((a))))", std::string(256, 'a')})
    EXPECT_TRUE(PatternBounds::IsAcceptable(fine)) << fine;
  for (const std::string& bad :
       Strings{"a++", "a*{2}", "a?*", "a{65}", "a{3,2}", "a{2", "(((((a)))))", "(a{64}){64}",
               "(a)\\1", "(a", "a)", "[abc", std::string(257, 'a'), std::string("a\0b", 3)})
    EXPECT_FALSE(PatternBounds::IsAcceptable(bad)) << bad;
  EXPECT_TRUE(Uploader::MatchesPattern("xaaay", "a{3}"));
  EXPECT_FALSE(Uploader::MatchesPattern("xaaay", "a{3}{1}"));  // refused, though it would match
}

TEST(UploaderConfigTest, ConfigPlaces) {
  const char kShipped[] = "[settings]\nmaxretries=4\n[ulog]\nstatus=Kill\nwakeupdate=2999-1-1\n";
  const char kUser[] = "[settings]\nmaxretries=2\n[ulog]\nstatus=Hibernate\nwakeupdate=2999-1-1\n";
  // Shipped copy (always newer than a day), user copy, its age in seconds, the result.
  const std::tuple<const char*, const char*, long, const char*> cases[] = {
      {kShipped, nullptr, 0, kShipped},
      {kShipped, kUser, 86400, "[settings]\nmaxretries=4\n[ulog]\nstatus=Active\n"},
      {kShipped, kUser, -86400, kUser},
      {nullptr, kUser, 86400, kUser}};
  ts::ScopedHome home;
  const ts::ScopedOverride host(&Platform::SetMainBundlePathForTesting, home.path() + "/Host.app");
  const std::string shipped =
      home.path() + "/Host.app/Contents/MacOS/LogCourier2.app/Contents/Resources/LogCourier2.cfg";
  const std::string user =
      home.Library() + "/Application Support/Quorvik/LogCourier2QX/LogCourier2.cfg";
  for (const auto& [shipped_text, user_text, user_age, result] : cases) {
    ::unlink(shipped.c_str()), ::unlink(user.c_str());
    ASSERT_TRUE(!shipped_text ||
                (ts::WriteFile(shipped, shipped_text) && ts::AgeFile(shipped, 172800)));
    const struct timespec t = {std::time(nullptr) - user_age, 0}, times[2] = {t, t};
    ASSERT_TRUE(user_text == nullptr || (ts::WriteFile(user, user_text) &&
                                         ::utimensat(AT_FDCWD, user.c_str(), times, 0) == 0));
    EXPECT_EQ(Uploader::GetUploaderConfigPath(), user);
    EXPECT_EQ(ts::Contents(user), result)
        << (shipped_text != nullptr) << (user_text != nullptr) << user_age;
  }
}

using boost::gregorian::date;
using Uploader::WakeDateState;
using S = UploaderStatus;

std::string LocalDay(int offset) {
  const date day = boost::gregorian::day_clock::local_day() + boost::gregorian::days(offset);
  return boost::gregorian::to_iso_extended_string(day);
}

// Overlong tokens never reach the date library (it overflows on six characters).
TEST(UploaderStatusTest, WakeDates) {
  for (const char* paused : {"2024-02-29", "2999-Mar-31", "2999 march 1", "2999/3/31",
                             "2999.mAR.31,x", "2999-September-30", "02999-00001-00001",
                             "2999-01-01-!000000000", "2999/Jan/01 xxxxxxxxxx"})
    EXPECT_EQ(WakeDateState(paused, date(2024, 2, 28)), 2) << paused;
  for (const char* awake :
       {"2024-02-28", "2024-02-27", "", "soon", "2023-02-29", "2999-13-01", "2999-Smarch-1",
        "99999-01-01", "1399-01-01", "2999-01", "2999-\xC3-01", "!00000", "!00000-01-01",
        "2999-!00000-01", "2999-01-!00000", "000002999-01-01", "2999-0000001-01", "2999-01-0000001",
        "2999-Septembers-01"})
    EXPECT_EQ(WakeDateState(awake, date(2024, 2, 28)), 0) << awake;
}

// EvaluateUploaderStatus for item "App" "2"; every transition is saved back.
TEST(UploaderStatusTest, EvaluateSavesTransitions) {
  // A zone whose date differs from the UTC date right now: only the local date may count.
  ts::ScopedEnv zone("TZ", std::time(nullptr) / 3600 % 24 < 12 ? "LOC+12" : "LOC-12");
  ::tzset();
  ts::ScopedTempDir dir;
  const std::string path = dir.Sub("LogCourier2.cfg");
  const std::string items = "[hibernate]\napp_2=x|2999-01-01\nold_1=x|2001-01-01\n";
  const std::string active = "[ulog]\nstatus=Active\n";
  // The file before ("-": none), the status, the file after ("=": unchanged).
  const std::tuple<std::string, S, std::string> cases[] = {
      {"-", S::Active, active},
      {"[ulog]\nstatus=kill\n", S::Active, active},
      {items + "[ulog]\nstatus=Kill\nwakeupdate=2001-1-1\n", S::Kill, "="},
      {items + "[ulog]\nstatus=Hibernate\nwakeupdate=" + LocalDay(1) + "\n", S::Hibernate, "="},
      {items, S::Hibernate, items + active},
      {"[ulog]\nstatus=Hibernate\nwakeupdate=" + LocalDay(0) + "\n", S::Active, active},
      {"[hibernate]\napp_2=a|b|2999-01-01\n", S::Active, active}};
  for (const auto& [before, expected, after] : cases) {
    ::unlink(path.c_str());
    ASSERT_TRUE(before == "-" || ts::WriteFile(path, before));
    S status = S::Kill;
    EXPECT_TRUE(Uploader::EvaluateUploaderStatus("App", "2", path, "ulog", &status) == 0 &&
                status == expected)
        << before;
    EXPECT_EQ(ts::Contents(path), after == "=" ? before : after) << before;
  }
  S status = S::Kill;  // null outputs and empty paths change nothing
  EXPECT_EQ(Uploader::EvaluateUploaderStatus("a", "b", dir.Sub("x.cfg"), "ulog", nullptr) +
                Uploader::EvaluateUploaderStatus("a", "b", "", "ulog", &status),
            2);
  EXPECT_TRUE(status == S::Kill && !ts::PathExists(dir.Sub("x.cfg")));
}

TEST(UploaderStatusTest, MergeRules) {
  const std::pair<const char*, const char*> cases[] = {
      {"[s]\noperation=Merge\nb=4\na=", "/top=1;s/b=4;s/operation=Merge;sx/k=K"},
      {"[s]\noperation=merge\nc=w", "/top=1;s/c=w;s/operation=merge;sx/k=K"},
      {"new=1\n[sx]\noperation=Merge", "/new=1;sx/operation=Merge"},
      {"[*]\nk=v\n[sx]\noperation=Merge\nk=A", "*/k=v;sx/k=A;sx/operation=Merge"}};
  for (const auto& c : cases) {
    SettingsFile target;
    target.LoadText("top=1\n[s]\na=1\nb=2\n[sx]\nk=K");
    EXPECT_TRUE(Uploader::MergeSettings(target, c.first) == 0 &&
                ts::DumpSettings(target) == c.second)
        << c.first << "\n"
        << ts::DumpSettings(target);
  }
}

}  // namespace
