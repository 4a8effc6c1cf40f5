// Real crashes of a host program built on the host kit, under a temporary
// HOME, and of lumetry-crashdemo.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "Preferences.h"
#include "SessionName.h"
#include "TestSupport.h"

namespace ts = testing_support;
using Strings = std::vector<std::string>;

namespace {

// `args` run in `cwd` once `before` has seen its pid, until all holders of its output
// (an upload the crash processor starts) are gone; the raw status has the core flag.
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
  // Else a sanitizer runtime would take the fatal signals and exit instead.
  ts::ScopedEnv sanitizer_{"ASAN_OPTIONS",
                           "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:"
                           "handle_abort=0:detect_leaks=0"};
};

// One row per crash: the host's status (an application handler installed first exits
// 100 + signal) and what it leaves: one crash log, its session file when the crash
// processor hangs, or nothing. Planted sessions of pids that hold its pid digits stay.
// With core dumps allowed, core flag and files are those of a crash without the kit.
TEST_F(HostKitCrashTest, EachCrashLeavesOneLogAndKeepsItsDeath) {
  const std::string record = home_.path() + "/record", hung = home_.path() + "/hung";
  ASSERT_TRUE(ts::WriteFile(
      hung, "#!/bin/sh\necho \"$$ $1 $2\" >'" + record + "'\nexec sleep 60 >/dev/null\n"));
  ASSERT_EQ(::chmod(hung.c_str(), 0700), 0);
  const std::tuple<std::string, std::string, int, std::string> cases[] = {
      {"segv", "", 128 + SIGSEGV, "log"},
      {"bus", "", 128 + SIGBUS, "log"},
      {"ill", "", 128 + SIGILL, "log"},
      {"fpe", "", 128 + SIGFPE, "log"},
      {"abrt", "", 128 + SIGABRT, "log"},
      {"trap", "", 128 + SIGTRAP, "log"},
      {"sys", "", 128 + SIGSYS, "log"},  // a real seccomp trap
#ifndef __SANITIZE_ADDRESS__             // which reports the double free itself
      // glibc's fork() would wait for the allocator's lock the crashing thread holds.
      {"abrt", "--in-malloc", 128 + SIGABRT, "log"},
#endif
      {"segv", "--app-handler", 100 + SIGSEGV, "log"},
      {"abrt", "--app-handler", 100 + SIGABRT, "log"},
      {"segv", "--overflow", 128 + SIGSEGV, "log"},  // the hook runs on its own stack
      {"segv", "--end-first", 128 + SIGSEGV, ""},
      {"segv", "--crash-in-child", 0, ""},  // the parent ends its session cleanly
      {"segv", "--core", 128 + SIGSEGV, "log"},
      {"abrt", "--core", 128 + SIGABRT, "log"},
      {"segv", "--wait-limit-ms", 128 + SIGSEGV, "session"},  // 500 ms for the hung processor
  };
  for (const auto& [sig, option, status, left] : cases) {
    SCOPED_TRACE(sig + " " + option);
    const std::string id = "Crash-" + sig + option;
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
    const std::string processor = option == "--wait-limit-ms" ? hung : CRASH_PROCESSOR_PATH;
    const auto [raw, pid] = RunIn({HOSTKIT_CRASH_HOST, "--processor", processor, "--signal", sig,
                                   "--session-id", id, option, "500"},
                                  kit.path(), plant);
    EXPECT_EQ(ShellStatus(raw), status);
    if (option == "--core") {
      const int bare =
          RunIn({HOSTKIT_CRASH_HOST, "--no-kit", "--core", "--signal", sig}, plain.path()).first;
      EXPECT_EQ(raw, bare);  // the same signal and core flag
      EXPECT_EQ(ts::ListNames(kit.path()).size(), ts::ListNames(plain.path()).size());
    }
    if (processor == hung) {  // started with the name and the pid's token; killed and reaped
      const std::string text = ts::Contents(record);
      EXPECT_NE(text.find(" crash-host __" + std::to_string(pid) + "__\n"), std::string::npos);
      EXPECT_EQ(::kill(static_cast<pid_t>(std::atol(text.c_str())), 0), -1);
    }
    // One crash log, of this session, whose decoded text is the full crash document.
    const std::string log = "ulog_LumetryQX_AppCrash_K1_" + id + "_0.rdy";
    EXPECT_EQ(ts::ListNames(SpoolDir()), left == "log" ? Strings{log} : Strings{});
    if (left == "log") {
      std::string machineId;
      GetPreferenceString("MachineID", "com.quorvik.lumetryqx", &machineId, PrefUser::kCurrentUser,
                          PrefHost::kCurrentHost);
      const std::string bytes = ts::Contents(SpoolDir() + "/" + log);
      EXPECT_EQ(bytes.substr(0, 20), "K-Q$mw#$zRTd8pofupin");
      EXPECT_EQ(ts::MaskTimes(ts::Rot47(bytes.substr(std::min<size_t>(20, bytes.size())))),
                ts::CrashDocument(id, "HostKitTest", "CrashHost", machineId));
    }
    for (const std::string& d : decoys) EXPECT_EQ(::unlink((SessionDir() + "/" + d).c_str()), 0);
    EXPECT_EQ(ts::ListNames(SessionDir()).size(), left == "session" ? 1u : 0u);
    ASSERT_EQ(::system(("rm -f '" + SessionDir() + "'/* '" + SpoolDir() + "'/*").c_str()), 0);
  }
}

// lumetry-crashdemo as a user runs it: its options, a clean end, real crashes;
// its status as a shell sees it, the start of its output, crash logs left.
TEST_F(HostKitCrashTest, CrashDemoCommandLine) {
  const std::tuple<Strings, int, std::string, size_t> cases[] = {
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
  for (const auto& [args, status, output, logs] : cases) {
    Strings argv = {LUMETRY_CRASHDEMO};
    argv.insert(argv.end(), args.begin(), args.end());
    const ts::RunResult result = ts::RunProgram(argv);
    SCOPED_TRACE(::testing::PrintToString(args));
    EXPECT_EQ(result.status, status) << result.err;
    EXPECT_EQ(result.out.rfind(output, 0), 0u) << result.out;
    EXPECT_EQ(ts::ListNames(SpoolDir()).size(), logs);
    EXPECT_EQ(ts::ListNames(SessionDir()), Strings{});
  }
}

}  // namespace
