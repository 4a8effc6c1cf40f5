// The uploader's passes, of the library and of the built LogCourier2, against a real HTTPS
// server (courier_test_server.py) on a loopback port; then its pieces on their own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "AttemptLedger.h"
#include "CurlTransport.h"
#include "ExclusiveFile.h"
#include "Mac/LogCourUtilsMac.h"
#include "Pass.h"
#include "Preferences.h"
#include "Reporter.h"
#include "RetryAfter.h"
#include "ServerAddress.h"
#include "SpoolScan.h"
#include "TestSupport.h"
#include "UploaderConfig.h"
#include "Uploads.h"

namespace {

namespace ts = testing_support;
using namespace Courier;
using Lines = std::vector<std::string>;

const std::string kProgram = COURIER_PROGRAM;
const std::string kDomain = "com.quorvik.lumetryqx";
const std::string kUpload = "/lumetry/UploadFile/";
const std::string kConfig = "/lumetry/GetConfig/";
const std::string kPolicy = "/lumetry/GetTarvix/";
const std::string kClose = R"({"status": 204, "close": true})";
const std::string kPass = "GET " + kConfig + " GET " + kPolicy + " POST " + kUpload;
const std::string kDefaults =
    "[settings]\nmaxdiskspace=10\nmaxretries=3\nretryinterval=10\n"
    "url=https://lumetry.quorvik.com/lumetry\n[ulog]\nstatus=Active\n";

std::string Answers(const std::string& path, const std::string& answers) {
  return "\"" + path + "\": [" + answers + "]";
}
bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}
std::string Join(const Lines& lines) {  // "a b c"
  std::string all;
  for (const auto& line : lines) all += (all.empty() ? "" : " ") + line;
  return all;
}
std::string Outcome(const ts::RunResult& run) {  // "status|out|err"
  return std::to_string(run.status) + "|" + run.out + "|" + run.err;
}

struct Request {
  std::string head;  // "METHOD PATH", then "name: value" lines, names lower-cased
  std::string body;
};

// A temporary home with a spool and a configuration file, and the test server, killed with
// the fixture; its ca.pem signed the certificate it shows, other/ca.pem signed nothing.
class PassTest : public ::testing::Test {
 protected:
  void SetUp() override {
    pid_ = ts::StartProgram({PYTHON_PROGRAM, COURIER_SERVER_SCRIPT, "--dir", srv_.path()});
    for (int i = 0; i < 300 && !ts::PathExists(srv_.Sub("port")); ++i) ::usleep(50000);
    ASSERT_TRUE(ts::PathExists(srv_.Sub("port")));
    ASSERT_TRUE(ts::MakeDirs(spool_));
    SetConfig("");
  }
  void TearDown() override { StopServer(); }
  void StopServer() {  // each request is on disk before it is answered: nothing is lost
    if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  // A "--connect-to" value that brings requests meant for `from` (":" for any) here.
  std::string ConnectTo(const std::string& from = ":") const {
    return from + ":127.0.0.1:" + ts::Contents(srv_.Sub("port"));
  }
  void Script(const std::string& body) const {
    ASSERT_TRUE(ts::WriteFile(srv_.Sub("s.tmp"), "{" + body + "}"));
    ASSERT_EQ(0, std::rename(srv_.Sub("s.tmp").c_str(), srv_.Sub("script.json").c_str()));
  }
  std::vector<Request> Requests() const {
    std::vector<Request> all;
    for (const std::string& name : ts::ListNames(srv_.Sub("requests"))) {
      const std::string base = srv_.Sub("requests/" + name.substr(0, name.find('.')));
      if (name.substr(name.find('.')) == ".head") {  // its body is on disk before it
        all.push_back({ts::Contents(base + ".head"), ts::Contents(base + ".body")});
      }
    }
    return all;
  }
  std::string NewRequests() {  // "METHOD PATH ..." of the requests since the last call
    Lines lines;
    for (const Request& r : Requests()) lines.push_back(r.head.substr(0, r.head.find('\n')));
    const auto seen = std::exchange(seen_, lines.size());
    return Join(Lines(lines.begin() + static_cast<long>(seen), lines.end()));
  }
  std::string Uploaded() const {  // the "filename" of each upload, in order
    Lines names;
    for (const Request& r : Requests()) {
      const auto at = r.body.find("filename=\"") + 10;
      if (Has(r.body, "filename=\"")) names.push_back(r.body.substr(at, r.body.find('"', at) - at));
    }
    return Join(names);
  }
  void SetConfig(const std::string& s) { ASSERT_TRUE(ts::WriteFile(cfg_ + ".cfg", kDefaults + s)); }
  void SetLedger(const std::string& text) { ASSERT_TRUE(ts::WriteFile(cfg_ + ".attempts", text)); }
  std::string AddLog(const std::string& name, const std::string& bytes = "x", long age = 600) {
    EXPECT_TRUE(ts::WriteFile(spool_ + "/" + name, bytes) && ts::AgeFile(spool_ + "/" + name, age));
    return spool_ + "/" + name;
  }
  bool InSpool(const std::string& name) const { return ts::PathExists(spool_ + "/" + name); }
  std::string Spool() const { return Join(ts::ListNames(spool_)); }
  // Whether the saved configuration has each "+line" and lacks each "-line" of `lines`.
  void ExpectConfig(const std::string& lines) const {
    const std::string config = ts::Contents(cfg_ + ".cfg");
    std::istringstream words(lines);
    for (std::string w; words >> w;) EXPECT_EQ(w[0] == '+', Has(config, w.substr(1))) << w;
  }
  PassSummary Run(std::int64_t now = 0, bool dryRun = false, const char* ca = "ca.pem",
                  long totalMs = 20000) {
    const TransportSettings net{
        "LogCourier2/test (Linux)", "TEST-MACHINE", ConnectTo(), srv_.Sub(ca), 5000, totalMs};
    const auto clock = now == 0 ? nullptr : std::function<std::int64_t()>([now] { return now; });
    Reporter report(false, nullptr);
    return RunPass({dryRun, "", clock, [net] { return MakeCurlTransport(net); }}, report);
  }
  std::uint32_t Failures(const std::string& name) const {  // 0 when it has no record
    const AttemptLedger ledger = AttemptLedger::Load(cfg_ + ".attempts");  // owns the record
    const auto* attempts = ledger.Find(name);
    return attempts == nullptr ? 0 : attempts->failures;
  }
  Lines Cli(const Lines& extra = {}) const {
    Lines argv = {kProgram, "--connect-to", ConnectTo("lumetry.quorvik.com:443"), "--cacert",
                  srv_.Sub("ca.pem")};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return argv;
  }

  ts::ScopedHome home_;
  ts::ScopedTempDir system_;
  const ts::ScopedOverride systemPrefs_{&SetSystemPreferencesDirForTesting, system_.path()};
  ts::ScopedTempDir srv_;
  pid_t pid_ = -1;
  std::size_t seen_ = 0;
  const std::string spool_ = home_.Library() + "/Logs/Quorvik/LogCourier2QX";
  const std::string cfg_ =
      home_.Library() + "/Application Support/Quorvik/LogCourier2QX/LogCourier2";
};

TEST_F(PassTest, ServerAnswerDecidesTheFile) {
  // The answer, and whether the file is gone; a kept file counts one failure. A huge body
  // is not read; a dropped connection, an answer that is not HTTP, or none in time keep it.
  const std::vector<std::pair<std::string, bool>> cases = {
      {R"({"status": 200})", true},
      {R"({"status": 200, "body_size": 20000000})", true},
      {R"({"status": 500})", false},
      {R"({"status": 408})", false},
      {R"({"status": 429})", false},
      {R"({"status": 302, "headers": {"Location": "/lumetry/Elsewhere/"}})", false},
      {R"({"status": 400})", true},
      {R"({"action": "close"})", false},
      {R"({"action": "garbage"})", false},
      {R"({"status": 200, "delay": 6})", false}};
  for (const auto& [answer, deleted] : cases) {
    AddLog("ulog_A_B_K_1_0.rdy");
    // A fresh connection: on a reused one, a drop with no answer is tried once more.
    Script(Answers(kUpload, answer) + "," + Answers(kPolicy, kClose));
    Run(0, false, "ca.pem", 2500);
    EXPECT_EQ(!deleted, InSpool("ulog_A_B_K_1_0.rdy")) << answer;
    EXPECT_EQ(deleted ? 0u : 1u, Failures("ulog_A_B_K_1_0.rdy")) << answer;
    EXPECT_EQ(kPass, NewRequests()) << answer;  // a redirect is never followed
    SetLedger("");
  }
}

TEST_F(PassTest, OldestFirstAndFilesBeingWrittenLeftAlone) {
  AddLog("ulog_A_B_middle_0.xml", "2", 200);
  AddLog("ulog_A_B_newest_0.xml", "3", 100);
  AddLog("ulog_A_B_oldest_0.rdy", "1", 300);
  ExclusiveFile writer = ExclusiveFile::OpenExclusive(AddLog("ulog_A_B_busy_0.rdy", "w", 400));
  // Not usage logs, or not regular files: never sent, never deleted.
  ASSERT_TRUE(ts::MakeDirs(spool_ + "/ulog_A_B_dir_0.rdy"));
  AddLog("elsewhere.xml");
  AddLog("ulog_A_B_c.txt");
  ASSERT_EQ(0, ::symlink("elsewhere.xml", (spool_ + "/ulog_A_B_l_0.xml").c_str()));
  ASSERT_EQ(0, ::mkfifo((spool_ + "/ulog_A_B_fifo_0.xml").c_str(), 0600));
  EXPECT_EQ(1, Run().busy);
  EXPECT_EQ("ulog_A_B_oldest_0.rdy ulog_A_B_middle_0.xml ulog_A_B_newest_0.xml", Uploaded());
  EXPECT_EQ(
      ".LogCourierAppLock elsewhere.xml ulog_A_B_busy_0.rdy ulog_A_B_c.txt "
      "ulog_A_B_dir_0.rdy ulog_A_B_fifo_0.xml ulog_A_B_l_0.xml",
      Spool());
  writer.Close();  // written: the next pass sends it
  Run();
  EXPECT_FALSE(InSpool("ulog_A_B_busy_0.rdy"));
  EXPECT_TRUE(Has(Uploaded(), "newest_0.xml ulog_A_B_busy_0.rdy"));
}

TEST_F(PassTest, RetryIntervalAndGiveUpAcrossPassesOverADamagedLedger) {
  SetConfig("[settings]\nmaxretries=4\n");
  AddLog("ulog_A_B_k_0.rdy");
  Script(Answers(kUpload, R"({"status": 500})"));
  const std::int64_t t = std::time(nullptr);
  // One readable record of the file amid damage, and one of a file that is gone.
  const char damage[] =
      "9 1 ulog_gone_x_0.rdy\nnotbefore -5\n\xff\xfe garbage\x01line\n"
      "1 2 ulog_nul\0_0.rdy\n99999999999999999999 1 ulog_A_B_k_0.rdy\n";
  SetLedger("1 " + std::to_string(t - 700) + " ulog_A_B_k_0.rdy\n" +
            std::string(damage, sizeof damage - 1));
  // When the pass runs; then whether it uploads, the failures counted, whether the file is kept.
  const std::vector<std::tuple<std::int64_t, bool, std::uint32_t, bool>> steps = {
      {t, true, 2, true},          // the old failure is ten minutes past: tried again
      {t + 599, false, 2, true},   // ten minutes not over: not tried
      {t + 600, true, 3, true},    // third failure
      {t + 1300, true, 0, false},  // fourth failure: given up, deleted, forgotten
  };
  for (const auto& [at, tried, failures, kept] : steps) {
    Run(at);
    EXPECT_EQ(tried, Has(NewRequests(), "POST")) << at - t;
    EXPECT_EQ(failures, Failures("ulog_A_B_k_0.rdy")) << at - t;
    EXPECT_EQ(kept, InSpool("ulog_A_B_k_0.rdy")) << at - t;
    EXPECT_FALSE(Has(ts::Contents(cfg_ + ".attempts"), "gone"));
  }
}

TEST_F(PassTest, RetryAfterHoldsUploadsAcrossPasses) {
  SetConfig("[settings]\nretryinterval=1\n");
  const std::int64_t t = std::time(nullptr);
  AddLog("ulog_A_B_first_0.rdy", "1", 300);
  AddLog("ulog_A_B_second_0.rdy", "2", 200);
  Script(Answers(kUpload, R"({"status": 503, "headers": {"Retry-After": "120"}})"));
  const PassSummary first = Run(t);  // the second file is not tried after the answer
  EXPECT_EQ("ulog_A_B_first_0.rdy", Uploaded());
  EXPECT_EQ(1u, Failures("ulog_A_B_first_0.rdy"));
  EXPECT_TRUE(Has(first.stopReason, "retry after")) << first.stopReason;
  Script("");
  Run(t + 60);  // still inside the wait: no upload at all
  EXPECT_EQ("ulog_A_B_first_0.rdy", Uploaded());
  Run(t + 125);  // over: both go
  EXPECT_EQ("ulog_A_B_first_0.rdy ulog_A_B_first_0.rdy ulog_A_B_second_0.rdy", Uploaded());
}

TEST_F(PassTest, DiskBudgetDeletesOldestButNeverALockedFile) {
  SetConfig("[settings]\nmaxdiskspace=5\n");
  ASSERT_TRUE(SetPreferenceNumber("send", kDomain, 0, PrefUser::kCurrentUser,
                                  PrefHost::kCurrentHost));  // budget only, no network
  const std::string mib2(std::size_t{2} << 20, 'b');
  ExclusiveFile writer = ExclusiveFile::OpenExclusive(AddLog("ulog_A_B_1_0.rdy", mib2, 500));
  AddLog("ulog_A_B_2_0.rdy", mib2, 400);
  AddLog("ulog_A_B_3_0.rdy", mib2, 300);
  AddLog("ulog_A_B_4_0.rdy", "small", 200);
  EXPECT_EQ(1, Run(0, true).budgetDeleted);  // a dry run deletes nothing
  EXPECT_TRUE(InSpool("ulog_A_B_2_0.rdy"));
  EXPECT_EQ(1, Run().budgetDeleted);
  EXPECT_EQ(".LogCourierAppLock ulog_A_B_1_0.rdy ulog_A_B_3_0.rdy ulog_A_B_4_0.rdy", Spool());
}

// One connection per pass; a server closing it after each answer still gets every file, no
// attempt counted; a file of 20 MiB is streamed whole.
TEST_F(PassTest, OneConnectionPerPassEveryFileWhole) {
  for (const bool closing : {false, true}) {
    for (int i = 0; i < 4; ++i) AddLog("ulog_A_B_" + std::to_string(i) + "_0.rdy");
    Script(closing ? Answers(kConfig, kClose) + "," + Answers(kPolicy, kClose) + "," +
                         Answers(kUpload, R"({"status": 200, "close": true})")
                   : "");
    const std::size_t before = Requests().size();
    EXPECT_EQ(4, Run().sent);
    const auto requests = Requests();
    ASSERT_EQ(before + 6, requests.size());
    const auto connection = [](const Request& r) { return r.head.substr(r.head.rfind(' ')); };
    EXPECT_EQ(closing ? 5 : 0,
              std::stoi(connection(requests.back())) - std::stoi(connection(requests[before])))
        << closing;
    EXPECT_EQ(0u, Failures("ulog_A_B_0_0.rdy"));
  }
  std::string big(20 << 20, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 % 251);
  AddLog("ulog_A_B_big_0.rdy", big);
  SetConfig("[settings]\nmaxdiskspace=100\n");  // room for it in the spool's budget
  Script("");
  EXPECT_EQ(1, Run().sent);
  const std::string body = Requests().back().body;
  EXPECT_TRUE(Has(body, big));
  EXPECT_GT(big.size() + 400, body.size());
}

TEST_F(PassTest, NothingIsSentWhileAnySwitchSaysNo) {
  const auto user = PrefUser::kCurrentUser;
  const auto here = PrefHost::kCurrentHost;
  // The configuration, and the preference switched off ("" for none).
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "send"},
      {"", "optin"},
      {"", "Enabled"},
      {"[ulog]\nstatus=Kill\n", ""},
      {"[ulog]\nstatus=Hibernate\nwakeupdate=2999-01-01\n", ""}};
  AddLog("ulog_A_B_k_0.rdy");
  for (const auto& [config, off] : cases) {
    ts::ScopedTempDir system;  // a fresh any-user store per case
    systemPrefs_.Set(system.path());
    ::unlink(PreferenceFilePath(kDomain, user, here).c_str());  // the user's switches back on
    SetConfig(config);
    ASSERT_TRUE(SetPreferenceString("PersonGUID", kDomain, "P-7", user, here));
    if (off == "optin") {
      ASSERT_TRUE(SetPreferenceDictionaryNumber("P-7", "optin", kDomain, 0, user, here));
    } else if (!off.empty()) {
      ASSERT_TRUE(SetPreferenceNumber(off, off == "send" ? kDomain : "com.quorvik.lumetry.apipqx",
                                      0, off == "send" ? user : PrefUser::kAnyUser, here));
    }
    const PassSummary summary = Run();
    EXPECT_TRUE(summary.requests == 0 && !summary.quietReason.empty()) << off << config;
    EXPECT_TRUE(InSpool("ulog_A_B_k_0.rdy") && Requests().empty()) << off << config;
  }
}

TEST_F(PassTest, PausesEndOnTheirDateAndItemPausesHoldTheirFilesOnly) {
  // A pause that ended yesterday: the pass goes on and the file forgets it.
  SetConfig(
      "[ulog]\nstatus=Hibernate\nwakeupdate=2001-01-01\n"
      "[hibernate]\nlumetryqx_appcrash=x|2999-01-01\nold_item=x|2001-01-01\n");
  AddLog("ulog_LumetryQX_AppCrash_K_1_0.rdy");
  AddLog("ulog_Old_Item_K_1_0.rdy");
  AddLog("ulog_Other_Thing_K_1_0.rdy");
  EXPECT_EQ(1, Run().paused);
  EXPECT_EQ("ulog_Old_Item_K_1_0.rdy ulog_Other_Thing_K_1_0.rdy", Uploaded());
  EXPECT_TRUE(InSpool("ulog_LumetryQX_AppCrash_K_1_0.rdy"));
  ExpectConfig("+status=Active -wakeupdate +lumetryqx_appcrash=x|2999-01-01 -old_item");
}

TEST_F(PassTest, ConfigurationAnswersAreMergedReplacedOrIgnored) {
  const std::string big = "[settings]\\nmaxretries=4\\n#" + std::string(70000, 'p');
  // The answer, lines expected ("+") and not ("-") in the saved file, the requests after it.
  const std::string kOn = " GET " + kPolicy + " POST " + kUpload;
  const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
      {R"("[settings]\noperation=Merge\nmaxretries=4\n")",
       "+maxretries=4 +maxdiskspace=10 +operation=Merge -maxretries=3", kOn},
      {R"("[settings]\nurl=https://lumetry.quorvik.com/lumetry\n")",
       "+url=https://lumetry.quorvik.com/lumetry -maxdiskspace -maxretries", kOn},
      // A new server address is used in the same pass.
      {R"("[settings]\noperation=Merge\nurl=https://up.quorvik.com/o\n")",
       "+url=https://up.quorvik.com/o", " GET /o/GetTarvix/ POST /o/UploadFile/"},
      // A Kill or Hibernate received in the pass ends every further request.
      {R"("[ulog]\nstatus=Kill\n")", "+status=Kill", ""},
      {R"("[ulog]\nstatus=Hibernate\nwakeupdate=2999-01-01\n")", "+status=Hibernate", ""},
      {"\"" + big + "\"", "+maxretries=3 -maxretries=4", kOn},
      {R"("[settings]\nmaxretries=4\n", "status": 500)", "+maxretries=3", kOn},
      {R"("\u0001\u0002[\u00ff=\n=\n[]")", "", kOn},
  };
  for (const auto& [answer, config, base] : cases) {
    SetConfig("");
    AddLog("ulog_A_B_k_0.rdy");
    Script(Answers(kConfig, "{\"body\": " + answer + "}"));
    EXPECT_TRUE(Run().ran);
    ExpectConfig(config);
    EXPECT_EQ(base.empty(), InSpool("ulog_A_B_k_0.rdy")) << answer;
    EXPECT_EQ("GET " + kConfig + base, NewRequests()) << answer;
  }
}

TEST_F(PassTest, PolicyFileIsReplacedWholeOrLeftAlone) {
  const std::string path = GetTarvixPolicyPath();
  const std::string policy = "<policy>one</policy>\n";
  // The answer and the policy file afterwards; 1048577 bytes are one over the cap.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"status": 200, "body": "<policy>one</policy>\n"})", policy},
      {R"({"status": 204})", policy},
      {R"({"status": 500, "body": "broken"})", policy},
      {R"({"status": 200, "body_size": 1048577})", policy},
      {R"({"action": "close"})", policy},
      {R"({"status": 200, "body_size": 1048576})", std::string(1048576, 'x')}};
  for (const auto& [answer, expected] : cases) {
    Script(Answers(kPolicy, answer));
    Run();
    EXPECT_TRUE(ts::Contents(path) == expected) << answer << " gave " << ts::Contents(path).size();
    // Written through a temporary file that is renamed: none is left behind.
    EXPECT_EQ(Lines{"tarvix_policy.xml"}, ts::ListNames(path.substr(0, path.rfind('/'))));
  }
}

TEST_F(PassTest, NoRequestLeavesForARefusedAddressOrAnUntrustedServer) {
  const std::string sneaky = "https://evil.example.org/x?https://a.quorvik.com/";
  ASSERT_TRUE(Uploader::IsAllowedServerUrl(sneaky));  // the unanchored patterns let it by
  SetConfig("[settings]\nurl=" + sneaky + "\n");
  AddLog("ulog_A_B_k_0.rdy");
  PassSummary summary = Run();
  EXPECT_EQ(0, summary.requests);
  EXPECT_TRUE(Has(summary.quietReason, "not allowed")) << summary.quietReason;
  SetConfig("");
  EXPECT_EQ(1, Run(0, false, "other/ca.pem").requests);  // the handshake fails: no more
  EXPECT_TRUE(Requests().empty());
  StopServer();  // the server is down: one refused connection ends the pass
  summary = Run();
  EXPECT_EQ(1, summary.requests);
  EXPECT_TRUE(Has(summary.stopReason, "cannot be reached"));
  EXPECT_TRUE(InSpool("ulog_A_B_k_0.rdy") && Failures("ulog_A_B_k_0.rdy") == 0);
}

TEST_F(PassTest, ProgramSendsTheExactMultipartUploadSilently) {
  ::unlink((cfg_ + ".cfg").c_str());  // the built-in configuration
  const std::string name = "ulog_LumetryQX_AppCrash_K7F3_SESS-1_0.rdy";
  // Stored bytes go out as they are: marker, line ends, NUL, high bytes.
  const char raw[] = "K-Q$mw#$zRTd8pofupinbody\r\n--not-a-boundary\0\xff\n";
  const std::string stored(raw, sizeof raw - 1);
  AddLog(name, stored);
  EXPECT_EQ("0||", Outcome(ts::RunProgram(Cli({"crash"}))));  // silent
  EXPECT_FALSE(InSpool(name));
  std::string machineId;  // made by the program in the user's preferences
  ASSERT_TRUE(GetPreferenceString("MachineID", kDomain, &machineId, PrefUser::kCurrentUser,
                                  PrefHost::kCurrentHost));
  EXPECT_EQ(36u, machineId.size());
  const auto requests = Requests();
  ASSERT_EQ(3u, requests.size());
  const std::string& head = requests[2].head;
  const auto at = head.find("boundary=") + 9;
  const std::string boundary = head.substr(at, head.find('\n', at) - at);
  const std::string expected = "--" + boundary +
                               "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
                               name + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" +
                               stored + "\r\n--" + boundary + "--\r\n";
  EXPECT_EQ(expected, requests[2].body);
  const std::string common =
      "\nhost: lumetry.quorvik.com\nuser-agent: LogCourier2/" LUMETRY_TEST_VERSION
      " (Linux)\naccept: */*\nx-lumetry-machine-id: " +
      machineId + "\n";
  EXPECT_EQ("GET " + kConfig + common + "x-test-connection: 1\n", requests[0].head);
  EXPECT_EQ("GET " + kPolicy + common + "x-test-connection: 1\n", requests[1].head);
  EXPECT_EQ("POST " + kUpload + common + "content-length: " + std::to_string(expected.size()) +
                "\ncontent-type: multipart/form-data; boundary=" + boundary +
                "\nx-test-connection: 1\n",
            head);
}

// One pass at a time; a dry run changes nothing; a pass killed awaiting an answer leaves its work.
TEST_F(PassTest, ProgramOnePassAtATimeDryRunAndKilledPass) {
  AddLog("ulog_A_B_k_0.xml", "<x/>", 200);
  AddLog("ulog_A_B_l_0.xml", "<y/>", 100);
  const int fd = ::open((spool_ + "/.LogCourierAppLock").c_str(), O_RDONLY | O_CREAT, 0600);
  ASSERT_EQ(0, ::flock(fd, LOCK_EX | LOCK_NB));  // a pass is running
  const auto second = ts::RunProgram(Cli({"--verbose"}));
  ::close(fd);
  const auto dry = ts::RunProgram(Cli({"--verbose", "--dry-run", "manual"}));
  for (const auto& [run, line] : std::vector<std::pair<ts::RunResult, std::string>>{
           {second, "another pass holds the lock"},
           {dry, "LogCourier2: pass started (manual)\n"},
           {dry, "would send ulog_A_B_k_0.xml (4 bytes)"},
           {dry, "pass done: sent 0,"}}) {
    EXPECT_TRUE(Outcome(run).substr(0, 3) == "0||" && Has(run.err, line)) << Outcome(run);
  }
  EXPECT_TRUE(Requests().empty());
  Script(Answers(kUpload, R"({"status": 200, "delay": 5})"));
  const pid_t pid = ts::StartProgram(Cli());  // HOME is the test's home, inherited
  for (int i = 0; i < 200 && Requests().size() < 3; ++i) ::usleep(25000);
  ASSERT_EQ(3u, Requests().size());  // the first upload is out, its answer not yet
  ::kill(pid, SIGKILL);
  ASSERT_EQ(pid, ::waitpid(pid, nullptr, 0));
  Script("");
  EXPECT_EQ(0, ts::RunProgram(Cli()).status);  // the lock died with the process
  // Only the file whose answer never arrived went out twice.
  EXPECT_EQ("ulog_A_B_k_0.xml ulog_A_B_k_0.xml ulog_A_B_l_0.xml", Uploaded());
  EXPECT_EQ(".LogCourierAppLock", Spool());
}

// --status names and carries (in JSON) each state of a log, changing nothing, asking nothing.
TEST_F(PassTest, ProgramStatusNamesWhyEachLogWaits) {
  ASSERT_TRUE(ts::WriteFile(cfg_ + ".cfg",
                            "[settings]\nretryinterval=60\n[ulog]\nstatus=Hibernate\n"
                            "wakeupdate=2099-01-01\n[hibernate]\nA_B=x|2099-02-03\n"));
  const long now = static_cast<long>(std::time(nullptr));
  SetLedger("notbefore " + std::to_string(now + 3600) + "\n2 " + std::to_string(now) +
            " ulog_X_Y_failed_0.rdy\n");
  for (const char* name : {"ulog_X_Y_failed_0.rdy", "ulog_A_B_paused_0.rdy", "ulog_X_Y_busy_0.xml"})
    AddLog(name, "12345");
  ExclusiveFile writer = ExclusiveFile::OpenExclusive(spool_ + "/ulog_X_Y_busy_0.xml");
  ASSERT_TRUE(
      SetPreferenceNumber("send", kDomain, 0, PrefUser::kCurrentUser, PrefHost::kCurrentHost));
  const std::string sessions = home_.Library() + "/Logs/Quorvik/LumetryQX/SessionInfo/";
  ASSERT_TRUE(ts::WriteFile(sessions + "1_F_N_S_K_x_y_p.info", ""));  // pid 1 started first
  ASSERT_TRUE(ts::WriteFile(sessions + "__999999999__F_N_S_K_x_y_p.info", ""));  // no such pid
  const auto text = ts::RunProgram({kProgram, "--status"});
  const auto doc = nlohmann::json::parse(ts::RunProgram({kProgram, "--status", "--json"}).out);
  EXPECT_EQ(0, text.status) << text.err;
  for (const char* fact :
       {"3 usage logs, 15 bytes", "ulog_X_Y_failed_0.rdy: 5 bytes, 2 failed attempts, next try ",
        "ulog_A_B_paused_0.rdy: 5 bytes, item paused until 2099-02-03",
        "ulog_X_Y_busy_0.xml: 5 bytes, locked", "Sending: no: sending is switched off",
        "Status: Hibernate until 2099-01-01", "Retry-After: no upload before ",
        "Server: https://lumetry.quorvik.com/lumetry", "1 live, 1 orphaned",
        "Last pass: none recorded"}) {
    EXPECT_TRUE(Has(text.out, fact)) << fact << "\n" << text.out;
  }
  for (const auto& log : doc["spool"]["logs"]) {
    EXPECT_EQ(log["name"] == "ulog_X_Y_failed_0.rdy" ? 2 : 0, log["failedAttempts"]) << log;
    EXPECT_EQ(log["name"] == "ulog_X_Y_busy_0.xml", log["locked"]) << log;
  }
  EXPECT_TRUE(doc["spool"]["files"] == 3 && doc["status"] == "Hibernate" &&
              doc["retryAfter"] == now + 3600 && doc["sessions"]["orphaned"] == 1)
      << doc.dump();
  EXPECT_TRUE(Requests().empty());
  EXPECT_EQ("ulog_A_B_paused_0.rdy ulog_X_Y_busy_0.xml ulog_X_Y_failed_0.rdy", Spool());
  // A pass records its time and summary for the view.
  ASSERT_EQ(0, ts::RunProgram(Cli()).status);
  const auto after = nlohmann::json::parse(ts::RunProgram({kProgram, "--status", "--json"}).out);
  EXPECT_TRUE(Has(after["lastPass"]["summary"].get<std::string>(), "orphaned sessions swept 1"));
}

TEST(UploaderProgramTest, InstallsWhereTheLauncherLooksAndReadsItsArguments) {
  ts::ScopedTempDir prefix;
  const auto install = ts::RunProgram(
      {CMAKE_PROGRAM, "--install", BUILD_DIR, "--prefix", prefix.path(), "--component", "courier"});
  ASSERT_EQ(0, install.status) << install.out << install.err;
  const std::string program = prefix.Sub("lib/lumetry/LogCourier2.app/Contents/MacOS/LogCourier2");
  EXPECT_EQ("0|LogCourier2 " LUMETRY_TEST_VERSION "\n|", Outcome(ts::RunProgram({program, "-V"})));
  EXPECT_EQ("LogCourier2 " LUMETRY_TEST_VERSION "\n", ts::RunProgram({kProgram, "--version"}).out);
  SetUploaderLocationHint(prefix.Sub("lib/lumetry/").c_str());  // as a host application does
  EXPECT_EQ(program, LocateUploaderExecutable());
  const std::string units = prefix.Sub("lib/systemd/user/logcourier2.");
  EXPECT_TRUE(Has(ts::Contents(units + "service"), "\nExecStart=" + program + " service\n"));
  EXPECT_TRUE(
      Has(ts::Contents(units + "path"), "\nPathChanged=%h/Library/Logs/Quorvik/LogCourier2QX\n"));
  EXPECT_TRUE(ts::PathExists(units + "timer"));
  // Help, version, and the usage errors.
  const std::string usage = "Usage: LogCourier2 [--verbose]";
  EXPECT_EQ("0|" + usage,
            Outcome(ts::RunProgram({kProgram, "--help"})).substr(0, usage.size() + 2));
  const std::vector<std::pair<Lines, std::string>> errors = {
      {{kProgram, "--x"}, "unrecognized option '--x'"},
      {{kProgram, "--x=1"}, "unrecognized option '--x=1'"},
      {{kProgram, "--cacert"}, "option '--cacert' requires an argument"},
      {{kProgram, "-z"}, "invalid option -- 'z'"},
      {{kProgram, "one", "two"}, "unexpected argument 'two'"}};
  for (const auto& [argv, message] : errors) {
    EXPECT_EQ("2||LogCourier2: " + message + "\nTry 'LogCourier2 --help'.\n",
              Outcome(ts::RunProgram(argv)));
  }
}

// What a piece makes of an input, as text: 'u' the strict server-address check, 'r' the
// Retry-After value (the time it gives, at `kNow`), 'n' the usage-log name check, 'i' the
// item of a name, 'l' the records of an attempt ledger file read back after one more, 'v' the
// verdict on a status (0 accepted, 1 retry, 2 refused).
constexpr std::int64_t kNow = 1700000000;  // Tue, 14 Nov 2023 22:13:20 GMT
std::string Piece(char kind, const std::string& in) {
  std::int64_t until = -1;
  std::string family = "-", item;
  if (kind == 'r') return RetryAfterUntil(in, kNow, &until) ? std::to_string(until - kNow) : "no";
  if (kind == 'i') return ItemOfName(in, &family, &item) ? family + "/" + item : "no";
  if (kind == 'v') return std::to_string(static_cast<int>(VerdictForStatus(std::stol(in))));
  if (kind != 'l') return (kind == 'u' ? IsStrictServerUrl(in) : IsUsageLogName(in)) ? "1" : "0";
  ts::ScopedTempDir dir;
  EXPECT_TRUE(ts::WriteFile(dir.Sub("ledger"), in));
  AttemptLedger ledger = AttemptLedger::Load(dir.Sub("ledger"));
  ledger.RecordFailure("ulog_fresh.rdy", 999999);
  const std::string saved = ledger.Serialize();
  return std::to_string(std::count(saved.begin(), saved.end(), '\n')) +
         (Has(saved, "ulog_fresh.rdy") ? "" : " lost the fresh one") +
         (Has(saved, "ulog_100000.rdy") ? " kept the oldest" : "");
}

TEST(UploaderPiecesTest, EachInputGivesItsAnswer) {
  std::string many;  // too many: the most recent failures are kept, within the cap
  for (std::size_t i = 0; i < AttemptLedger::kMaxEntries + 10; ++i) {
    many += "1 " + std::to_string(1000 + i) + " ulog_" + std::to_string(100000 + i) + ".rdy\n";
  }
  const std::string max = std::to_string(kMaxRetryAfterSeconds);
  const std::vector<std::tuple<char, std::string, std::string>> cases = {
      {'u', "https://lumetry.quorvik.com/lumetry", "1"},
      {'u', "https://a.b.quorvik.com/x/", "1"},
      {'u', "https://LUMETRY.Quorvik.COM/lumetry?https://a.quorvik.com/", "1"},
      {'u', "http://localhost/lumetry", "1"},
      {'u', "https://a.quorvik.com:8443/x/", "0"},  // the patterns want the path after the domain
      {'u', "http://lumetry.quorvik.com/lumetry", "0"},  // plain http only to localhost
      {'u', "https://localhost/lumetry?https://a.quorvik.com/", "0"},
      {'u', "https://evil.org/x?https://a.quorvik.com/", "0"},
      {'u', "https://quorvik.com.evil.org/?https://a.quorvik.com/", "0"},
      {'u', "https://evilquorvik.com/?https://a.quorvik.com/", "0"},
      {'u', "https://user@a.quorvik.com/", "0"},
      {'u', "ftp://a.quorvik.com/?https://a.quorvik.com/", "0"},
      {'u', "xhttps://a.quorvik.com/", "0"},
      {'u', "https://a.quorvik.com", "0"},  // the configuration's patterns want a path
      {'u', "", "0"},
      {'r', "0", "0"},
      {'r', "120", "120"},
      {'r', "99999999999999999999999", max},
      {'r', "Tue, 14 Nov 2023 22:15:20 GMT", "120"},
      {'r', "Tuesday, 14-Nov-23 22:15:20 GMT", "120"},
      {'r', "Tue, 14 Nov 2023 22:00:00 GMT", "0"},  // already past
      {'r', "Tue, 14 Nov 2033 22:00:00 GMT", max},
      {'r', "", "no"},
      {'r', "-5", "no"},
      {'r', "soon", "no"},
      {'n', "ulog_a.rdy", "1"},
      {'n', "ulog_LumetryQX_AppCrash_k_1_0.xml", "1"},
      {'n', "ulog_.rdy", "0"},
      {'n', "ulog_a.rdy.tmp", "0"},
      {'n', "xulog_a.rdy", "0"},
      {'n', "Ulog_a.rdy", "0"},
      {'n', "ulog_a\nb.rdy", "0"},
      {'n', "ulog_a.RDY", "0"},
      {'i', "ulog_LumetryQX_AppCrash_K7F3_S1_0.rdy", "LumetryQX/AppCrash"},
      {'i', "ulog_A__x.xml", "A/"},
      {'i', "ulog_A_B.xml", "no"},
      {'i', "ulog.xml", "no"},
      {'l', "3 10 ulog_a.rdy", "2"},      // no final line feed
      {'l', "3 10 ulog_a.rdy\r\n", "1"},  // "ulog_a.rdy\r" is no usage-log name
      {'l', "3 10 ulog_a b.rdy\n", "2"},  // blanks in a name are fine
      {'l', "x 10 ulog_a.rdy\n-1 10 ulog_b.rdy\n", "1"},
      {'l', "3 x ulog_a.rdy\n3  ulog_b.rdy\n", "1"},
      {'l', "4294967296 1 ulog_a.rdy\n", "1"},  // beyond 32 bits
      {'l', "3 10 not_a_log\n3 10\n3\n\n", "1"},
      {'l', std::string(std::size_t{2} << 20, '\n') + "3 10 ulog_a.rdy\n", "1"},  // over the cap
      {'l', many, std::to_string(AttemptLedger::kMaxEntries)},
      {'v', "299", "0"},  // the edges of each class of status
      {'v', "100", "1"},
      {'v', "0", "1"},
      {'v', "700", "1"},
      {'v', "499", "2"},
  };
  for (const auto& [kind, in, expected] : cases) {
    EXPECT_EQ(expected, Piece(kind, in)) << kind << " " << in.substr(0, 80);
  }
  ts::ScopedTempDir dir;  // the attempt ledger's file: written only when changed
  AttemptLedger ledger = AttemptLedger::Load(dir.Sub("l"));
  EXPECT_TRUE(ledger.SaveIfChanged() && !ts::PathExists(dir.Sub("l")));
  ledger.RecordFailure("ulog_c d_e.xml", 300);
  ledger.SetNotBefore(12345);
  ASSERT_TRUE(ledger.SaveIfChanged());
  EXPECT_EQ("notbefore 12345\n1 300 ulog_c d_e.xml\n", ts::Contents(dir.Sub("l")));
}

}  // namespace
