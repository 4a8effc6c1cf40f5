// Real crashes of a host program built on the host kit, under a temporary
// HOME: each fatal signal leaves exactly one crash usage log and no session
// file, and the host still dies of that signal; the hook survives the
// allocator, reaches the application's own handler, kills a hung crash
// processor, and consumes only the crashed process's session.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "Preferences.h"
#include "SessionName.h"
#include "TestSupport.h"

namespace ts = testing_support;
using Strings = std::vector<std::string>;

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr bool kUnderAddressSanitizer = true;
#else
constexpr bool kUnderAddressSanitizer = false;
#endif

// `args` run in `cwd`, output dropped, started once `before` has seen its pid.
// The raw wait status keeps the core-dump flag.
std::pair<int, pid_t> RunIn(Strings args, const std::string& cwd,
                            const std::function<void(pid_t)>& before = nullptr) {
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  int go[2];
  if (::pipe(go) != 0) return {-1, -1};
  const pid_t pid = ::fork();
  if (pid == 0) {
    char byte;
    ::close(go[1]);
    if (::read(go[0], &byte, 1) == 0 && ::dup2(::open("/dev/null", O_WRONLY), 1) == 1 &&
        ::chdir(cwd.c_str()) == 0) {
      ::execv(argv[0], argv.data());
    }
    ::_exit(127);
  }
  if (before) before(pid);
  ::close(go[0]);
  ::close(go[1]);
  int status = -1;
  ::waitpid(pid, &status, 0);
  return {status, pid};
}
int ShellStatus(int raw) { return WIFSIGNALED(raw) ? 128 + WTERMSIG(raw) : WEXITSTATUS(raw); }

class HostKitCrashTest : public ::testing::Test {
 protected:
  std::string SessionDir() const { return home_.Library() + "/Logs/Quorvik/LumetryQX/SessionInfo"; }
  std::string SpoolDir() const { return home_.Library() + "/Logs/Quorvik/LogCourier2QX"; }
  static Strings Host(const std::string& sig, const std::string& id, const std::string& option) {
    return {HOSTKIT_CRASH_HOST,
            "--processor",
            CRASH_PROCESSOR_PATH,
            "--signal",
            sig,
            "--session-id",
            id,
            option};
  }
  // Exactly one crash log, of session `id`, whose decoded text is the full
  // crash document; the spool is emptied after.
  void ExpectOnlyCrashLog(const std::string& id) {
    const std::string name = "ulog_LumetryQX_AppCrash_K1_" + id + "_0.rdy";
    std::string machineId;
    GetPreferenceString("MachineID", "com.quorvik.lumetryqx", &machineId, PrefUser::kCurrentUser,
                        PrefHost::kCurrentHost);
    EXPECT_EQ(ts::ListNames(SpoolDir()), Strings{name});
    const std::string bytes = ts::Contents(SpoolDir() + "/" + name);
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
// first exits 100 + signal) and whether it leaves one crash log; never a
// session file. With core dumps allowed, the core flag and files are those
// of the same crash without the kit.
TEST_F(HostKitCrashTest, EachCrashLeavesOneLogAndKeepsItsDeath) {
  const struct {
    const char *sig, *option;
    int status;
    bool logged;
  } cases[] = {
      {"segv", "", 128 + SIGSEGV, true},
      {"bus", "", 128 + SIGBUS, true},
      {"ill", "", 128 + SIGILL, true},
      {"fpe", "", 128 + SIGFPE, true},
      {"abrt", "", 128 + SIGABRT, true},
      {"trap", "", 128 + SIGTRAP, true},
      {"sys", "", 128 + SIGSYS, true},  // a real seccomp trap
      // glibc's fork() would wait for the allocator's lock that the crashing
      // thread itself holds. (AddressSanitizer reports the double free itself.)
      {"abrt", "--in-malloc", 128 + SIGABRT, true},
      {"segv", "--app-handler", 100 + SIGSEGV, true},
      {"abrt", "--app-handler", 100 + SIGABRT, true},
      {"segv", "--end-first", 128 + SIGSEGV, false},
      {"segv", "--crash-in-child", 0, false},  // the parent ends its session cleanly
      {"segv", "--core", 128 + SIGSEGV, true},
      {"abrt", "--core", 128 + SIGABRT, true},
  };
  for (const auto& c : cases) {
    if (kUnderAddressSanitizer && std::string(c.option) == "--in-malloc") continue;
    SCOPED_TRACE(std::string(c.sig) + " " + c.option);
    const std::string id = std::string("Crash-") + c.sig + c.option;
    ts::ScopedTempDir kit, plain;
    const int status = RunIn(Host(c.sig, id, c.option), kit.path()).first;
    EXPECT_EQ(ShellStatus(status), c.status);
    if (std::string(c.option) == "--core") {
      const int bare =
          RunIn({HOSTKIT_CRASH_HOST, "--no-kit", "--core", "--signal", c.sig}, plain.path()).first;
      EXPECT_EQ(status, bare);  // the same signal and core flag
      EXPECT_EQ(ts::ListNames(kit.path()).size(), ts::ListNames(plain.path()).size());
    }
    if (c.logged) ExpectOnlyCrashLog(id);
    EXPECT_EQ(ts::ListNames(SpoolDir()), Strings{});
    EXPECT_EQ(ts::ListNames(SessionDir()), Strings{});
  }
}

TEST_F(HostKitCrashTest, HungCrashProcessorIsKilledAfterTheWaitLimit) {
  const std::string record = home_.path() + "/record", fake = home_.path() + "/fake";
  ASSERT_TRUE(
      ts::WriteFile(fake, "#!/bin/sh\necho \"$$ $1 $2\" >'" + record + "'\nexec sleep 60\n"));
  ASSERT_EQ(::chmod(fake.c_str(), 0700), 0);
  const auto started = std::chrono::steady_clock::now();
  const auto [status, pid] =
      RunIn({HOSTKIT_CRASH_HOST, "--processor", fake, "--signal", "segv", "--wait-limit-ms", "500"},
            home_.path());
  EXPECT_EQ(ShellStatus(status), 128 + SIGSEGV);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
  // Started with the process name and the crashed pid's token; killed and reaped.
  const std::string text = ts::Contents(record);
  EXPECT_NE(text.find(" crash-host __" + std::to_string(pid) + "__\n"), std::string::npos) << text;
  EXPECT_EQ(::kill(static_cast<pid_t>(std::atol(text.c_str())), 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

// Sessions of pids that hold the crashed pid's digits, planted before the
// host starts: only the crashed process's own file is consumed.
TEST_F(HostKitCrashTest, PidTrapConsumesOnlyTheCrashedSession) {
  Strings decoys;
  const auto plant = [&](pid_t pid) {
    const std::string p = std::to_string(pid);
    for (const std::string& other : {p + "3", "4" + p, "4" + p + "3"}) {
      const std::string id = "Other" + other;
      const lumetry_host_session session = {"HostKitTest", "CrashHost", id.c_str(), "K1", "x"};
      char name[300] = "";
      EXPECT_GT(lh_session_name(&session, std::stoi(other), ::time(nullptr), name, sizeof name), 0);
      decoys.emplace_back(name);
      EXPECT_TRUE(ts::WriteFile(SessionDir() + "/" + name, ""));
    }
  };
  EXPECT_EQ(ShellStatus(RunIn(Host("segv", "Mine", ""), home_.path(), plant).first), 139);
  ExpectOnlyCrashLog("Mine");
  std::sort(decoys.begin(), decoys.end());
  EXPECT_EQ(ts::ListNames(SessionDir()), decoys);
}

// lumetry-crashdemo as a user runs it: its options, a clean end, real crashes.
TEST_F(HostKitCrashTest, CrashDemoCommandLine) {
  const struct {
    Strings args;
    int status;          // as a shell sees it
    const char* output;  // start of standard output
    size_t logs;         // crash logs in the spool afterwards
  } cases[] = {
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
  for (const auto& c : cases) {
    Strings argv = {LUMETRY_CRASHDEMO};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    const ts::RunResult result = ts::RunProgram(argv);
    SCOPED_TRACE(::testing::PrintToString(c.args));
    EXPECT_EQ(result.status, c.status) << result.err;
    EXPECT_EQ(result.out.rfind(c.output, 0), 0u) << result.out;
    EXPECT_EQ(ts::ListNames(SpoolDir()).size(), c.logs);
    EXPECT_EQ(ts::ListNames(SessionDir()), Strings{});
  }
}

}  // namespace
