// Uploader configuration: value ranges, server addresses, and the user's copy.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <ctime>

#include "PatternBounds.h"
#include "PlatformPaths.h"
#include "SettingsFile.h"
#include "TestSupport.h"
#include "UploaderConfig.h"

namespace {

namespace ts = testing_support;
using Strings = std::vector<std::string>;

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

TEST(UploaderConfigTest, ServerAddresses) {
  for (const char* url : {"http://localhost/lumetry", "http://localhost/lumetry/v2",
                          "https://lumetry.quorvik.com/lumetry", "http://a.b.quorvik.com/",
                          "https://evil.example.com/?u=https://x.quorvik.com/"})
    EXPECT_TRUE(Uploader::IsAllowedServerUrl(url)) << url;
  for (const char* url :
       {"", "http://localhost/lumetr", "https://quorvik.com/lumetry", "https://lumetry.quorvik.com",
        "http://aXquorvik.com/x", "https://a.quorvik.com.evil.net/x", "HTTPS://a.quorvik.com/x",
        "https://aXquorvik.com/x", "https://evil.example.com/lumetry"})
    EXPECT_FALSE(Uploader::IsAllowedServerUrl(url)) << url;
  EXPECT_FALSE(Uploader::MatchesPattern("abc", "(unclosed"));
  SettingsFile s;
  s.SetValue("settings", "url", "https://evil.example.com/lumetry");
  EXPECT_EQ(Uploader::GetServerUrl(s), Uploader::kDefaultServerUrl);
  EXPECT_EQ(s.GetValue("settings", "url"), Uploader::kDefaultServerUrl);
}

// Foreign patterns are compiled only within bounds: "a" followed by 24 "+"
// would take the compiler to hundreds of megabytes.
TEST(UploaderConfigTest, PatternsOutsideTheBoundsNeverMatch) {
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
      {nullptr, nullptr, 0,
       "[settings]\nmaxdiskspace=10\nmaxretries=3\nretryinterval=10\n"
       "url=https://lumetry.quorvik.com/lumetry\n[ulog]\nstatus=Active\n"},
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
    ::unlink(shipped.c_str());
    ::unlink(user.c_str());
    ASSERT_TRUE(shipped_text == nullptr || ts::WriteFile(shipped, shipped_text));
    const struct timespec t = {std::time(nullptr) - user_age, 0}, times[2] = {t, t};
    ASSERT_TRUE(user_text == nullptr || (ts::WriteFile(user, user_text) &&
                                         ::utimensat(AT_FDCWD, user.c_str(), times, 0) == 0));
    EXPECT_EQ(Uploader::GetUploaderConfigPath(), user);
    EXPECT_EQ(ts::Contents(user), result)
        << (shipped_text != nullptr) << (user_text != nullptr) << user_age;
  }
}

}  // namespace
