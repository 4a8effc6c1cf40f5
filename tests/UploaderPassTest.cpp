// Passes of the uploader library against a real HTTPS server on a loopback
// port: what each upload answer does to the spool and the attempt ledger, the
// order of the uploads, retries and give-ups over a damaged ledger, Retry-After
// across passes and the disk budget.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "CourierPassFixture.h"
#include "ExclusiveFile.h"

namespace {

using namespace courier_test;

std::string HttpDate(std::int64_t when) {
  const time_t t = static_cast<time_t>(when);
  struct tm parts;
  gmtime_r(&t, &parts);
  char buffer[64];
  return std::string(buffer, strftime(buffer, sizeof buffer, "%a, %d %b %Y %H:%M:%S GMT", &parts));
}

TEST_F(PassTest, ServerAnswerDecidesTheFile) {
  // The answer, and whether the file is gone; a kept file counts one failure.
  const std::vector<std::pair<std::string, bool>> cases = {
      {R"({"status": 200})", true},
      {R"({"status": 200, "body_size": 20000000})", true},  // a huge body is not read
      {R"({"status": 500})", false},
      {R"({"status": 408})", false},
      {R"({"status": 429})", false},
      {R"({"status": 302, "headers": {"Location": "/lumetry/Elsewhere/"}})", false},
      {R"({"status": 400})", true},
      {R"({"action": "close"})", false},          // connection dropped after the request
      {R"({"action": "garbage"})", false},        // an answer that is not HTTP
      {R"({"status": 200, "delay": 6})", false},  // no answer within the time limit
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const auto& [answer, deleted] = cases[i];
    const std::string name = "ulog_LumetryQX_AppCrash_K_" + std::to_string(i) + "_0.rdy";
    AddLog(name, "payload " + std::to_string(i));
    // The upload goes out on a fresh connection: on a reused one, a connection
    // dropped with no answer is tried once more on a new connection.
    Script(Answers(kUpload, answer) + "," + Answers(kPolicy, R"({"status": 204, "close": true})"));
    const auto before = server_.Requests().size();
    Run(0, false, "", 2500);
    EXPECT_EQ(!deleted, InSpool(name)) << answer;
    EXPECT_EQ(deleted ? 0u : 1u, Failures(name)) << answer;
    // Exactly the three requests of a pass: a redirect is never followed.
    const auto lines = server_.RequestLines();
    ASSERT_EQ(before + 3, lines.size()) << answer;
    EXPECT_EQ("POST " + kUpload, lines.back()) << answer;
    ASSERT_TRUE(ts::WriteFile(configDir_ + "/LogCourier2.attempts", ""));
    ::unlink((spool_ + "/" + name).c_str());
  }
}

TEST_F(PassTest, OldestFirstAndFilesBeingWrittenLeftAlone) {
  AddLog("ulog_A_B_middle_0.xml", "2", 200);
  AddLog("ulog_A_B_newest_0.xml", "3", 100);
  AddLog("ulog_A_B_oldest_0.rdy", "1", 300);
  const std::string busy = AddLog("ulog_A_B_busy_0.rdy", "writing", 400);
  ExclusiveFile writer = ExclusiveFile::OpenExclusive(busy);  // as a crash processor holds it
  ASSERT_TRUE(writer.IsOpen());
  // Not usage logs, or not regular files: never sent, never deleted.
  ASSERT_TRUE(ts::MakeDirs(spool_ + "/ulog_A_B_dir_0.rdy"));
  AddLog("elsewhere.xml", "target", 500);
  ASSERT_EQ(0,
            ::symlink((spool_ + "/elsewhere.xml").c_str(), (spool_ + "/ulog_A_B_l_0.xml").c_str()));
  ASSERT_EQ(0, ::mkfifo((spool_ + "/ulog_A_B_fifo_0.xml").c_str(), 0600));
  AddLog("ulog_A_B_c.txt", "other", 500);

  const PassSummary summary = Run();
  EXPECT_EQ((std::vector<std::string>{"ulog_A_B_oldest_0.rdy", "ulog_A_B_middle_0.xml",
                                      "ulog_A_B_newest_0.xml"}),
            server_.Uploaded());
  EXPECT_EQ(3, summary.sent);
  EXPECT_EQ(1, summary.busy);
  EXPECT_EQ((std::vector<std::string>{".LogCourierAppLock", "elsewhere.xml", "ulog_A_B_busy_0.rdy",
                                      "ulog_A_B_c.txt", "ulog_A_B_dir_0.rdy", "ulog_A_B_fifo_0.xml",
                                      "ulog_A_B_l_0.xml"}),
            ts::ListNames(spool_));
  writer.Close();  // written: the next pass sends it
  Run();
  EXPECT_FALSE(InSpool("ulog_A_B_busy_0.rdy"));
  EXPECT_EQ("ulog_A_B_busy_0.rdy", server_.Uploaded().back());
}

TEST_F(PassTest, RetryIntervalAndGiveUpAcrossPassesOverADamagedLedger) {
  SetConfig("[settings]\nmaxretries=4\n");
  const std::string name = "ulog_A_B_k_0.rdy";
  AddLog(name, "x");
  Script(Answers(kUpload, R"({"status": 500})"));
  const std::int64_t t = std::time(nullptr);
  // One readable record of the file amid damage, and one of a file that is gone.
  std::string ledger = "1 " + std::to_string(t - 700) + " " + name + "\n";
  ledger += "9 1 ulog_gone_x_0.rdy\nnotbefore -5\n\xff\xfe garbage\x01line\n";
  const char withNul[] = "1 2 ulog_nul\0_0.rdy\n99999999999999999999 1 ulog_A_B_k_0.rdy\n";
  ledger.append(withNul, sizeof withNul - 1);
  ASSERT_TRUE(ts::WriteFile(configDir_ + "/LogCourier2.attempts", ledger));
  struct Step {
    std::int64_t at;
    std::size_t posts;  // uploads made so far
    std::uint32_t failures;
    bool kept;
  };
  const std::vector<Step> steps = {
      {t, 1, 2, true},          // the old failure is ten minutes past: tried again
      {t + 599, 1, 2, true},    // ten minutes not over: not tried
      {t + 600, 2, 3, true},    // third failure
      {t + 1300, 3, 0, false},  // fourth failure: given up, deleted, forgotten
  };
  for (const Step& step : steps) {
    Run(step.at);
    EXPECT_EQ(step.posts, server_.Uploaded().size()) << step.at - t;
    EXPECT_EQ(step.failures, Failures(name)) << step.at - t;
    EXPECT_EQ(step.kept, InSpool(name)) << step.at - t;
    const std::string saved = ts::Contents(configDir_ + "/LogCourier2.attempts");
    EXPECT_EQ(std::string::npos, saved.find("gone")) << saved;
  }
}

TEST_F(PassTest, RetryAfterHoldsUploadsAcrossPasses) {
  SetConfig("[settings]\nretryinterval=1\n");
  const std::int64_t t = std::time(nullptr);
  const std::vector<std::pair<int, std::string>> cases = {{503, "120"}, {429, HttpDate(t + 120)}};
  for (const auto& [status, value] : cases) {
    AddLog("ulog_A_B_first_0.rdy", "1", 300);
    AddLog("ulog_A_B_second_0.rdy", "2", 200);
    Script(Answers(kUpload, "{\"status\": " + std::to_string(status) +
                                ", \"headers\": {\"Retry-After\": \"" + value +
                                "\"}}, {\"status\": 200}"));
    const auto posts = server_.Uploaded().size();
    const PassSummary first = Run(t);  // the second file is not tried after the answer
    EXPECT_EQ(posts + 1, server_.Uploaded().size()) << value;
    EXPECT_EQ(1u, Failures("ulog_A_B_first_0.rdy"));
    EXPECT_NE(std::string::npos, first.stopReason.find("retry after")) << first.stopReason;
    Run(t + 60);  // still inside the wait: no upload at all
    EXPECT_EQ(posts + 1, server_.Uploaded().size()) << value;
    Run(t + 125);  // over: both go
    EXPECT_EQ(posts + 3, server_.Uploaded().size()) << value;
    EXPECT_EQ(std::vector<std::string>{".LogCourierAppLock"}, ts::ListNames(spool_));
    ASSERT_TRUE(ts::WriteFile(configDir_ + "/LogCourier2.attempts", ""));
  }
}

TEST_F(PassTest, DiskBudgetDeletesOldestButNeverALockedFile) {
  SetConfig("[settings]\nmaxdiskspace=5\n");
  ASSERT_TRUE(SetPreferenceNumber("send", kDomain, 0, PrefUser::kCurrentUser,
                                  PrefHost::kCurrentHost));  // budget only, no network
  const std::string mib2(std::size_t{2} * 1024 * 1024, 'b');
  const std::string locked = AddLog("ulog_A_B_1_0.rdy", mib2, 500);
  AddLog("ulog_A_B_2_0.rdy", mib2, 400);
  AddLog("ulog_A_B_3_0.rdy", mib2, 300);
  AddLog("ulog_A_B_4_0.rdy", "small", 200);
  ExclusiveFile writer = ExclusiveFile::OpenExclusive(locked);
  ASSERT_TRUE(writer.IsOpen());
  const PassSummary dry = Run(0, true);  // a dry run deletes nothing
  EXPECT_EQ(1, dry.budgetDeleted);
  EXPECT_TRUE(InSpool("ulog_A_B_2_0.rdy"));
  const PassSummary summary = Run();
  EXPECT_EQ(1, summary.budgetDeleted);
  EXPECT_EQ((std::vector<std::string>{".LogCourierAppLock", "ulog_A_B_1_0.rdy", "ulog_A_B_3_0.rdy",
                                      "ulog_A_B_4_0.rdy"}),
            ts::ListNames(spool_));
  EXPECT_TRUE(server_.Requests().empty());
}

}  // namespace

namespace {

using namespace courier_test;

// The connections that carried the requests from `first` on.
std::set<std::string> Connections(const std::vector<ts::RecordedRequest>& requests,
                                  std::size_t first) {
  std::set<std::string> seen;
  for (std::size_t i = first; i < requests.size(); ++i) {
    seen.insert(requests[i].headers.at("x-test-connection"));
  }
  return seen;
}

// A pass's requests share one connection; a server that closes it after
// each answer still receives every file with no attempt counted; a file of
// 20 MiB is streamed and arrives byte for byte.
TEST_F(PassTest, OneConnectionPerPassEveryFileWhole) {
  const std::string close = R"({"status": 204, "close": true})";
  for (const bool closing : {false, true}) {
    SCOPED_TRACE(closing ? "server closes after each answer" : "kept open");
    for (int i = 0; i < 4; ++i) AddLog("ulog_A_B_" + std::to_string(i) + "_0.rdy", "log");
    Script(closing ? Answers(kConfig, close) + "," + Answers(kPolicy, close) + "," +
                         Answers(kUpload, R"({"status": 200, "close": true})")
                   : "");
    const std::size_t before = server_.Requests().size();
    EXPECT_EQ(4, Run().sent);
    const auto requests = server_.Requests();
    EXPECT_EQ(before + 6, requests.size());
    EXPECT_EQ(closing ? 6u : 1u, Connections(requests, before).size());
    EXPECT_EQ(0u, Failures("ulog_A_B_0_0.rdy"));
  }
  std::string big(20 << 20, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 % 251);
  AddLog("ulog_A_B_big_0.rdy", big);
  SetConfig("[settings]\nmaxdiskspace=100\n");  // room for it in the spool's budget
  Script("");
  EXPECT_EQ(1, Run().sent);
  const std::string body = server_.Requests().back().body;
  EXPECT_NE(std::string::npos, body.find(big));
  EXPECT_GT(big.size() + 400, body.size());
}

}  // namespace
