// Real crashes of a host program built on the host kit, under a temporary
// HOME, and of lumetry-crashdemo.
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

// `args` run in `cwd`, started once `before` has seen its pid; answers when
// it and every process holding its output are gone (a crash processor may
// start an upload). The raw wait status keeps the core-dump flag.
std::pair<int, pid_t> RunIn(Strings args, const std::string& cwd,
                            const std::function<void(pid_t)>& before = nullptr) {
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  int go[2], out[2];
  if (::pipe(go) != 0 || ::pipe(out) != 0) return {-1, -1};
  const pid_t pid = ::fork();
  if (pid == 0) {
    char byte;
    ::close(go[1]);
    if (::read(go[0], &byte, 1) == 0 && ::dup2(out[1], 1) == 1 && ::chdir(cwd.c_str()) == 0) {
      ::execv(argv[0], argv.data());
    }
    ::_exit(127);
  }
  if (before) before(pid);
  for (const int fd : {go[0], go[1], out[1]}) ::close(fd);
  for (char buffer[256]; ::read(out[0], buffer, sizeof buffer) > 0;) {
  }
  ::close(out[0]);
  int status = -1;
  ::waitpid(pid, &status, 0);
  return {status, pid};
}
int ShellStatus(int raw) { return WIFSIGNALED(raw) ? 128 + WTERMSIG(raw) : WEXITSTATUS(raw); }

class HostKitCrashTest : public ::testing::Test {
 protected:
  std::string SessionDir() const { return home_.Library() + "/Logs/Quorvik/LumetryQX/SessionInfo"; }
  std::string SpoolDir() const { return home_.Library() + "/Logs/Quorvik/LogCourier2QX"; }

  ts::ScopedHome home_;
  // In a sanitizer build the runtime would take the fatal signals first and
  // exit instead of dying of them; the hosts keep the plain dispositions.
  ts::ScopedEnv sanitizer_{"ASAN_OPTIONS",
                           "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:"
                           "handle_abort=0:detect_leaks=0"};
};

// One row per crash: the host's status (an application handler installed
// first exits 100 + signal) and whether it leaves one crash log. Sessions of
// pids that hold the host's pid digits, planted before it starts, stay; its
// own is gone. With core dumps allowed, the core flag and files are those of
// the same crash without the kit.
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
#ifndef __SANITIZE_ADDRESS__            // which reports the double free itself
      // glibc's fork() would wait for the allocator's lock the crashing thread holds.
      {"abrt", "--in-malloc", 128 + SIGABRT, true},
#endif
      {"segv", "--app-handler", 100 + SIGSEGV, true},
      {"abrt", "--app-handler", 100 + SIGABRT, true},
      {"segv", "--end-first", 128 + SIGSEGV, false},
      {"segv", "--crash-in-child", 0, false},  // the parent ends its session cleanly
      {"segv", "--core", 128 + SIGSEGV, true},
      {"abrt", "--core", 128 + SIGABRT, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.sig) + " " + c.option);
    const std::string id = std::string("Crash-") + c.sig + c.option;
    ts::ScopedTempDir kit, plain;
    Strings decoys;
    const auto plant = [&](pid_t pid) {
      const std::string p = std::to_string(pid);
      for (const std::string& other : {p + "3", "4" + p, "4" + p + "3"}) {
        const lumetry_host_session s = {"HostKitTest", "CrashHost", "Other", "K1", "x"};
        char name[300] = "";
        EXPECT_GT(lh_session_name(&s, std::stoi(other), ::time(nullptr), name, sizeof name), 0);
        decoys.emplace_back(name);
        EXPECT_TRUE(ts::WriteFile(SessionDir() + "/" + name, ""));
      }
    };
    Strings host = {HOSTKIT_CRASH_HOST, "--processor", CRASH_PROCESSOR_PATH, "--signal", c.sig};
    host.insert(host.end(), {"--session-id", id, c.option});
    const int status = RunIn(host, kit.path(), plant).first;
    EXPECT_EQ(ShellStatus(status), c.status);
    if (std::string(c.option) == "--core") {
      const int bare =
          RunIn({HOSTKIT_CRASH_HOST, "--no-kit", "--core", "--signal", c.sig}, plain.path()).first;
      EXPECT_EQ(status, bare);  // the same signal and core flag
      EXPECT_EQ(ts::ListNames(kit.path()).size(), ts::ListNames(plain.path()).size());
    }
    // One crash log, of this session, whose decoded text is the full crash document.
    const std::string log = "ulog_LumetryQX_AppCrash_K1_" + id + "_0.rdy";
    EXPECT_EQ(ts::ListNames(SpoolDir()), c.logged ? Strings{log} : Strings{});
    if (c.logged) {
      std::string machineId;
      GetPreferenceString("MachineID", "com.quorvik.lumetryqx", &machineId, PrefUser::kCurrentUser,
                          PrefHost::kCurrentHost);
      const std::string bytes = ts::Contents(SpoolDir() + "/" + log);
      EXPECT_EQ(bytes.substr(0, 20), "K-Q$mw#$zRTd8pofupin");
      EXPECT_EQ(ts::MaskTimes(ts::Rot47(bytes.substr(std::min<size_t>(20, bytes.size())))),
                ts::CrashDocument(id, "HostKitTest", "CrashHost", machineId));
    }
    std::sort(decoys.begin(), decoys.end());
    EXPECT_EQ(ts::ListNames(SessionDir()), decoys);
    ASSERT_EQ(::system(("rm -f '" + SessionDir() + "'/* '" + SpoolDir() + "'/*").c_str()), 0);
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
