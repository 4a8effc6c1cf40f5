// Real crashes of a host program built on the host kit, under a temporary
// HOME: each fatal signal leaves exactly one crash usage log and no session
// file, and the host still dies of that signal; the hook survives the
// allocator, reaches the application's own handler, kills a hung crash
// processor, and consumes only the crashed process's session.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "Preferences.h"
#include "SessionName.h"
#include "TestSupport.h"

namespace ts = testing_support;

extern char** environ;

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr int kUnderAddressSanitizer = 1;
#else
constexpr int kUnderAddressSanitizer = 0;
#endif

// The raw wait status of `args` run in `cwd`: RunProgram's status drops the
// core-dump flag.
int RawStatus(std::vector<std::string> args, const std::string& cwd) {
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
  pid_t pid = -1;
  int status = -1;
  if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
    ::waitpid(pid, &status, 0);
  }
  posix_spawn_file_actions_destroy(&actions);
  return status;
}

class HostKitCrashTest : public ::testing::Test {
 protected:
  std::string SessionDir() const { return home_.Library() + "/Logs/Quorvik/LumetryQX/SessionInfo"; }
  std::string SpoolDir() const { return home_.Library() + "/Logs/Quorvik/LogCourier2QX"; }
  static std::string LogName(const std::string& id) {
    return "ulog_LumetryQX_AppCrash_K1_" + id + "_0.rdy";
  }
  // The host program with the real crash processor and `args`.
  static std::vector<std::string> Host(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {HOSTKIT_CRASH_HOST, "--processor", CRASH_PROCESSOR_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  }
  // Exactly one crash log, of session `id`, whose decoded text is the full
  // crash document; the spool is emptied after.
  void ExpectOnlyCrashLog(const std::string& id) {
    std::string machineId;
    GetPreferenceString("MachineID", "com.quorvik.lumetryqx", &machineId, PrefUser::kCurrentUser,
                        PrefHost::kCurrentHost);
    EXPECT_EQ(ts::ListNames(SpoolDir()), std::vector<std::string>{LogName(id)});
    const std::string bytes = ts::Contents(SpoolDir() + "/" + LogName(id));
    EXPECT_EQ(bytes.substr(0, 20), "K-Q$mw#$zRTd8pofupin");
    EXPECT_EQ(ts::MaskTimes(ts::Rot47(bytes.substr(std::min<size_t>(20, bytes.size())))),
              ts::CrashDocument(id, "HostKitTest", "CrashHost", machineId));
    ASSERT_EQ(::system(("rm -f '" + SpoolDir() + "'/*").c_str()), 0);
  }

  ts::ScopedHome home_;
  // In a sanitizer build the runtime would take the fatal signals first and
  // exit instead of dying of them; the hosts keep the plain dispositions.
  ts::ScopedEnv sanitizer_{"ASAN_OPTIONS",
                           "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:"
                           "handle_abort=0:detect_leaks=0"};
};

// One row per crash: the host's status (an application handler installed
// first exits 100 + signal), one crash log, no session file; a clean end
// before the crash, or a crash in a forked child, leaves nothing.
TEST_F(HostKitCrashTest, EachCrashLeavesOneLogAndKeepsItsDeath) {
  struct Case {
    const char* signal;
    const char* option;
    int status;
    int rounds;  // 0: skipped
  };
  const Case cases[] = {
      {"segv", "", 128 + SIGSEGV, 1},
      {"bus", "", 128 + SIGBUS, 1},
      {"ill", "", 128 + SIGILL, 1},
      {"fpe", "", 128 + SIGFPE, 1},
      {"abrt", "", 128 + SIGABRT, 1},
      {"trap", "", 128 + SIGTRAP, 1},
      {"sys", "", 128 + SIGSYS, 1},  // a real seccomp trap
      // Another thread allocating all the time must not block the hook.
      {"segv", "--malloc-thread", 128 + SIGSEGV, 5},
      // glibc's fork() would wait for the allocator's lock that the crashing
      // thread itself holds. (AddressSanitizer reports the double free itself.)
      {"abrt", "--in-malloc", 128 + SIGABRT, kUnderAddressSanitizer ? 0 : 1},
      {"segv", "--app-handler", 100 + SIGSEGV, 1},
      {"abrt", "--app-handler", 100 + SIGABRT, 1},
      {"segv", "--end-first", 128 + SIGSEGV, 1},
      {"segv", "--crash-in-child", 0, 1},  // the parent ends its session cleanly
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    const bool logged = c.status != 0 && std::string(c.option) != "--end-first";
    for (int round = 0; round < c.rounds; ++round) {
      const std::string id = "Crash" + std::to_string(i) + "-" + std::to_string(round);
      SCOPED_TRACE(std::string(c.signal) + " " + c.option);
      std::vector<std::string> args = {"--signal", c.signal, "--session-id", id};
      if (*c.option != '\0') args.push_back(c.option);
      EXPECT_EQ(ts::RunProgram(Host(args)).status, c.status);
      if (logged) ExpectOnlyCrashLog(id);
      EXPECT_EQ(ts::ListNames(SpoolDir()), std::vector<std::string>{});
      EXPECT_EQ(ts::ListNames(SessionDir()), std::vector<std::string>{});
    }
  }
}

TEST_F(HostKitCrashTest, CoreDumpFlagIsWhatItWouldBeWithoutTheKit) {
  for (const char* sig : {"segv", "abrt"}) {
    SCOPED_TRACE(sig);
    ts::ScopedTempDir plain_cwd;
    ts::ScopedTempDir kit_cwd;
    const int plain =
        RawStatus({HOSTKIT_CRASH_HOST, "--no-kit", "--core", "--signal", sig}, plain_cwd.path());
    const int kit = RawStatus(Host({"--core", "--signal", sig}), kit_cwd.path());
    ASSERT_TRUE(WIFSIGNALED(plain) && WIFSIGNALED(kit));
    EXPECT_EQ(WTERMSIG(kit), WTERMSIG(plain));
    EXPECT_EQ(WCOREDUMP(kit), WCOREDUMP(plain));
    EXPECT_EQ(ts::ListNames(kit_cwd.path()).size(), ts::ListNames(plain_cwd.path()).size());
  }
}

TEST_F(HostKitCrashTest, HungCrashProcessorIsKilledAfterTheWaitLimit) {
  const std::string record = home_.path() + "/record";
  const std::string fake = home_.path() + "/fake-processor";
  ASSERT_TRUE(
      ts::WriteFile(fake, "#!/bin/sh\necho \"$$ $1 $2\" > '" + record + "'\nexec sleep 60\n"));
  ASSERT_EQ(::chmod(fake.c_str(), 0700), 0);

  const auto started = std::chrono::steady_clock::now();
  const ts::RunResult host = ts::RunProgram(
      {HOSTKIT_CRASH_HOST, "--processor", fake, "--signal", "segv", "--wait-limit-ms", "500"});
  EXPECT_EQ(host.status, 128 + SIGSEGV);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));

  // The fake was started with the product and the crashed pid's token.
  const std::string text = ts::Contents(record);
  const std::string pid = host.out.substr(0, host.out.find('\n'));
  EXPECT_NE(text.find(" crash-host __" + pid + "__\n"), std::string::npos) << text;
  EXPECT_EQ(::kill(static_cast<pid_t>(std::atol(text.c_str())), 0), -1);  // killed and reaped
  EXPECT_EQ(errno, ESRCH);
}

// Sessions of pids that hold the crashed pid's digits: only the crashed
// process's own file is consumed. The decoys are named by the kit's rule.
TEST_F(HostKitCrashTest, PidTrapConsumesOnlyTheCrashedSession) {
  // A shell writes its pid, waits (at most 20 s) for the decoys and becomes
  // the host, which keeps that pid.
  const std::string pidFile = home_.path() + "/pid";
  const std::string go = home_.path() + "/go";
  const std::string script =
      "echo $$ > \"$0.tmp\" && mv \"$0.tmp\" \"$0\"; i=0; while [ ! -e \"$1\" ] && "
      "[ $i -lt 400 ]; do sleep 0.05; i=$((i+1)); done; shift; exec \"$@\"";
  std::vector<std::string> argv = {"/bin/sh", "-c", script, pidFile, go};
  for (const std::string& a : Host({"--signal", "segv", "--session-id", "Mine"})) argv.push_back(a);
  ts::RunResult host;
  std::thread runner([&] { host = ts::RunProgram(argv); });
  std::string pid;
  for (int i = 0; i < 400 && !ts::ReadFile(pidFile, &pid); ++i) ::usleep(50000);
  pid = pid.substr(0, pid.find('\n'));
  std::vector<std::string> decoys;
  for (const std::string& other : {pid + "3", "4" + pid, "4" + pid + "3"}) {
    const std::string id = "Other" + other;
    const lumetry_host_session session = {"HostKitTest", "CrashHost", id.c_str(), "K1",
                                          "crash-host"};
    char name[300] = "";
    EXPECT_GT(lh_session_name(&session, static_cast<pid_t>(std::stol("0" + other)), ::time(nullptr),
                              name, sizeof name),
              0);
    decoys.emplace_back(name);
    EXPECT_TRUE(ts::WriteFile(SessionDir() + "/" + name, ""));
  }
  EXPECT_TRUE(ts::WriteFile(go, ""));
  runner.join();
  ASSERT_FALSE(pid.empty());
  EXPECT_EQ(host.status, 128 + SIGSEGV) << host.err;
  ExpectOnlyCrashLog("Mine");
  std::sort(decoys.begin(), decoys.end());
  EXPECT_EQ(ts::ListNames(SessionDir()), decoys);
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
      {{"--crash", "freeze"}, 2, "", 0},
      {{"--crash", "none", "extra"}, 2, "", 0},
      {{"--crash", "none", "--crash-processor", "/nonexistent/crash-processor"}, 1, "", 0},
      {{"--crash", "none"}, 0, "session file: ", 0},
      {{"--crash", "segv"}, 128 + SIGSEGV, "session file: ", 1},
      {{"--crash", "abort"}, 128 + SIGABRT, "session file: ", 2},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {LUMETRY_CRASHDEMO};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    const ts::RunResult result = ts::RunProgram(argv);
    SCOPED_TRACE(argv.size() > 1 ? argv[1] + " " + (argv.size() > 2 ? argv[2] : "") : "");
    EXPECT_EQ(result.status, c.status) << result.err;
    EXPECT_EQ(result.out.rfind(c.output, 0), 0u) << result.out;
    EXPECT_EQ(ts::ListNames(SpoolDir()).size(), c.logs);
    EXPECT_EQ(ts::ListNames(SessionDir()), std::vector<std::string>{});
  }
}

}  // namespace
