// Uploader configuration: value ranges, address checks, the record, and the
// creation and refreshing of the user's copy from a fake application bundle.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <iterator>
#include <string>
#include <vector>

#include "PlatformPaths.h"
#include "SettingsFile.h"
#include "TestSupport.h"
#include "UploaderConfig.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

const char kDefaultFile[] =
    "[settings]\nmaxdiskspace=10\nmaxretries=3\nretryinterval=10\n"
    "url=https://lumetry.quorvik.com/lumetry\n[ulog]\nstatus=Active\n";

TEST(UploaderConfigTest, NumericRanges) {
  // Accepted values stay as written; others give the default, also stored in memory.
  const std::pair<const char*, std::uint32_t> cases[] = {
      {"maxdiskspace=100", 100}, {"maxdiskspace=5", 5},    {"maxretries=5", 5},
      {"maxretries=2x", 2},      {"retryinterval=1", 1},   {"retryinterval= +60", 60},
      {"maxdiskspace=4", 10},    {"maxdiskspace=101", 10}, {"maxdiskspace=4294967301", 10},
      {"maxretries=6", 3},       {"maxretries=x2", 3},     {"maxretries=", 3},
      {"retryinterval=0", 10},   {"retryinterval=-3", 10}, {"retryinterval=61", 10}};
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SettingsFile s;
    s.LoadText(std::string("[settings]\n") + cases[i].first);
    const std::string key = s.entries().begin()->first.substr(9);
    const std::string written = s.entries().begin()->second;
    const std::uint32_t got = key == "maxdiskspace" ? Uploader::GetMaxDiskSpace(s)
                              : key == "maxretries" ? Uploader::GetMaxRetries(s)
                                                    : Uploader::GetRetryInterval(s);
    EXPECT_EQ(got, cases[i].second) << cases[i].first;
    EXPECT_EQ(s.GetValue("settings", key), i < 6 ? written : std::to_string(got)) << cases[i].first;
  }
}

TEST(UploaderConfigTest, ServerAddresses) {
  for (const char* url : {"http://localhost/lumetry", "http://localhost/lumetry/v2",
                          "https://lumetry.quorvik.com/lumetry", "http://a.b.quorvik.com/",
                          "https://evil.example.com/?u=https://x.quorvik.com/"}) {
    EXPECT_TRUE(Uploader::IsAllowedServerUrl(url)) << url;
  }
  for (const char* url : {"", "http://localhost/lumetr", "https://quorvik.com/lumetry",
                          "https://lumetry.quorvik.com", "https://lumetryXquorvikXcom/x",
                          "http://aXquorvik.com/x", "https://lumetry.quorvik.com.evil.net/x",
                          "HTTPS://lumetry.quorvik.com/x", "https://evil.example.com/lumetry"}) {
    EXPECT_FALSE(Uploader::IsAllowedServerUrl(url)) << url;
  }
  EXPECT_FALSE(Uploader::MatchesPattern("abc", "(unclosed"));

  SettingsFile s;
  s.SetValue("settings", "url", "https://evil.example.com/lumetry");
  EXPECT_EQ(Uploader::GetServerUrl(s), Uploader::kDefaultServerUrl);
  EXPECT_EQ(s.GetValue("settings", "url"), Uploader::kDefaultServerUrl);
  s.SetValue("settings", "url", "http://localhost/lumetry");
  EXPECT_EQ(Uploader::GetServerUrl(s), "http://localhost/lumetry");
}

TEST(UploaderConfigTest, ReadsRecordInMemory) {
  SettingsFile s;
  s.LoadText(
      "[settings]\nmaxretries=4\nurl=http://up.quorvik.com/base\n"
      "[ulog]\nstatus=Hibernate\nwakeupdate=2001-01-01\n"
      "[hibernate]\nb_2=x|2999-01-01\na_1=x|2001-01-01\n");
  UploaderConfig config;
  config.hibernatedItems = {{"stale", "entry"}};
  Uploader::ReadUploaderConfig(s, &config);
  const std::string base = "http://up.quorvik.com/base";
  EXPECT_EQ(
      std::vector<std::uint32_t>({config.maxDiskSpace, config.retryInterval, config.maxRetries}),
      std::vector<std::uint32_t>({10, 10, 4}));
  EXPECT_EQ(std::vector<std::string>({config.serverUrl, config.uploadUrl, config.configUrl,
                                      config.tarvixUrl, config.status}),
            std::vector<std::string>({base, base + "/UploadFile/", base + "/GetConfig/",
                                      base + "/GetTarvix/", "Active"}));
  const UploaderConfig::ItemList items{{"a_1", "x|2001-01-01"}, {"b_2", "x|2999-01-01"}};
  EXPECT_EQ(config.hibernatedItems, items);
  EXPECT_EQ(s.GetValue("ulog", "wakeupdate"), "");
  EXPECT_EQ(s.GetValue("settings", "maxdiskspace"), "10");
}

// Points the main bundle at a fake application (with an identifier, if given).
struct FakeBundle {
  FakeBundle(const std::string& root, const std::string& identifier = "")
      : path(root + "/Host.app") {
    testing_support::MakeDirs(path + "/Contents/MacOS");
    if (!identifier.empty()) {
      WriteFile(path + "/Contents/Info.plist",
                "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
                "<string>" +
                    identifier + "</string></dict></plist>\n");
    }
    Platform::SetMainBundlePathForTesting(path);
  }
  ~FakeBundle() { Platform::SetMainBundlePathForTesting(""); }
  const std::string path;
};

bool SetModificationTime(const std::string& path, long offset_seconds) {
  const struct timespec t = {std::time(nullptr) + offset_seconds, 0};
  const struct timespec times[2] = {t, t};
  return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
}

TEST(UploaderConfigTest, BundledConfigDir) {
  testing_support::ScopedTempDir dir;
  FakeBundle uploader(dir.path(), Uploader::kUploaderBundleId);
  EXPECT_EQ(Uploader::GetBundledConfigDir(), uploader.path + "/Contents/Resources/");
}

TEST(UploaderConfigTest, UserCopyIsCreatedCopiedOrRefreshed) {
  const char kShipped[] = "[settings]\nmaxretries=4\n[ulog]\nstatus=Kill\nwakeupdate=2999-1-1\n";
  const char kUser[] = "[settings]\nmaxretries=2\n[ulog]\nstatus=Hibernate\nwakeupdate=2999-1-1\n";
  const struct {
    const char* name;
    bool shipped;
    const char* user;    // nullptr: no user copy
    long user_age;       // seconds the user copy is older than now
    const char* result;  // the user copy afterwards
  } cases[] = {
      {"neither", false, nullptr, 0, kDefaultFile},
      {"only shipped", true, nullptr, 0, kShipped},
      {"shipped newer", true, kUser, 86400, "[settings]\nmaxretries=4\n[ulog]\nstatus=Active\n"},
      {"user newer", true, kUser, -86400, kUser},
      {"only user", false, kUser, 86400, kUser},
  };
  for (const auto& c : cases) {
    testing_support::ScopedHome home;
    FakeBundle host(home.path());
    const std::string resources = host.path + "/Contents/MacOS/LogCourier2.app/Contents/Resources";
    ASSERT_TRUE(testing_support::MakeDirs(resources));
    if (c.shipped) {
      ASSERT_TRUE(WriteFile(resources + "/LogCourier2.cfg", kShipped));
      ASSERT_TRUE(SetModificationTime(resources + "/LogCourier2.cfg", -3600));
      ASSERT_TRUE(SetModificationTime(resources, -3600));
    }
    const std::string expected_path =
        home.Library() + "/Application Support/Quorvik/LogCourier2QX/LogCourier2.cfg";
    if (c.user != nullptr) {
      ASSERT_TRUE(WriteFile(expected_path, c.user));
      ASSERT_TRUE(SetModificationTime(expected_path, -c.user_age));
    }
    EXPECT_EQ(Uploader::GetUploaderConfigPath(), expected_path) << c.name;
    std::string text;
    ASSERT_TRUE(ReadFile(expected_path, &text)) << c.name;
    EXPECT_EQ(text, c.result) << c.name;
  }
}

TEST(UploaderConfigTest, MissingPlaces) {
  testing_support::ScopedTempDir dir;
  Uploader::ReactivateUploaderConfig(dir.Sub("missing.cfg"), dir.Sub("fresh.cfg"));
  std::string text;
  ASSERT_TRUE(ReadFile(dir.Sub("fresh.cfg"), &text));
  EXPECT_EQ(text, "[ulog]\nstatus=Active\n");

  ASSERT_TRUE(WriteFile(dir.Sub("file"), "not a directory"));
  testing_support::ScopedEnv home("HOME", dir.Sub("file"));
  EXPECT_EQ(Uploader::GetUploaderConfigPath(), "");
}

}  // namespace
