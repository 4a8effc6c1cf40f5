// Drives the built lumetry-sysinfo tool: its options, and the four probe
// lines under a home whose XDG defaults name the browser.
#include <gtest/gtest.h>

#include <regex>

#include "TestSupport.h"

namespace {

const std::string kTool = std::string(TOOLS_DIR) + "/lumetry-sysinfo";

TEST(SysinfoToolCliTest, OptionsAndBadInput) {
  auto help = testing_support::RunProgram({kTool, "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("usage: lumetry-sysinfo", 0), 0u) << help.out;

  for (const char* bad : {"--bogus", "-x", "extra"}) {
    auto run = testing_support::RunProgram({kTool, bad});
    EXPECT_NE(run.status, 0) << bad;
    EXPECT_EQ(run.out, "") << bad;
    EXPECT_NE(run.err.find("usage: lumetry-sysinfo"), std::string::npos) << bad;
  }
}

TEST(SysinfoToolCliTest, PrintsTheFourProbes) {
  testing_support::ScopedTempDir home;
  ASSERT_TRUE(
      testing_support::WriteFile(home.Sub(".config/mimeapps.list"),
                                 "[Default Applications]\nx-scheme-handler/http=web.desktop;\n"));
  auto run = testing_support::RunProgram(
      {kTool}, {"HOME=" + home.path(), "XDG_CONFIG_HOME=", "XDG_CONFIG_DIRS=/nonexistent",
                "XDG_DATA_HOME=", "XDG_DATA_DIRS=/nonexistent"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  std::regex lines("CPU: [^\n]*\nModel: [^\n]*\nCPU MHz: (0|[1-9][0-9]*)\nBrowser: web.desktop\n");
  EXPECT_TRUE(std::regex_match(run.out, lines)) << run.out;
}

}  // namespace
