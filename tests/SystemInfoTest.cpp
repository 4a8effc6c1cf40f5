// The system probes: the browser probe's answer and its XDG fallback (the
// handler walk is driven through lumetry-sysinfo), the probe sources and
// their defaults.
#include <gtest/gtest.h>

#include "SystemInfo.h"
#include "TestSupport.h"

namespace {

using namespace testing_support;

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
    ASSERT_TRUE(WritePlist(home_.Library() + "/Preferences/com.apple.LaunchServices.plist",
                           R"({"LSHandlers": )" + handlersJson + "}", binary));
  }

  ScopedHome home_;
  ScopedEnv configDirs_, dataDirs_, configHome_, dataHome_;
};

TEST_F(BrowserTest, FallsBackToTheXdgDefault) {
  // A handler list without a usable entry, and no XDG default either.
  WriteHandlers(R"([{"LSHandlerURLScheme": "HTTP", "LSHandlerRoleAll": "com.a"}])", false);
  std::string browser = "preset", second = "preset";
  EXPECT_FALSE(GetDefaultBrowser(&browser, &second));
  EXPECT_EQ(browser, "com.apple.safari");
  EXPECT_EQ(second, "");

  // Only [Default Applications] counts; the first entry of a list is taken.
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
  ScopedTempDir dir;
  const std::string cpuinfo = dir.Sub("cpuinfo"), product = dir.Sub("product");
  const std::string none = dir.Sub("none");
  ASSERT_TRUE(WriteFile(cpuinfo,
                        "processor\t: 0\nmodel name\t:  Some CPU @ 2.40GHz \n"
                        "cpu MHz\t\t: 2394.454\nmodel name\t: second\n"));
  ASSERT_TRUE(WriteFile(dir.Sub("max_freq"), "3600000\n") && WriteFile(dir.Sub("bad"), "n/a\n") &&
              WriteFile(product, "  Model X 1.0 \n"));

  using namespace SystemInfo;
  EXPECT_EQ(CPUBrandFromCpuinfo(cpuinfo), "Some CPU @ 2.40GHz");
  EXPECT_EQ(CPUBrandFromCpuinfo(none), "");
  EXPECT_EQ(HardwareModelFrom(product, "x86_64"), "Model X 1.0");
  EXPECT_EQ(HardwareModelFrom(none, "aarch64"), "aarch64");
  EXPECT_EQ(CPUSpeedMHzFrom(dir.Sub("max_freq"), cpuinfo), "3600");
  EXPECT_EQ(CPUSpeedMHzFrom(dir.Sub("bad"), cpuinfo), "2394");
  EXPECT_EQ(CPUSpeedMHzFrom(none, product), "0");
  EXPECT_EQ(CPUSpeedMHzFrom(none, none), "0");
}

}  // namespace
