// Passes of the uploader library against a real HTTPS server on a loopback
// port: what each server answer does to the spool, the attempt ledger and the
// configuration, and what keeps the uploader from sending at all.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "AttemptLedger.h"
#include "CourierTestServer.h"
#include "CurlTransport.h"
#include "ExclusiveFile.h"
#include "Mac/LogCourUtilsMac.h"
#include "Pass.h"
#include "Preferences.h"
#include "Reporter.h"
#include "TestSupport.h"
#include "UploaderConfig.h"

namespace {

namespace ts = testing_support;
using Courier::PassSummary;

const std::string kDomain = "com.quorvik.lumetryqx";
const std::string kDefaults =
    "[settings]\nmaxdiskspace=10\nmaxretries=3\nretryinterval=10\n"
    "url=https://lumetry.quorvik.com/lumetry\n[ulog]\nstatus=Active\n";
const std::string kUpload = "/lumetry/UploadFile/";
const std::string kConfig = "/lumetry/GetConfig/";
const std::string kPolicy = "/lumetry/GetTarvix/";

std::string Answers(const std::string& path, const std::string& answers) {
  return ts::JsonString(path) + ": [" + answers + "]";
}

std::string HttpDate(std::int64_t when) {
  const time_t t = static_cast<time_t>(when);
  struct tm parts;
  gmtime_r(&t, &parts);
  char buffer[64];
  const std::size_t n = strftime(buffer, sizeof buffer, "%a, %d %b %Y %H:%M:%S GMT", &parts);
  return std::string(buffer, n);
}

class PassTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetSystemPreferencesDirForTesting(system_.path());
    ASSERT_TRUE(server_.Start());
    spool_ = home_.Library() + "/Logs/Quorvik/LogCourier2QX";
    ASSERT_TRUE(ts::MakeDirs(spool_));
    configDir_ = home_.Library() + "/Application Support/Quorvik/LogCourier2QX";
    SetConfig("");
  }
  void TearDown() override { SetSystemPreferencesDirForTesting(""); }

  void SetConfig(const std::string& extra) {
    ASSERT_TRUE(ts::WriteFile(configDir_ + "/LogCourier2.cfg", kDefaults + extra));
  }
  std::string Config() const {
    std::string text;
    ts::ReadFile(configDir_ + "/LogCourier2.cfg", &text);
    return text;
  }
  void Script(const std::string& body) { ASSERT_TRUE(server_.Script("{" + body + "}")); }

  // A usage log `age` seconds old (by modification time).
  std::string AddLog(const std::string& name, const std::string& bytes, int age = 600) {
    std::string path = spool_ + "/" + name;
    EXPECT_TRUE(ts::WriteFile(path, bytes));
    struct timespec times[2];
    times[0].tv_sec = times[1].tv_sec = std::time(nullptr) - age;
    times[0].tv_nsec = times[1].tv_nsec = 0;
    EXPECT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0));
    return path;
  }
  bool InSpool(const std::string& name) const { return ts::PathExists(spool_ + "/" + name); }

  PassSummary Run(std::int64_t now = 0, bool dryRun = false, std::string caFile = "",
                  long totalMs = 20000) {
    Courier::PassSettings settings;
    settings.dryRun = dryRun;
    if (now != 0) settings.clock = [now] { return now; };
    if (caFile.empty()) caFile = ts::SharedCertificates().caFile;
    settings.makeTransport = [this, caFile, totalMs] {
      Courier::TransportSettings transport;
      transport.userAgent = "LogCourier2/test (Linux)";
      transport.machineId = "TEST-MACHINE";
      transport.connectTo = server_.ConnectTo();
      transport.caFile = caFile;
      transport.connectTimeoutMs = 5000;
      transport.totalTimeoutMs = totalMs;
      return Courier::MakeCurlTransport(transport);
    };
    Courier::Reporter report(false, nullptr);
    return Courier::RunPass(settings, report);
  }

  // The failed attempts counted for `name` (0 when it has no record).
  std::uint32_t Failures(const std::string& name) const {
    const auto ledger = Courier::AttemptLedger::Load(configDir_ + "/LogCourier2.attempts");
    const Courier::Attempts* attempts = ledger.Find(name);
    return attempts == nullptr ? 0 : attempts->failures;
  }

  std::vector<std::string> Uploaded() const {
    std::vector<std::string> names;
    for (const auto& r : server_.Requests()) {
      if (r.method == "POST") names.push_back(ts::UploadedFileName(r));
    }
    return names;
  }

  ts::ScopedHome home_;
  ts::ScopedTempDir system_;
  ts::CourierTestServer server_;
  std::string spool_;
  std::string configDir_;
};

TEST_F(PassTest, ServerAnswerDecidesTheFile) {
  struct Case {
    std::string answer;
    bool deleted;
    std::uint32_t failures;
  };
  const std::vector<Case> cases = {
      {R"({"status": 200})", true, 0},
      {R"({"status": 201, "body": "stored"})", true, 0},
      {R"({"status": 200, "body_size": 20000000})", true, 0},  // a huge body is not read
      {R"({"status": 500})", false, 1},
      {R"({"status": 503})", false, 1},
      {R"({"status": 408})", false, 1},
      {R"({"status": 429})", false, 1},
      {R"({"status": 302, "headers": {"Location": "/lumetry/Elsewhere/"}})", false, 1},
      {R"({"status": 400})", true, 0},
      {R"({"status": 404})", true, 0},
      {R"({"status": 413})", true, 0},
      {R"({"action": "close"})", false, 1},          // connection dropped after the request
      {R"({"action": "garbage"})", false, 1},        // an answer that is not HTTP
      {R"({"status": 200, "delay": 6})", false, 1},  // no answer within the time limit
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const std::string name = "ulog_LumetryQX_AppCrash_K_" + std::to_string(i) + "_0.rdy";
    AddLog(name, "payload " + std::to_string(i));
    Script(Answers(kUpload, cases[i].answer));
    const auto before = server_.Requests().size();
    Run(0, false, "", 2500);
    EXPECT_EQ(!cases[i].deleted, InSpool(name)) << cases[i].answer;
    EXPECT_EQ(cases[i].failures, Failures(name)) << cases[i].answer;
    // Exactly the three requests of a pass: a redirect is never followed.
    const auto lines = server_.RequestLines();
    ASSERT_EQ(before + 3, lines.size()) << cases[i].answer;
    EXPECT_EQ("POST " + kUpload, lines.back()) << cases[i].answer;
    ASSERT_TRUE(ts::WriteFile(configDir_ + "/LogCourier2.attempts", ""));
    if (InSpool(name)) ::unlink((spool_ + "/" + name).c_str());
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
            Uploaded());
  EXPECT_EQ(3, summary.sent);
  EXPECT_EQ(1, summary.busy);
  EXPECT_EQ((std::vector<std::string>{".LogCourierAppLock", "elsewhere.xml", "ulog_A_B_busy_0.rdy",
                                      "ulog_A_B_c.txt", "ulog_A_B_dir_0.rdy", "ulog_A_B_fifo_0.xml",
                                      "ulog_A_B_l_0.xml"}),
            ts::ListNames(spool_));
  writer.Close();  // written: the next pass sends it
  Run();
  EXPECT_FALSE(InSpool("ulog_A_B_busy_0.rdy"));
  EXPECT_EQ("ulog_A_B_busy_0.rdy", Uploaded().back());
}

TEST_F(PassTest, RetryIntervalAndGiveUpAcrossPasses) {
  SetConfig("[settings]\nmaxretries=3\n");
  const std::string name = "ulog_A_B_k_0.rdy";
  AddLog(name, "x");
  Script(Answers(kUpload, R"({"status": 500})"));
  const std::int64_t t = std::time(nullptr);
  struct Step {
    std::int64_t at;
    std::size_t posts;  // uploads made so far
    std::uint32_t failures;
    bool kept;
  };
  const std::vector<Step> steps = {
      {t, 1, 1, true},          // first failure
      {t + 599, 1, 1, true},    // ten minutes not over: not tried
      {t + 600, 2, 2, true},    // second failure
      {t + 1300, 3, 0, false},  // third failure: given up, deleted, forgotten
  };
  for (const Step& step : steps) {
    Run(step.at);
    EXPECT_EQ(step.posts, Uploaded().size()) << step.at - t;
    EXPECT_EQ(step.failures, Failures(name)) << step.at - t;
    EXPECT_EQ(step.kept, InSpool(name)) << step.at - t;
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
                                ", \"headers\": {\"Retry-After\": " + ts::JsonString(value) +
                                "}}, {\"status\": 200}"));
    const auto posts = Uploaded().size();
    const PassSummary first = Run(t);  // the second file is not tried after the answer
    EXPECT_EQ(posts + 1, Uploaded().size()) << value;
    EXPECT_EQ(1u, Failures("ulog_A_B_first_0.rdy"));
    EXPECT_NE(std::string::npos, first.stopReason.find("retry after")) << first.stopReason;
    Run(t + 60);  // still inside the wait: no upload at all
    EXPECT_EQ(posts + 1, Uploaded().size()) << value;
    Run(t + 125);  // over: both go
    EXPECT_EQ(posts + 3, Uploaded().size()) << value;
    EXPECT_EQ(std::vector<std::string>{".LogCourierAppLock"}, ts::ListNames(spool_));
    ASSERT_TRUE(ts::WriteFile(configDir_ + "/LogCourier2.attempts", ""));
  }
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
    SetSystemPreferencesDirForTesting(system.path());
    ::unlink(PreferenceFilePath(kDomain, user, here).c_str());  // the user's switches back on
    SetConfig(c.config);
    ASSERT_TRUE(c.set()) << c.what;
    const PassSummary summary = Run();
    EXPECT_EQ(0, summary.requests) << c.what;
    EXPECT_FALSE(summary.quietReason.empty()) << c.what;
    EXPECT_TRUE(InSpool("ulog_A_B_k_0.rdy")) << c.what;
    EXPECT_TRUE(server_.Requests().empty()) << c.what;
    SetSystemPreferencesDirForTesting(system_.path());
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
            Uploaded());
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
    bool uploads;
  };
  const std::string big = "[settings]\\nmaxretries=4\\n#" + std::string(70000, 'p');
  const std::vector<Case> cases = {
      {R"({"status": 200, "body": "[settings]\noperation=Merge\nmaxretries=4\n"})",
       {"maxretries=4", "maxdiskspace=10", "operation=Merge"},
       {"maxretries=3"},
       true},
      {R"({"status": 200, "body": "[settings]\nurl=https://lumetry.quorvik.com/lumetry\n"})",
       {"url=https://lumetry.quorvik.com/lumetry"},
       {"maxdiskspace", "maxretries"},
       true},
      {R"({"status": 200, "body": "[ulog]\nstatus=Kill\n"})", {"status=Kill"}, {}, false},
      {R"({"status": 200, "body": "[ulog]\nstatus=Hibernate\nwakeupdate=2999-01-01\n"})",
       {"status=Hibernate"},
       {},
       false},
      {"{\"status\": 200, \"body\": \"" + big + "\"}", {"maxretries=3"}, {"maxretries=4"}, true},
      {R"({"status": 500, "body": "[settings]\nmaxretries=4\n"})", {"maxretries=3"}, {}, true},
      {R"({"status": 200, "body": "\u0001\u0002[\u00ff=\n=\n[]"})", {}, {}, true},
  };
  for (const Case& c : cases) {
    SetConfig("");
    AddLog("ulog_A_B_k_0.rdy", "x");
    Script(Answers(kConfig, c.answer));
    const auto before = server_.RequestLines().size();
    const PassSummary summary = Run();
    const std::string config = Config();
    for (const auto& line : c.present) EXPECT_NE(std::string::npos, config.find(line)) << config;
    for (const auto& line : c.absent) EXPECT_EQ(std::string::npos, config.find(line)) << config;
    EXPECT_EQ(!c.uploads, InSpool("ulog_A_B_k_0.rdy")) << c.answer;
    // A Kill or Hibernate received in the pass ends every further request.
    EXPECT_EQ(c.uploads ? 3u : 1u, server_.RequestLines().size() - before) << c.answer;
    EXPECT_TRUE(summary.ran);
  }
}

TEST_F(PassTest, ReAddressedServerIsUsedInTheSamePass) {
  Script(Answers(kConfig, R"({"status": 200,
      "body": "[settings]\noperation=Merge\nurl=https://up.quorvik.com/other\n"})"));
  AddLog("ulog_A_B_k_0.rdy", "x");
  Run();
  EXPECT_EQ((std::vector<std::string>{"GET " + kConfig, "GET /other/GetTarvix/",
                                      "POST /other/UploadFile/"}),
            server_.RequestLines());
}

TEST_F(PassTest, PolicyFileIsReplacedWholeOrLeftAlone) {
  const std::string path = GetTarvixPolicyPath();
  const std::string policy = "<policy>one</policy>\n";
  struct Case {
    std::string answer;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"{\"status\": 200, \"body\": " + ts::JsonString(policy) + "}", policy},
      {R"({"status": 204})", policy},
      {R"({"status": 404})", policy},
      {R"({"status": 500, "body": "broken"})", policy},
      {R"({"status": 200, "body_size": 1048577})", policy},  // one byte over the cap
      {R"({"action": "close"})", policy},
      {R"({"status": 200, "body_size": 1048576})", std::string(1048576, 'x')},
  };
  for (const Case& c : cases) {
    Script(Answers(kPolicy, c.answer));
    Run();
    std::string stored;
    EXPECT_TRUE(ts::ReadFile(path, &stored)) << c.answer;
    EXPECT_TRUE(stored == c.expected) << c.answer << " gave " << stored.size() << " bytes";
    // Written through a temporary file that is renamed: none is left behind.
    EXPECT_EQ(std::vector<std::string>{"tarvix_policy.xml"},
              ts::ListNames(path.substr(0, path.rfind('/'))));
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

TEST_F(PassTest, DamagedLedgerIsToleratedAndForgottenFilesDropped) {
  AddLog("ulog_A_B_k_0.rdy", "x");
  std::string junk = "2 " + std::to_string(std::time(nullptr)) + " ulog_A_B_k_0.rdy\n";
  junk += "9 1 ulog_gone_x_0.rdy\nnotbefore -5\n\xff\xfe garbage\x01line\n";
  const char withNul[] = "1 2 ulog_nul\0_0.rdy\n99999999999999999999 1 ulog_A_B_k_0.rdy\n";
  junk.append(withNul, sizeof withNul - 1);
  ASSERT_TRUE(ts::WriteFile(configDir_ + "/LogCourier2.attempts", junk));
  const PassSummary summary = Run();
  EXPECT_EQ(1, summary.waiting);  // the readable record still counts
  EXPECT_TRUE(Uploaded().empty());
  std::string ledger;
  ASSERT_TRUE(ts::ReadFile(configDir_ + "/LogCourier2.attempts", &ledger));
  EXPECT_EQ(std::string::npos, ledger.find("gone")) << ledger;
  EXPECT_EQ(2u, Failures("ulog_A_B_k_0.rdy"));
}

}  // namespace
