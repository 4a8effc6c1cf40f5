// Drives the built lumetry-sysinfo tool: the four probe lines under a home
// whose XDG default names the browser, its help and its bad-input handling.
#include <gtest/gtest.h>

#include <regex>

#include "TestSupport.h"

namespace {

using namespace testing_support;

const std::string kTool = std::string(TOOLS_DIR) + "/lumetry-sysinfo";

TEST(SysinfoToolCliTest, PrintsTheFourProbesHelpsAndRefusesBadInput) {
  ScopedTempDir home;
  ASSERT_TRUE(WriteFile(home.Sub(".config/mimeapps.list"),
                        "[Default Applications]\nx-scheme-handler/http=web.desktop;\n"));
  auto run = RunProgram({kTool}, {"HOME=" + home.path(), "XDG_CONFIG_HOME=", "XDG_DATA_HOME=",
                                  "XDG_CONFIG_DIRS=/nonexistent", "XDG_DATA_DIRS=/nonexistent"});
  EXPECT_TRUE(run.status == 0 && run.err.empty()) << run.err;
  std::regex lines("CPU: [^\n]*\nModel: [^\n]*\nCPU MHz: (0|[1-9][0-9]*)\nBrowser: web.desktop\n");
  EXPECT_TRUE(std::regex_match(run.out, lines)) << run.out;

  run = RunProgram({kTool, "--help"});
  EXPECT_TRUE(run.status == 0 && run.out.rfind("Usage: lumetry-sysinfo", 0) == 0) << run.out;
  for (const char* bad : {"--bogus", "-x", "extra"}) {
    run = RunProgram({kTool, bad});
    EXPECT_TRUE(run.status == 2 && run.out.empty()) << bad;
    EXPECT_NE(run.err.find("Try 'lumetry-sysinfo --help'."), std::string::npos) << run.err;
  }

  // --json: one object with the same four probes.
  run =
      RunProgram({kTool, "--json"}, {"HOME=" + home.path(), "XDG_CONFIG_HOME=", "XDG_DATA_HOME=",
                                     "XDG_CONFIG_DIRS=/nonexistent", "XDG_DATA_DIRS=/nonexistent"});
  EXPECT_EQ(run.status, 0) << run.err;
  std::regex object(R"(\{"cpu":"[^"]*","model":"[^"]*","cpuMHz":(0|[1-9][0-9]*),)"
                    R"("browser":"web.desktop"\}\n)");
  EXPECT_TRUE(std::regex_match(run.out, object)) << run.out;
}

}  // namespace
