// Passes of the uploader library against a real HTTPS server on a loopback
// port: upload answers, order, retries, Retry-After, the disk budget, the
// privacy and status gates, configuration and policy answers, address checks.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "CourierPassFixture.h"
#include "ExclusiveFile.h"
#include "Mac/LogCourUtilsMac.h"
#include "UploaderConfig.h"

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

TEST_F(PassTest, NothingIsSentWhileAnySwitchSaysNo) {
  struct Case {
    std::string what;
    std::string config;
    std::function<bool()> set;
  };
  const auto user = PrefUser::kCurrentUser;
  const auto here = PrefHost::kCurrentHost;
  const std::vector<Case> cases = {
      {"send 0", "", [&] { return SetPreferenceNumber("send", kDomain, 0, user, here); }},
      {"optin 0", "",
       [&] {
         return SetPreferenceString("PersonGUID", kDomain, "P-7", user, here) &&
                SetPreferenceDictionaryNumber("P-7", "optin", kDomain, 0, user, here);
       }},
      {"Enabled 0", "",
       [&] {
         return SetPreferenceNumber("Enabled", "com.quorvik.lumetry.apipqx", 0, PrefUser::kAnyUser,
                                    here);
       }},
      {"Kill", "[ulog]\nstatus=Kill\n", [] { return true; }},
      {"Hibernate until tomorrow", "[ulog]\nstatus=Hibernate\nwakeupdate=2999-01-01\n",
       [] { return true; }},
  };
  AddLog("ulog_A_B_k_0.rdy", "x");
  for (const Case& c : cases) {
    ts::ScopedTempDir system;  // a fresh any-user store per case
    systemPrefs_.Set(system.path());
    ::unlink(PreferenceFilePath(kDomain, user, here).c_str());  // the user's switches back on
    SetConfig(c.config);
    ASSERT_TRUE(c.set()) << c.what;
    const PassSummary summary = Run();
    EXPECT_EQ(0, summary.requests) << c.what;
    EXPECT_FALSE(summary.quietReason.empty()) << c.what;
    EXPECT_TRUE(InSpool("ulog_A_B_k_0.rdy")) << c.what;
    EXPECT_TRUE(server_.Requests().empty()) << c.what;
    systemPrefs_.Set(system_.path());
  }
}

TEST_F(PassTest, PausesEndOnTheirDateAndItemPausesHoldTheirFilesOnly) {
  // A pause that ended yesterday: the pass goes on and the file forgets it.
  SetConfig(
      "[ulog]\nstatus=Hibernate\nwakeupdate=2001-01-01\n"
      "[hibernate]\nlumetryqx_appcrash=x|2999-01-01\nold_item=x|2001-01-01\n");
  AddLog("ulog_LumetryQX_AppCrash_K_1_0.rdy", "paused item");
  AddLog("ulog_Old_Item_K_1_0.rdy", "pause over");
  AddLog("ulog_Other_Thing_K_1_0.rdy", "never paused");
  const PassSummary summary = Run();
  EXPECT_EQ(1, summary.paused);
  EXPECT_EQ((std::vector<std::string>{"ulog_Old_Item_K_1_0.rdy", "ulog_Other_Thing_K_1_0.rdy"}),
            server_.Uploaded());
  EXPECT_TRUE(InSpool("ulog_LumetryQX_AppCrash_K_1_0.rdy"));
  const std::string config = Config();
  EXPECT_NE(std::string::npos, config.find("status=Active")) << config;
  EXPECT_EQ(std::string::npos, config.find("wakeupdate")) << config;
  EXPECT_EQ(std::string::npos, config.find("old_item")) << config;
  EXPECT_NE(std::string::npos, config.find("lumetryqx_appcrash=x|2999-01-01")) << config;
}

TEST_F(PassTest, ConfigurationAnswersAreMergedReplacedOrIgnored) {
  struct Case {
    std::string answer;
    std::vector<std::string> present;  // lines expected in the saved file
    std::vector<std::string> absent;
    std::string base;  // where the pass goes on; "" for no request after the answer
  };
  const std::string big = "[settings]\\nmaxretries=4\\n#" + std::string(70000, 'p');
  const std::string on = "/lumetry/";
  const std::vector<Case> cases = {
      {R"({"status": 200, "body": "[settings]\noperation=Merge\nmaxretries=4\n"})",
       {"maxretries=4", "maxdiskspace=10", "operation=Merge"},
       {"maxretries=3"},
       on},
      {R"({"status": 200, "body": "[settings]\nurl=https://lumetry.quorvik.com/lumetry\n"})",
       {"url=https://lumetry.quorvik.com/lumetry"},
       {"maxdiskspace", "maxretries"},
       on},
      // A new server address is used in the same pass.
      {R"({"status": 200, "body": "[settings]\noperation=Merge\nurl=https://up.quorvik.com/o\n"})",
       {"url=https://up.quorvik.com/o"},
       {},
       "/o/"},
      // A Kill or Hibernate received in the pass ends every further request.
      {R"({"status": 200, "body": "[ulog]\nstatus=Kill\n"})", {"status=Kill"}, {}, ""},
      {R"({"status": 200, "body": "[ulog]\nstatus=Hibernate\nwakeupdate=2999-01-01\n"})",
       {"status=Hibernate"},
       {},
       ""},
      {"{\"status\": 200, \"body\": \"" + big + "\"}", {"maxretries=3"}, {"maxretries=4"}, on},
      {R"({"status": 500, "body": "[settings]\nmaxretries=4\n"})", {"maxretries=3"}, {}, on},
      {R"({"status": 200, "body": "\u0001\u0002[\u00ff=\n=\n[]"})", {}, {}, on},
  };
  for (const Case& c : cases) {
    SetConfig("");
    AddLog("ulog_A_B_k_0.rdy", "x");
    Script(Answers(kConfig, c.answer));
    std::vector<std::string> lines = server_.RequestLines();
    const std::size_t before = lines.size();
    EXPECT_TRUE(Run().ran);
    const std::string config = Config();
    for (const auto& line : c.present) EXPECT_NE(std::string::npos, config.find(line)) << config;
    for (const auto& line : c.absent) EXPECT_EQ(std::string::npos, config.find(line)) << config;
    EXPECT_EQ(c.base.empty(), InSpool("ulog_A_B_k_0.rdy")) << c.answer;
    std::vector<std::string> expected = {"GET " + kConfig};
    if (!c.base.empty()) {
      expected.push_back("GET " + c.base + "GetTarvix/");
      expected.push_back("POST " + c.base + "UploadFile/");
    }
    lines = server_.RequestLines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    EXPECT_EQ(expected, lines) << c.answer;
  }
}

TEST_F(PassTest, PolicyFileIsReplacedWholeOrLeftAlone) {
  const std::string path = GetTarvixPolicyPath();
  const std::string policy = "<policy>one</policy>\n";
  // The answer and the policy file afterwards.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"status": 200, "body": "<policy>one</policy>\n"})", policy},
      {R"({"status": 204})", policy},
      {R"({"status": 404})", policy},
      {R"({"status": 500, "body": "broken"})", policy},
      {R"({"status": 200, "body_size": 1048577})", policy},  // one byte over the cap
      {R"({"action": "close"})", policy},
      {R"({"status": 200, "body_size": 1048576})", std::string(1048576, 'x')},
  };
  for (const auto& [answer, expected] : cases) {
    Script(Answers(kPolicy, answer));
    Run();
    std::string stored;
    EXPECT_TRUE(ts::ReadFile(path, &stored)) << answer;
    EXPECT_TRUE(stored == expected) << answer << " gave " << stored.size() << " bytes";
    // Written through a temporary file that is renamed: none is left behind.
    EXPECT_EQ(std::vector<std::string>{"tarvix_policy.xml"},
              ts::ListNames(path.substr(0, path.rfind('/'))));
  }
}

TEST_F(PassTest, NoRequestLeavesForARefusedAddressOrAnUntrustedServer) {
  const std::string sneaky = "https://evil.example.org/x?https://a.quorvik.com/";
  ASSERT_TRUE(Uploader::IsAllowedServerUrl(sneaky));  // the unanchored patterns let it by
  SetConfig("[settings]\nurl=" + sneaky + "\n");
  AddLog("ulog_A_B_k_0.rdy", "x");
  PassSummary summary = Run();
  EXPECT_EQ(0, summary.requests);
  EXPECT_NE(std::string::npos, summary.quietReason.find("not allowed")) << summary.quietReason;

  SetConfig("");
  summary = Run(0, false, ts::SharedCertificates().otherCaFile);
  EXPECT_EQ(1, summary.requests);  // the configuration request fails its handshake: no more
  EXPECT_TRUE(server_.Requests().empty());
  EXPECT_TRUE(InSpool("ulog_A_B_k_0.rdy"));
  EXPECT_EQ(0u, Failures("ulog_A_B_k_0.rdy"));

  server_.Stop();  // the server is down: one refused connection ends the pass
  summary = Run();
  EXPECT_EQ(1, summary.requests);
  EXPECT_NE(std::string::npos, summary.stopReason.find("cannot be reached"));
  EXPECT_TRUE(InSpool("ulog_A_B_k_0.rdy"));
  EXPECT_EQ(0u, Failures("ulog_A_B_k_0.rdy"));
}

}  // namespace
