// Drives the built logcourier-config tool as a user would.
#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "TestSupport.h"

namespace {

namespace ts = testing_support;

const std::string kTool = std::string(TOOLS_DIR) + "/logcourier-config";

TEST(ConfigToolCliTest, ShowsGivenFileWithoutChangingIt) {
  ts::ScopedTempDir dir;
  const std::string path = dir.Sub("my.cfg");
  const std::string original =
      "[settings]\nmaxretries=9\nmaxdiskspace=50\nurl=http://up.quorvik.com/b\n"
      "[ulog]\nstatus=Hibernate\nwakeupdate=2001-01-01\n[hibernate]\nb_2=y\na_1=x|2999-01-01\n";
  ASSERT_TRUE(ts::WriteFile(path, original));
  const auto run = ts::RunProgram({kTool, "--file", path});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  const std::string url = "http://up.quorvik.com/b";
  EXPECT_EQ(run.out, "file: " + path +
                         "\nmaxDiskSpace: 50\nretryInterval: 10\nmaxRetries: 3\nserverUrl: " + url +
                         "\nuploadUrl: " + url + "/UploadFile/\nconfigUrl: " + url +
                         "/GetConfig/\ntarvixUrl: " + url +
                         "/GetTarvix/\nstatus: Active\n"
                         "hibernated: a_1=x|2999-01-01\nhibernated: b_2=y\n");
  EXPECT_EQ(ts::Contents(path), original);

  // Without --file the user's copy is found, here created.
  const auto made = ts::RunProgram({kTool}, {"HOME=" + dir.path()});
  const std::string user = "/Library/Application Support/Quorvik/LogCourier2QX/LogCourier2.cfg";
  EXPECT_EQ(made.out.substr(0, made.out.find('\n')), "file: " + dir.path() + user) << made.err;
  const auto lost = ts::RunProgram({kTool}, {"HOME=" + path});  // no directory below a file
  EXPECT_EQ(lost.err,
            "logcourier-config: cannot find or create the user's configuration directory\n");
}

TEST(ConfigToolCliTest, RejectsBadInputWithOneLine) {
  ts::ScopedTempDir dir;
  const std::string folder = "--file=" + dir.path(), missing = folder + "/missing.cfg";
  // Usage errors (status 2), then two files that cannot be read (status 1).
  const std::string cases[] = {"--file", "--file=", "--bogus", "-x", "stray", folder, missing};
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto run = ts::RunProgram({kTool, cases[i]});
    EXPECT_EQ(run.status, i < 5 ? 2 : 1) << cases[i];
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("logcourier-config: ", 0), 0u) << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
  }
  const auto help = ts::RunProgram({kTool, "--help"});
  EXPECT_TRUE(help.status == 0 && help.out.rfind("Usage: logcourier-config", 0) == 0) << help.out;
}

}  // namespace
