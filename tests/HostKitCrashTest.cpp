// Real crashes of a host program built on the host kit, under a temporary
// HOME: each fatal signal leaves exactly one crash usage log and no session
// file, and the host still dies of that signal; the hook survives an
// allocating thread, reaches the application's own handler, kills a hung
// crash processor, and consumes only the crashed process's session.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include "Preferences.h"
#include "SessionName.h"
#include "TestSupport.h"

using testing_support::CrashDocument;
using testing_support::ListNames;
using testing_support::MaskTimes;
using testing_support::ReadFile;
using testing_support::Rot47;
using testing_support::ScopedHome;
using testing_support::ScopedTempDir;
using testing_support::WriteFile;

extern char** environ;

namespace {

constexpr const char* kMarker = "K-Q$mw#$zRTd8pofupin";

// One run of the host program, with its stdin and stdout on pipes.
class HostProcess {
 public:
  explicit HostProcess(std::vector<std::string> args, const std::string& cwd = "") {
    args.insert(args.begin(), HOSTKIT_CRASH_HOST);
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
    if (::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    stdin_ = in[1];
    stdout_ = out[0];
  }
  ~HostProcess() {
    if (pid_ > 0 && !waited_) {
      ::kill(pid_, SIGKILL);
      Wait();
    }
    if (stdin_ >= 0) ::close(stdin_);
    if (stdout_ >= 0) ::close(stdout_);
  }
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  // The next line of its output, waiting at most 20 s.
  std::string ReadLine() {
    std::string line;
    char c;
    pollfd p = {stdout_, POLLIN, 0};
    while (::poll(&p, 1, 20000) == 1 && ::read(stdout_, &c, 1) == 1 && c != '\n') line += c;
    return line;
  }
  void Go() { EXPECT_EQ(::write(stdin_, "g", 1), 1); }
  // The raw wait status. A host still running after 60 s (a hook that
  // hangs) is killed, so its status tells of SIGKILL.
  int Wait() {
    int status = 0;
    for (int waited_ms = 0;; waited_ms += 10) {
      const pid_t done = ::waitpid(pid_, &status, WNOHANG);
      if (done == pid_ || (done < 0 && errno != EINTR)) break;
      if (waited_ms == 60000) ::kill(pid_, SIGKILL);
      ::usleep(10000);
    }
    waited_ = true;
    return status;
  }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  int stdout_ = -1;
  bool waited_ = false;
};

class HostKitCrashTest : public ::testing::Test {
 protected:
  std::string SessionDir() const { return home_.Library() + "/Logs/Quorvik/LumetryQX/SessionInfo"; }
  std::string SpoolDir() const { return home_.Library() + "/Logs/Quorvik/LogCourier2QX"; }
  static std::string LogName(const std::string& sessionId) {
    return "ulog_LumetryQX_AppCrash_K1_" + sessionId + "_0.rdy";
  }
  std::string MachineId() const {
    std::string id;
    GetPreferenceString("MachineID", "com.quorvik.lumetryqx", &id, PrefUser::kCurrentUser,
                        PrefHost::kCurrentHost);
    return id;
  }
  // The crash log of `sessionId`, decoded and time-masked.
  std::string Decoded(const std::string& sessionId) const {
    std::string bytes;
    EXPECT_TRUE(ReadFile(SpoolDir() + "/" + LogName(sessionId), &bytes));
    EXPECT_EQ(bytes.substr(0, 20), kMarker);
    return MaskTimes(Rot47(bytes.substr(std::min<size_t>(20, bytes.size()))));
  }
  void ExpectOneCrashLog(const std::string& sessionId) {
    EXPECT_EQ(ListNames(SpoolDir()), std::vector<std::string>{LogName(sessionId)});
    EXPECT_EQ(Decoded(sessionId),
              CrashDocument(sessionId, "HostKitTest", "CrashHost", MachineId()));
  }
  static void ExpectKilledBy(int status, int sig) {
    ASSERT_TRUE(WIFSIGNALED(status)) << "status " << status;
    EXPECT_EQ(WTERMSIG(status), sig) << strsignal(WTERMSIG(status));
  }

  ScopedHome home_;
  // In a sanitizer build the runtime would take the fatal signals first and
  // exit instead of dying of them; the hosts keep the plain dispositions.
  testing_support::ScopedEnv sanitizer_{
      "ASAN_OPTIONS",
      "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0:"
      "detect_leaks=0"};
};

struct SignalCase {
  const char* name;
  int number;
};
const SignalCase kSignals[] = {{"segv", SIGSEGV}, {"bus", SIGBUS},   {"ill", SIGILL},
                               {"fpe", SIGFPE},   {"abrt", SIGABRT}, {"trap", SIGTRAP},
                               {"sys", SIGSYS}};

TEST_F(HostKitCrashTest, EachFatalSignalLeavesOneLogAndKeepsItsDeath) {
  for (const SignalCase& s : kSignals) {
    SCOPED_TRACE(s.name);
    const std::string id = std::string("Sig-") + s.name;
    HostProcess host({"--processor", CRASH_PROCESSOR_PATH, "--signal", s.name, "--session-id", id});
    ExpectKilledBy(host.Wait(), s.number);
    ExpectOneCrashLog(id);
    EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{});
    ASSERT_EQ(::system(("rm -f '" + SpoolDir() + "'/*").c_str()), 0);
  }
}

TEST_F(HostKitCrashTest, CoreDumpFlagIsWhatItWouldBeWithoutTheKit) {
  for (const char* sig : {"segv", "abrt"}) {
    SCOPED_TRACE(sig);
    ScopedTempDir plain_cwd;
    ScopedTempDir kit_cwd;
    HostProcess plain({"--no-kit", "--core", "--signal", sig}, plain_cwd.path());
    const int plain_status = plain.Wait();
    HostProcess kit({"--processor", CRASH_PROCESSOR_PATH, "--core", "--signal", sig},
                    kit_cwd.path());
    const int kit_status = kit.Wait();
    ASSERT_TRUE(WIFSIGNALED(plain_status) && WIFSIGNALED(kit_status));
    EXPECT_EQ(WTERMSIG(kit_status), WTERMSIG(plain_status));
    EXPECT_EQ(WCOREDUMP(kit_status), WCOREDUMP(plain_status));
    EXPECT_EQ(ListNames(kit_cwd.path()).size(), ListNames(plain_cwd.path()).size());
  }
}

TEST_F(HostKitCrashTest, AllocatingThreadDoesNotBlockTheHook) {
  for (int round = 0; round < 5; ++round) {
    const std::string id = "Malloc" + std::to_string(round);
    HostProcess host({"--processor", CRASH_PROCESSOR_PATH, "--signal", "segv", "--malloc-thread",
                      "--session-id", id});
    ExpectKilledBy(host.Wait(), SIGSEGV);
    ExpectOneCrashLog(id);
    ASSERT_EQ(::system(("rm -f '" + SpoolDir() + "'/*").c_str()), 0);
  }
}

// glibc's fork() would wait for the allocator's lock that the crashing
// thread itself holds; the hook must not.
TEST_F(HostKitCrashTest, CrashInsideTheAllocatorStillLeavesTheLog) {
  HostProcess host({"--processor", CRASH_PROCESSOR_PATH, "--signal", "abrt", "--in-malloc",
                    "--session-id", "InMalloc"});
  ExpectKilledBy(host.Wait(), SIGABRT);
  ExpectOneCrashLog("InMalloc");
}

TEST_F(HostKitCrashTest, ApplicationHandlerInstalledFirstStillRuns) {
  for (const SignalCase& s : {kSignals[0], kSignals[4]}) {
    SCOPED_TRACE(s.name);
    const std::string marker = home_.path() + "/marker-" + s.name;
    const std::string id = std::string("App-") + s.name;
    HostProcess host({"--processor", CRASH_PROCESSOR_PATH, "--signal", s.name, "--app-handler",
                      marker, "--session-id", id});
    ExpectKilledBy(host.Wait(), s.number);
    std::string text;
    EXPECT_TRUE(ReadFile(marker, &text));
    EXPECT_EQ(text, "app handler " + std::to_string(s.number) + "\n");
    ExpectOneCrashLog(id);
    ASSERT_EQ(::system(("rm -f '" + SpoolDir() + "'/*").c_str()), 0);
  }
}

TEST_F(HostKitCrashTest, CrashAfterCleanEndWritesNothing) {
  HostProcess host({"--processor", CRASH_PROCESSOR_PATH, "--signal", "segv", "--end-first"});
  ExpectKilledBy(host.Wait(), SIGSEGV);
  EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{});
  EXPECT_EQ(ListNames(SpoolDir()), std::vector<std::string>{});
}

TEST_F(HostKitCrashTest, CrashOfAForkedChildLeavesTheParentsSession) {
  HostProcess host({"--processor", CRASH_PROCESSOR_PATH, "--signal", "segv", "--crash-in-child"});
  host.ReadLine();
  const std::string path = host.ReadLine();
  const int status = host.Wait();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);  // the parent saw its session file to the end
  EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{});
  EXPECT_EQ(ListNames(SpoolDir()), std::vector<std::string>{});
}

TEST_F(HostKitCrashTest, HungCrashProcessorIsKilledAfterTheWaitLimit) {
  const std::string record = home_.path() + "/record";
  const std::string fake = home_.path() + "/fake-processor";
  ASSERT_TRUE(WriteFile(fake, "#!/bin/sh\necho \"$$ $1 $2\" > '" + record + "'\nexec sleep 60\n"));
  ASSERT_EQ(::chmod(fake.c_str(), 0700), 0);

  const auto started = std::chrono::steady_clock::now();
  HostProcess host({"--processor", fake, "--signal", "segv", "--wait-limit-ms", "500"});
  const std::string pid = host.ReadLine();
  ExpectKilledBy(host.Wait(), SIGSEGV);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));

  std::string text;
  ASSERT_TRUE(ReadFile(record, &text));
  long sleeper = 0;
  char product[64] = "";
  char token[64] = "";
  ASSERT_EQ(std::sscanf(text.c_str(), "%ld %63s %63s", &sleeper, product, token), 3) << text;
  EXPECT_STREQ(product, "crash-host");
  EXPECT_EQ(std::string(token), "__" + pid + "__");
  EXPECT_EQ(::kill(static_cast<pid_t>(sleeper), 0), -1);  // killed and reaped
  EXPECT_EQ(errno, ESRCH);
}

// Sessions of pids that hold the crashed pid's digits: only the crashed
// process's own file is consumed. The decoys are named by the kit's rule.
TEST_F(HostKitCrashTest, PidTrapConsumesOnlyTheCrashedSession) {
  HostProcess host({"--processor", CRASH_PROCESSOR_PATH, "--signal", "segv", "--wait-stdin",
                    "--session-id", "Mine"});
  const std::string pid = host.ReadLine();
  ASSERT_FALSE(pid.empty());
  std::vector<std::string> decoys;
  for (const std::string& other : {pid + "3", "4" + pid, "4" + pid + "3"}) {
    const std::string id = "Other" + other;
    const lumetry_host_session session = {"HostKitTest", "CrashHost", id.c_str(), "K1",
                                          "crash-host"};
    char name[300];
    ASSERT_GT(lh_session_name(&session, static_cast<pid_t>(std::stol(other)), ::time(nullptr), name,
                              sizeof name),
              0);
    decoys.emplace_back(name);
    ASSERT_TRUE(WriteFile(SessionDir() + "/" + name, ""));
  }
  host.Go();
  ExpectKilledBy(host.Wait(), SIGSEGV);
  ExpectOneCrashLog("Mine");
  std::sort(decoys.begin(), decoys.end());
  EXPECT_EQ(ListNames(SessionDir()), decoys);
}

// Four live hosts of one product crash one after another: each crash takes
// its own session and leaves the others' files in place.
TEST_F(HostKitCrashTest, LiveSessionsAreConsumedOneByOne) {
  std::vector<std::unique_ptr<HostProcess>> hosts;
  std::vector<std::string> paths;
  for (int i = 0; i < 4; ++i) {
    hosts.push_back(std::make_unique<HostProcess>(
        std::vector<std::string>{"--processor", CRASH_PROCESSOR_PATH, "--signal", "abrt",
                                 "--wait-stdin", "--session-id", "Live" + std::to_string(i)}));
    hosts.back()->ReadLine();
    paths.push_back(hosts.back()->ReadLine());
  }
  for (size_t i = 0; i < hosts.size(); ++i) {
    hosts[i]->Go();
    ExpectKilledBy(hosts[i]->Wait(), SIGABRT);
    EXPECT_EQ(ListNames(SessionDir()).size(), hosts.size() - i - 1);
    for (size_t j = 0; j < paths.size(); ++j) {
      EXPECT_EQ(testing_support::PathExists(paths[j]), j > i) << paths[j];
    }
    EXPECT_EQ(ListNames(SpoolDir()).size(), i + 1);
    EXPECT_TRUE(
        testing_support::PathExists(SpoolDir() + "/" + LogName("Live" + std::to_string(i))));
  }
}

// lumetry-crashdemo as a user runs it: its options, a clean end, real crashes.
TEST_F(HostKitCrashTest, CrashDemoCommandLine) {
  struct Case {
    std::vector<std::string> args;
    int status;          // as a shell sees it (128 + signal)
    const char* output;  // start of standard output
    size_t logs;         // crash logs in the spool afterwards
  };
  const Case cases[] = {
      {{"--version"}, 0, "lumetry-crashdemo ", 0},
      {{"--help"}, 0, "usage: lumetry-crashdemo", 0},
      {{}, 2, "", 0},
      {{"--crash", "hang"}, 2, "", 0},
      {{"--crash", "none", "extra"}, 2, "", 0},
      {{"--crash", "none", "--crash-processor", "/nonexistent/crash-processor"}, 1, "", 0},
      {{"--crash", "none"}, 0, "session file: ", 0},
      {{"--crash", "segv"}, 128 + SIGSEGV, "session file: ", 1},
      {{"--crash", "abort"}, 128 + SIGABRT, "session file: ", 2},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {LUMETRY_CRASHDEMO};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    const testing_support::RunResult result = testing_support::RunProgram(argv);
    SCOPED_TRACE(argv.size() > 1 ? argv[1] + " " + (argv.size() > 2 ? argv[2] : "") : "");
    EXPECT_EQ(result.status, c.status) << result.err;
    EXPECT_EQ(result.out.rfind(c.output, 0), 0u) << result.out;
    EXPECT_EQ(ListNames(SpoolDir()).size(), c.logs);
    EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{});
  }
}

}  // namespace
