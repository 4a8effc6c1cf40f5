// Drives the built logcourier-config tool as a user would.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

using testing_support::ReadFile;
using testing_support::RunProgram;
using testing_support::ScopedTempDir;
using testing_support::WriteFile;

const std::string kTool = std::string(TOOLS_DIR) + "/logcourier-config";

TEST(ConfigToolCliTest, ShowsGivenFileWithoutChangingIt) {
  ScopedTempDir dir;
  const std::string path = dir.Sub("my.cfg");
  const std::string original =
      "[settings]\nmaxretries=9\nmaxdiskspace=50\nurl=https://evil.example.com/\n"
      "[ulog]\nstatus=Hibernate\nwakeupdate=2001-01-01\n[hibernate]\na_1=x|2999-01-01\n";
  ASSERT_TRUE(WriteFile(path, original));
  const auto run = RunProgram({kTool, "--file", path});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, "file: " + path +
                         "\nmaxDiskSpace: 50\nretryInterval: 10\nmaxRetries: 3\n"
                         "serverUrl: https://lumetry.quorvik.com/lumetry\n"
                         "uploadUrl: https://lumetry.quorvik.com/lumetry/UploadFile/\n"
                         "configUrl: https://lumetry.quorvik.com/lumetry/GetConfig/\n"
                         "tarvixUrl: https://lumetry.quorvik.com/lumetry/GetTarvix/\n"
                         "status: Active\nhibernated: a_1=x|2999-01-01\n");
  std::string after;
  ASSERT_TRUE(ReadFile(path, &after));
  EXPECT_EQ(after, original);
}

TEST(ConfigToolCliTest, CreatesUserFileWhenNoneGiven) {
  ScopedTempDir home;
  const auto run = RunProgram({kTool}, {"HOME=" + home.path()});
  EXPECT_EQ(run.status, 0) << run.err;
  const std::string path =
      home.path() + "/Library/Application Support/Quorvik/LogCourier2QX/LogCourier2.cfg";
  EXPECT_EQ(run.out.substr(0, run.out.find('\n')), "file: " + path);
  EXPECT_NE(run.out.find("\nstatus: Active\n"), std::string::npos) << run.out;
  EXPECT_TRUE(testing_support::PathExists(path));
}

TEST(ConfigToolCliTest, RejectsBadInputWithOneLine) {
  ScopedTempDir dir;
  const std::pair<std::vector<std::string>, int> cases[] = {{{"--file", dir.Sub("missing.cfg")}, 1},
                                                            {{"--file", dir.path()}, 1},
                                                            {{"--file"}, 2},
                                                            {{"--file", ""}, 2},
                                                            {{"--bogus"}, 2},
                                                            {{"-x"}, 2},
                                                            {{"stray"}, 2}};
  for (const auto& c : cases) {
    std::vector<std::string> argv{kTool};
    argv.insert(argv.end(), c.first.begin(), c.first.end());
    const auto run = RunProgram(argv);
    EXPECT_EQ(run.status, c.second) << argv.back();
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("logcourier-config: ", 0), 0u) << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
  }
  const auto help = RunProgram({kTool, "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("Usage: logcourier-config", 0), 0u);
}

}  // namespace
