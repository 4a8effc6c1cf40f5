// Drives the built LogCourier2 as the launcher and the service units do,
// against the HTTPS test server reached through --connect-to and --cacert.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "CourierTestServer.h"
#include "Mac/LogCourUtilsMac.h"
#include "Preferences.h"
#include "TestSupport.h"

extern char** environ;

namespace {

namespace ts = testing_support;

const std::string kProgram = COURIER_PROGRAM;

class UploaderCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.Start());
    spool_ = home_.Library() + "/Logs/Quorvik/LogCourier2QX";
    ASSERT_TRUE(ts::MakeDirs(spool_));
  }

  // The program pointed at the test server, with `extra` arguments.
  std::vector<std::string> Args(const std::vector<std::string>& extra) const {
    std::vector<std::string> argv = {kProgram, "--connect-to", server_.ConnectToDefault(),
                                     "--cacert", ts::SharedCertificates().caFile};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return argv;
  }
  ts::RunResult Run(const std::vector<std::string>& extra) { return ts::RunProgram(Args(extra)); }

  ts::ScopedHome home_;
  ts::CourierTestServer server_;
  std::string spool_;
};

TEST_F(UploaderCliTest, SendsTheExactMultipartUploadSilently) {
  const std::string name = "ulog_LumetryQX_AppCrash_K7F3_SESS-1_0.rdy";
  // Stored bytes go out as they are: marker, line ends, NUL, high bytes.
  const char raw[] = "K-Q$mw#$zRTd8pofupinbody\r\n--not-a-boundary\0\xff\n";
  const std::string stored(raw, sizeof raw - 1);
  ASSERT_TRUE(ts::WriteFile(spool_ + "/" + name, stored));

  const ts::RunResult run = Run({"crash"});
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("", run.out);  // silent without --verbose
  EXPECT_EQ("", run.err);
  EXPECT_FALSE(ts::PathExists(spool_ + "/" + name));

  const auto requests = server_.Requests();
  ASSERT_EQ(3u, requests.size());
  EXPECT_EQ("GET /lumetry/GetConfig/", requests[0].method + " " + requests[0].path);
  EXPECT_EQ("GET /lumetry/GetTarvix/", requests[1].method + " " + requests[1].path);
  const ts::RecordedRequest& upload = requests[2];
  EXPECT_EQ("POST /lumetry/UploadFile/", upload.method + " " + upload.path);

  std::string machineId;  // made by the program in the user's preferences
  ASSERT_TRUE(GetPreferenceString("MachineID", "com.quorvik.lumetryqx", &machineId,
                                  PrefUser::kCurrentUser, PrefHost::kCurrentHost));
  EXPECT_EQ(36u, machineId.size());
  for (const auto& request : requests) {
    EXPECT_EQ("LogCourier2/" LUMETRY_TEST_VERSION " (Linux)", request.headers.at("user-agent"));
    EXPECT_EQ("lumetry.quorvik.com", request.headers.at("host"));
    EXPECT_EQ(machineId, request.headers.at("x-lumetry-machine-id"));
  }

  const std::string type = upload.headers.at("content-type");
  const std::string prefix = "multipart/form-data; boundary=";
  ASSERT_EQ(0u, type.rfind(prefix, 0)) << type;
  const std::string boundary = type.substr(prefix.size());
  const std::string expected = "--" + boundary +
                               "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
                               name + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" +
                               stored + "\r\n--" + boundary + "--\r\n";
  EXPECT_EQ(expected, upload.body);
  EXPECT_EQ(std::to_string(expected.size()), upload.headers.at("content-length"));
}

TEST_F(UploaderCliTest, SecondInstanceAndDryRunSendNothing) {
  ASSERT_TRUE(ts::WriteFile(spool_ + "/ulog_A_B_k_0.xml", "<x/>"));
  const int fd =
      ::open((spool_ + "/.LogCourierAppLock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ::flock(fd, LOCK_EX | LOCK_NB));  // a pass is running
  const ts::RunResult second = Run({"--verbose"});
  EXPECT_EQ(0, second.status);
  EXPECT_NE(std::string::npos, second.err.find("another pass holds the lock")) << second.err;
  ::close(fd);
  const ts::RunResult dry = Run({"--verbose", "--dry-run", "manual"});
  EXPECT_EQ(0, dry.status);
  EXPECT_EQ("", dry.out);
  EXPECT_NE(std::string::npos, dry.err.find("LogCourier2: pass started (manual)\n")) << dry.err;
  EXPECT_NE(std::string::npos, dry.err.find("would send ulog_A_B_k_0.xml (4 bytes)")) << dry.err;
  EXPECT_NE(std::string::npos, dry.err.find("LogCourier2: pass done: sent 0,")) << dry.err;
  EXPECT_TRUE(server_.Requests().empty());
  EXPECT_TRUE(ts::PathExists(spool_ + "/ulog_A_B_k_0.xml"));
  EXPECT_EQ(0, Run({}).status);
  EXPECT_FALSE(ts::PathExists(spool_ + "/ulog_A_B_k_0.xml"));
}

TEST_F(UploaderCliTest, KilledWhileWaitingTheNextPassFinishesTheWork) {
  ASSERT_TRUE(ts::WriteFile(spool_ + "/ulog_A_B_k_0.xml", "<x/>"));
  ASSERT_TRUE(ts::WriteFile(spool_ + "/ulog_A_B_l_0.xml", "<y/>"));
  ASSERT_TRUE(server_.Script(R"({"/lumetry/UploadFile/": [{"status": 200, "delay": 5}]})"));
  std::vector<std::string> args = Args({});
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;  // HOME is the test's home, inherited
  ASSERT_EQ(0, ::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ));
  for (int i = 0; i < 200 && server_.Requests().size() < 3; ++i) ::usleep(25000);
  ASSERT_EQ(3u, server_.Requests().size());  // the first upload is out, its answer not yet
  ::kill(pid, SIGKILL);
  int status = 0;
  ASSERT_EQ(pid, ::waitpid(pid, &status, 0));

  ASSERT_TRUE(server_.Script(R"({"/lumetry/UploadFile/": [{"status": 200}]})"));
  EXPECT_EQ(0, Run({}).status);  // the lock died with the process
  // Only the file whose answer never arrived went out twice.
  EXPECT_EQ((std::vector<std::string>{"ulog_A_B_k_0.xml", "ulog_A_B_k_0.xml", "ulog_A_B_l_0.xml"}),
            server_.Uploaded());
  EXPECT_EQ(std::vector<std::string>{".LogCourierAppLock"}, ts::ListNames(spool_));
}

TEST(UploaderInstallTest, InstallsWhereTheLauncherLooks) {
  ts::ScopedTempDir prefix;
  const ts::RunResult install = ts::RunProgram(
      {CMAKE_PROGRAM, "--install", BUILD_DIR, "--prefix", prefix.path(), "--component", "courier"});
  ASSERT_EQ(0, install.status) << install.out << install.err;
  const std::string program = prefix.Sub("lib/lumetry/LogCourier2.app/Contents/MacOS/LogCourier2");
  EXPECT_EQ("LogCourier2 " LUMETRY_TEST_VERSION "\n", ts::RunProgram({program, "--version"}).out);
  SetUploaderLocationHint(prefix.Sub("lib/lumetry/").c_str());  // as a host application does
  EXPECT_EQ(program, LocateUploaderExecutable());

  std::string service;
  ASSERT_TRUE(ts::ReadFile(prefix.Sub("lib/systemd/user/logcourier2.service"), &service));
  EXPECT_NE(std::string::npos, service.find("\nExecStart=" + program + " service\n")) << service;
  std::string path;
  ASSERT_TRUE(ts::ReadFile(prefix.Sub("lib/systemd/user/logcourier2.path"), &path));
  EXPECT_NE(std::string::npos, path.find("\nPathChanged=%h/Library/Logs/Quorvik/LogCourier2QX\n"));
  EXPECT_TRUE(ts::PathExists(prefix.Sub("lib/systemd/user/logcourier2.timer")));
}

TEST(UploaderCliUsageTest, HelpVersionAndUsageErrors) {
  const ts::RunResult help = ts::RunProgram({kProgram, "--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(0u, help.out.rfind("Usage: LogCourier2 [--verbose]", 0)) << help.out;
  const ts::RunResult version = ts::RunProgram({kProgram, "--version"});
  EXPECT_EQ(0, version.status);
  EXPECT_EQ("LogCourier2 " LUMETRY_TEST_VERSION "\n", version.out);
  const std::vector<std::pair<std::vector<std::string>, std::string>> errors = {
      {{"--x"}, "unrecognized option '--x'"},
      {{"--x=1"}, "unrecognized option '--x=1'"},
      {{"--cacert"}, "option '--cacert' requires an argument"},
      {{"-z"}, "invalid option -- 'z'"},
      {{"one", "two"}, "unexpected argument 'two'"},
  };
  for (const auto& [args, message] : errors) {
    std::vector<std::string> argv = {kProgram};
    argv.insert(argv.end(), args.begin(), args.end());
    const ts::RunResult run = ts::RunProgram(argv);
    EXPECT_EQ(2, run.status) << message;
    EXPECT_EQ("", run.out) << message;
    EXPECT_EQ("LogCourier2: " + message + "\nTry 'LogCourier2 --help'.\n", run.err);
  }
}

}  // namespace

namespace {

// --status over a spool prepared with every state it reports: each is named
// in the text and carried by the JSON; nothing is changed, no request made.
TEST_F(UploaderCliTest, StatusNamesWhyEachLogWaits) {
  const std::string config = home_.Library() + "/Application Support/Quorvik/LogCourier2QX";
  const std::string sessions = home_.Library() + "/Logs/Quorvik/LumetryQX/SessionInfo/";
  ASSERT_TRUE(ts::WriteFile(config + "/LogCourier2.cfg",
                            "[settings]\nretryinterval=60\n[ulog]\nstatus=Hibernate\n"
                            "wakeupdate=2099-01-01\n[hibernate]\nA_B=x|2099-02-03\n"));
  const long now = static_cast<long>(::time(nullptr));
  ASSERT_TRUE(ts::WriteFile(config + "/LogCourier2.attempts",
                            "notbefore " + std::to_string(now + 3600) + "\n2 " +
                                std::to_string(now) + " ulog_X_Y_failed_0.rdy\n"));
  for (const char* name : {"ulog_X_Y_failed_0.rdy", "ulog_A_B_paused_0.rdy", "ulog_X_Y_busy_0.xml"})
    ASSERT_TRUE(ts::WriteFile(spool_ + "/" + name, "12345"));
  const int writer = ::open((spool_ + "/ulog_X_Y_busy_0.xml").c_str(), O_RDONLY);
  ASSERT_EQ(0, ::flock(writer, LOCK_EX));  // as a crash processor holds it
  ASSERT_TRUE(SetPreferenceNumber("send", "com.quorvik.lumetryqx", 0, PrefUser::kCurrentUser,
                                  PrefHost::kCurrentHost));
  ASSERT_TRUE(ts::WriteFile(sessions + "1_F_N_S_K_x_y_p.info", ""));  // pid 1 started first
  ASSERT_TRUE(ts::WriteFile(sessions + "__999999999__F_N_S_K_x_y_p.info", ""));  // no such pid

  const ts::RunResult text = ts::RunProgram({kProgram, "--status"});
  const ts::RunResult json = ts::RunProgram({kProgram, "--status", "--json"});
  ::close(writer);
  EXPECT_EQ(0, text.status) << text.err;
  for (const char* fact :
       {"3 usage logs, 15 bytes", "ulog_X_Y_failed_0.rdy: 5 bytes, 2 failed attempts, next try ",
        "ulog_A_B_paused_0.rdy: 5 bytes, item paused until 2099-02-03",
        "ulog_X_Y_busy_0.xml: 5 bytes, locked", "Sending: no: sending is switched off",
        "Status: Hibernate until 2099-01-01", "Retry-After: no upload before ",
        "Server: https://lumetry.quorvik.com/lumetry", "1 live, 1 orphaned",
        "Last pass: none recorded"}) {
    EXPECT_NE(std::string::npos, text.out.find(fact)) << fact << "\n" << text.out;
  }
  const auto doc = nlohmann::json::parse(json.out);
  EXPECT_EQ(3, doc["spool"]["files"]);
  for (const auto& log : doc["spool"]["logs"]) {
    EXPECT_EQ(log["name"] == "ulog_X_Y_failed_0.rdy" ? 2 : 0, log["failedAttempts"]) << log;
    EXPECT_EQ(log["name"] == "ulog_X_Y_busy_0.xml", log["locked"]) << log;
  }
  EXPECT_EQ("Hibernate", doc["status"]);
  EXPECT_EQ(now + 3600, doc["retryAfter"]);
  EXPECT_EQ(1, doc["sessions"]["orphaned"]);
  EXPECT_EQ(0u, server_.Requests().size());
  EXPECT_EQ(3u, ts::ListNames(spool_).size());

  // A pass records its time and summary for the view.
  ASSERT_EQ(0, Run({}).status);
  const auto after = nlohmann::json::parse(ts::RunProgram({kProgram, "--status", "--json"}).out);
  EXPECT_NE(std::string::npos,
            after["lastPass"]["summary"].get<std::string>().find("orphaned sessions swept 1"));
}

}  // namespace
