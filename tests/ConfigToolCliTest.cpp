// Drives the built logcourier-config tool as a user would.
#include <gtest/gtest.h>

#include <string>
#include <utility>

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
  EXPECT_EQ(run.err,
            "logcourier-config: " + path + ": maxretries=9 refused (accepted 1..5), using 3\n");
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

// The answers every tool gives (unknown option, missing file, directory) are
// checked in ToolConventionsCliTest; these are this tool's own usage errors.
TEST(ConfigToolCliTest, RejectsBadUsageWithOneLineAndTheHint) {
  const std::pair<std::string, std::string> cases[] = {
      {"--file", "option '--file' requires an argument"},
      {"--file=", "--file needs a non-empty path"},
      {"stray", "unexpected argument 'stray'"},
  };
  for (const auto& [arg, message] : cases) {
    const auto run = ts::RunProgram({kTool, arg});
    EXPECT_EQ(run.status, 2) << arg;
    EXPECT_EQ(run.out, "") << arg;
    EXPECT_EQ(run.err, "logcourier-config: " + message + "\nTry 'logcourier-config --help'.\n");
  }
}

TEST(ConfigToolCliTest, NamesEachRefusedValue) {
  ts::ScopedTempDir dir;
  const std::string path = dir.Sub("LogCourier2.cfg");
  ASSERT_TRUE(ts::WriteFile(path,
                            "[settings]\nmaxdiskspace=99999\nretryinterval=0\nmaxretries=5\n"
                            "url=https://evil.example.org/x\n[ulog]\nstatus=kill\n"));
  const std::string url = "https://lumetry.quorvik.com/lumetry";  // the default address
  // Each refusal with the value used instead; maxretries=5 is accepted.
  const std::string p = "logcourier-config: " + path + ": ";
  const std::string lines =
      p + "maxdiskspace=99999 refused (accepted 5..100), using 10\n" + p +
      "retryinterval=0 refused (accepted 1..60), using 10\n" + p +
      "url=https://evil.example.org/x refused (not an allowed server address), using " + url +
      "\n" + p + "status=kill refused (accepted Active, Kill, Hibernate), using Active\n";
  const auto run = ts::RunProgram({kTool, "--file", path});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, lines);
  EXPECT_NE(run.out.find("\nmaxRetries: 5\nserverUrl: " + url + "\n"), std::string::npos);

  // The same in one JSON object on one line; the refusals are listed there too.
  const auto json = ts::RunProgram({kTool, "--json", "--file", path});
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(json.err, lines);
  EXPECT_EQ(json.out,
            "{\"file\":\"" + path +
                R"(","maxDiskSpace":10,"retryInterval":10,"maxRetries":5,"serverUrl":")" + url +
                R"(","uploadUrl":")" + url + R"(/UploadFile/","configUrl":")" + url +
                R"(/GetConfig/","tarvixUrl":")" + url +
                R"(/GetTarvix/","status":"Active","hibernated":{},"refused":[)"
                R"({"key":"maxdiskspace","value":"99999","reason":"accepted 5..100","using":"10"},)"
                R"({"key":"retryinterval","value":"0","reason":"accepted 1..60","using":"10"},)"
                R"({"key":"url","value":"https://evil.example.org/x",)"
                R"("reason":"not an allowed server address","using":")" +
                url +
                R"("},{"key":"status","value":"kill",)"
                R"("reason":"accepted Active, Kill, Hibernate","using":"Active"}]})"
                "\n");
}

}  // namespace
