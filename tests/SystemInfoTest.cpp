// The system probes: the browser probe's default answer, the probe sources
// and their defaults.
#include <gtest/gtest.h>

#include "SystemInfo.h"
#include "TestSupport.h"

namespace {

using namespace testing_support;

// The handler walk and the XDG fallback are driven through lumetry-sysinfo;
// here the answer when nothing names a browser, and its optional outputs.
TEST(BrowserTest, NothingNamesABrowser) {
  ScopedHome home;
  ScopedEnv configDirs("XDG_CONFIG_DIRS", home.path()), dataDirs("XDG_DATA_DIRS", home.path()),
      configHome("XDG_CONFIG_HOME", ""), dataHome("XDG_DATA_HOME", "");
  std::string browser = "preset", second = "preset";
  EXPECT_FALSE(GetDefaultBrowser(nullptr, &second) || GetDefaultBrowser(&browser, nullptr));
  EXPECT_EQ(browser + "|" + second, "com.apple.safari|");
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
