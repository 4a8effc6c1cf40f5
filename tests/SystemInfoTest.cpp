// Tests of the system probes: the LaunchServices handler walk (over handler
// lists written by python's plistlib, an independent writer), the XDG
// mimeapps fallback, and the probes' parsing and defaults over injected
// sources.
#include <gtest/gtest.h>

#include "SystemInfo.h"
#include "TestSupport.h"

namespace {

using testing_support::ScopedEnv;
using testing_support::WriteFile;

class BrowserTest : public ::testing::Test {
 protected:
  // Only the temporary home can name a browser.
  BrowserTest()
      : configDirs_("XDG_CONFIG_DIRS", home_.path() + "/etc"),
        dataDirs_("XDG_DATA_DIRS", home_.path() + "/share"),
        configHome_("XDG_CONFIG_HOME", ""),
        dataHome_("XDG_DATA_HOME", "") {}

  // Writes the LaunchServices domain with `handlersJson` as "LSHandlers".
  void WriteHandlers(const std::string& handlersJson, bool binary) {
    const char* script =
        "import json, plistlib, sys\n"
        "fmt = plistlib.FMT_BINARY if sys.argv[3] == 'b' else plistlib.FMT_XML\n"
        "with open(sys.argv[1], 'wb') as f:\n"
        "    plistlib.dump({'LSHandlers': json.loads(sys.argv[2])}, f, fmt=fmt)\n";
    std::string dir = home_.Library() + "/Preferences";
    ASSERT_TRUE(testing_support::MakeDirs(dir));
    auto run = testing_support::RunProgram({"/usr/bin/python3", "-c", script,
                                            dir + "/com.apple.LaunchServices.plist", handlersJson,
                                            binary ? "b" : "x"});
    ASSERT_EQ(run.status, 0) << run.err;
  }

  testing_support::ScopedHome home_;
  ScopedEnv configDirs_, dataDirs_, configHome_, dataHome_;
};

TEST_F(BrowserTest, WalksTheHandlerList) {
  const std::string other = R"({"LSHandlerURLScheme": "mailto", "LSHandlerRoleAll": "m.mail"})";
  struct Case {
    std::string handlers;
    bool found;
    std::string browser;
  } cases[] = {
      {"[" + other +
           R"(, {"LSHandlerURLScheme": "http", "LSHandlerRoleAll": "Org.Mozilla.FIREFOX"}])",
       true, "Org.Mozilla.FIREFOX"},
      {R"([{"LSHandlerURLScheme": "HTTP", "LSHandlerRoleAll": "com.a"}])", false,
       "com.apple.safari"},
      {R"([{"LSHandlerURLScheme": "http", "LSHandlerRoleViewer": "com.a"},
           {"LSHandlerURLScheme": "http", "LSHandlerRoleAll": ""},
           "not a dictionary", {"LSHandlerURLScheme": "http", "LSHandlerRoleAll": 5},
           {"LSHandlerURLScheme": "http", "LSHandlerRoleAll": "com.b"},
           {"LSHandlerURLScheme": "http", "LSHandlerRoleAll": "com.c"}])",
       true, "com.b"},
      {"[]", false, "com.apple.safari"},
      {R"({"LSHandlerURLScheme": "http", "LSHandlerRoleAll": "com.a"})", false, "com.apple.safari"},
  };
  bool binary = false;
  for (const Case& c : cases) {
    WriteHandlers(c.handlers, binary = !binary);
    std::string browser = "preset", second = "preset";
    EXPECT_EQ(GetDefaultBrowser(&browser, &second), c.found) << c.handlers;
    EXPECT_EQ(browser, c.browser) << c.handlers;
    EXPECT_EQ(second, "");
  }
}

TEST_F(BrowserTest, FallsBackToTheXdgDefault) {
  std::string browser, second;
  EXPECT_FALSE(GetDefaultBrowser(&browser, &second));
  EXPECT_EQ(browser, "com.apple.safari");

  // Earlier files win; only [Default Applications] counts; the first entry
  // of a list is taken.
  ASSERT_TRUE(WriteFile(home_.path() + "/share/applications/mimeapps.list",
                        "[Default Applications]\nx-scheme-handler/http=late.desktop\n"));
  ASSERT_TRUE(WriteFile(home_.path() + "/etc/mimeapps.list",
                        "# comment\n[Added Associations]\nx-scheme-handler/http=added.desktop\n"
                        "[Default Applications]\r\ntext/html=html.desktop\n"
                        " x-scheme-handler/http = ;first.desktop;second.desktop;\r\n"));
  EXPECT_TRUE(GetDefaultBrowser(&browser, &second));
  EXPECT_EQ(browser, "first.desktop");

  // A LaunchServices handler comes before any XDG default.
  WriteHandlers(R"([{"LSHandlerURLScheme": "http", "LSHandlerRoleAll": "com.ls"}])", true);
  EXPECT_TRUE(GetDefaultBrowser(&browser, &second));
  EXPECT_EQ(browser, "com.ls");
}

TEST(ProbeSourcesTest, ParsesTheSourcesAndFallsBack) {
  testing_support::ScopedTempDir dir;
  std::string cpuinfo = dir.Sub("cpuinfo");
  ASSERT_TRUE(WriteFile(cpuinfo,
                        "processor\t: 0\nmodel name\t:  Some CPU @ 2.40GHz \n"
                        "cpu MHz\t\t: 2394.454\nmodel name\t: second\n"));
  ASSERT_TRUE(WriteFile(dir.Sub("max_freq"), "3600000\n"));
  ASSERT_TRUE(WriteFile(dir.Sub("bad_freq"), "n/a\n"));
  ASSERT_TRUE(WriteFile(dir.Sub("product"), "  Model X 1.0 \n"));
  ASSERT_TRUE(WriteFile(dir.Sub("blank"), " \n"));
  std::string missing = dir.Sub("missing");

  EXPECT_EQ(SystemInfo::CPUBrandFromCpuinfo(cpuinfo), "Some CPU @ 2.40GHz");
  EXPECT_EQ(SystemInfo::CPUBrandFromCpuinfo(missing), "");
  EXPECT_EQ(SystemInfo::CPUBrandFromCpuinfo(dir.Sub("product")), "");

  EXPECT_EQ(SystemInfo::HardwareModelFrom(dir.Sub("product"), "x86_64"), "Model X 1.0");
  EXPECT_EQ(SystemInfo::HardwareModelFrom(dir.Sub("blank"), "x86_64"), "x86_64");
  EXPECT_EQ(SystemInfo::HardwareModelFrom(missing, "aarch64"), "aarch64");

  EXPECT_EQ(SystemInfo::CPUSpeedMHzFrom(dir.Sub("max_freq"), cpuinfo), "3600");
  EXPECT_EQ(SystemInfo::CPUSpeedMHzFrom(dir.Sub("bad_freq"), cpuinfo), "2394");
  EXPECT_EQ(SystemInfo::CPUSpeedMHzFrom(missing, cpuinfo), "2394");
  EXPECT_EQ(SystemInfo::CPUSpeedMHzFrom(missing, missing), "0");
  EXPECT_EQ(SystemInfo::CPUSpeedMHzFrom(missing, dir.Sub("product")), "0");
}

}  // namespace
