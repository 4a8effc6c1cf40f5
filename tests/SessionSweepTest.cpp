// The sweep of orphaned sessions with real hosts and signals: a killed host's
// session is one crash log, a live or ended one nothing, racing sweeps share.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "Preferences.h"
#include "SessionLiveness.h"
#include "SessionSweep.h"
#include "TestSupport.h"

namespace ts = testing_support;

namespace {

using Strings = std::vector<std::string>;

TEST(SessionLiveness, OrphanRuleAndPidOfAName) {
  const std::int64_t boot = 1000, made = 2000;
  const std::pair<Courier::SessionFacts, bool> rules[] = {
      {{made, boot, true, false, 0}, true},        // the process is gone
      {{made, boot, true, true, made + 5}, true},  // its pid was reused
      {{made, boot, true, true, made}, false},     // the session's own process
      {{500, boot, true, true, 400}, true},        // older than the boot
      {{made, boot, false, false, 0}, false},      // no pid: only the boot decides
      {{500, boot, false, false, 0}, true},
      {{made, 0, true, true, 0}, false}};  // boot time unknown
  for (const auto& [facts, orphaned] : rules)
    EXPECT_EQ(orphaned, Courier::IsOrphaned(facts)) << facts.fileMade;
  std::string pids;  // of session-file names
  for (const char* name : {"__1234__Fam_N_S_K_T_host1_p.info", "1234_Fam_N_S_K_T_h_p.info",
                           "__77__.new", "Fam_1234_N.info", "12a_x", "99999999999_x", ""})
    pids += std::to_string(Courier::SessionPid(name)) + " ";
  EXPECT_EQ(pids, "1234 1234 77 0 0 0 0 ");
}

class SessionSweepTest : public ::testing::Test {
 protected:
  std::string SessionDir() const { return home_.Library() + "/Logs/Quorvik/LumetryQX/SessionInfo"; }
  std::string SpoolDir() const { return home_.Library() + "/Logs/Quorvik/LogCourier2QX"; }
  Strings Spool() const { return ts::ListNames(SpoolDir()); }
  std::size_t Sweep() {
    Courier::Reporter quiet(false, nullptr);
    return Courier::SweepOrphanedSessions(home_.Library(), false, quiet).swept;
  }
  // A host run to its end by `args`; what it printed.
  std::string Host(const Strings& args, int signal) {
    Strings argv = {HOSTKIT_CRASH_HOST, "--processor", CRASH_PROCESSOR_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    const ts::RunResult run = ts::RunProgram(argv);
    EXPECT_EQ(128 + signal, run.status) << run.err;
    return run.out;
  }
  // A host that stays alive until killed, once its session file is there.
  pid_t LiveHost() {
    const std::string out = home_.path() + "/demo.out";
    const pid_t pid = ts::StartProgram({LUMETRY_CRASHDEMO, "--crash", "hang"}, {}, out);
    for (int i = 0; i < 500 && ts::Contents(out).find('\n') == std::string::npos; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return pid;
  }
  ts::ScopedHome home_;
  ts::ScopedEnv sanitizer_{"ASAN_OPTIONS", "handle_segv=0:detect_leaks=0"};
};

TEST_F(SessionSweepTest, KilledHostsAreLoggedOnceLiveAndEndedOnesNever) {
  // A crash the hook handled, then its log taken away; a clean end; a live host.
  Host({"--signal", "segv", "--session-id", "Crashed"}, SIGSEGV);
  ASSERT_TRUE(Spool().size() == 1 && ::unlink((SpoolDir() + "/" + Spool()[0]).c_str()) == 0);
  Host({"--signal", "segv", "--session-id", "Ended", "--end-first"}, SIGSEGV);
  const pid_t live = LiveHost();
  const Strings liveFiles = ts::ListNames(SessionDir());
  ASSERT_EQ(1u, liveFiles.size());
  EXPECT_EQ(0u, Sweep());
  EXPECT_EQ(liveFiles, ts::ListNames(SessionDir()));
  EXPECT_EQ(Strings{}, Spool());
  // Killed outright, and killed while a forked child (its pid printed last) lives on.
  Host({"--signal", "kill", "--session-id", "Killed"}, SIGKILL);
  const std::string forked =
      Host({"--signal", "kill", "--session-id", "Forked", "--leave-child"}, SIGKILL);
  ::kill(live, SIGKILL);
  ::waitpid(live, nullptr, 0);
  EXPECT_EQ(3u, Sweep());
  EXPECT_EQ(0u, Sweep());
  EXPECT_EQ(Strings{}, ts::ListNames(SessionDir()));
  EXPECT_EQ((Strings{"ulog_LumetryQX_AppCrash_CDEMO_DEMO-" + std::to_string(live) + "_0.rdy",
                     "ulog_LumetryQX_AppCrash_K1_Forked_0.rdy",
                     "ulog_LumetryQX_AppCrash_K1_Killed_0.rdy"}),
            Spool());
  ::kill(std::stoi(forked.substr(forked.rfind('\n', forked.size() - 2) + 1)), SIGKILL);
}

// Planted files of hosts that write their own: a gone pid is logged (plain,
// as "obfuscate" says), the file of a live process that started before it is
// not, and racing sweeps log each orphan exactly once while a host starts.
TEST_F(SessionSweepTest, PlantedFilesAndRacingSweeps) {
  ASSERT_TRUE(SetPreferenceNumber("obfuscate", "com.quorvik.lumetryqx", 0, PrefUser::kCurrentUser,
                                  PrefHost::kCurrentHost));
  const std::string dead =
      std::to_string(std::stol(ts::RunProgram({"/bin/sh", "-c", "echo $$"}).out));
  const std::string mine = "__" + std::to_string(::getpid()) + "__Fam_Name_Mine_K_T_host1_p.info";
  for (const std::string& name : {mine, dead + "_Fam_Name_S1_K1_x_y_Prod.info", dead + "_bad.info"})
    ASSERT_TRUE(ts::WriteFile(SessionDir() + "/" + name, ""));
  EXPECT_EQ(2u, Sweep());
  EXPECT_EQ(Strings{mine}, ts::ListNames(SessionDir()));
  ASSERT_EQ(Strings{"ulog_LumetryQX_AppCrash_K1_S1_0.xml"}, Spool());
  EXPECT_NE(std::string::npos, ts::Contents(SpoolDir() + "/" + Spool()[0]).find("Fam"));

  for (int i = 0; i < 200; ++i)
    ASSERT_TRUE(ts::WriteFile(
        SessionDir() + "/" + dead + "_F_N_R" + std::to_string(i) + "_K_x_y_P.info", ""));
  std::size_t swept[3] = {};
  std::thread sweeps[3];
  for (int i = 0; i < 3; ++i) sweeps[i] = std::thread([&, i] { swept[i] = Sweep(); });
  const pid_t live = LiveHost();
  for (std::thread& t : sweeps) t.join();
  EXPECT_EQ(200u, swept[0] + swept[1] + swept[2]);
  EXPECT_EQ(2u, ts::ListNames(SessionDir()).size());  // mine and the live host's
  EXPECT_EQ(201u, Spool().size());
  ::kill(live, SIGKILL);
  ::waitpid(live, nullptr, 0);
}

}  // namespace
