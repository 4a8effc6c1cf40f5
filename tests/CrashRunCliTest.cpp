// End-to-end runs of the built crash-processor under a temporary HOME: the
// exit statuses, the exact bytes of the usage logs it leaves, which session
// files remain, and its diagnostic log.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "Preferences.h"
#include "TestSupport.h"

using testing_support::Contents;
using testing_support::CrashDocument;
using testing_support::ListNames;
using testing_support::MakeDirs;
using testing_support::MaskTimes;
using testing_support::PathExists;
using testing_support::ReadFile;
using testing_support::Rot47;
using testing_support::RunProgram;
using testing_support::RunResult;
using testing_support::ScopedHome;
using testing_support::ScopedTempDir;
using testing_support::WriteFile;

namespace {

constexpr const char* kMarker = "K-Q$mw#$zRTd8pofupin";
constexpr const char* kDomain = "com.quorvik.lumetryqx";

class CrashRunTest : public ::testing::Test {
 protected:
  std::string SessionDir() const {
    return home_.Library() + "/Logs/Quorvik/LumetryQX/SessionInfo/";
  }
  std::string LogDir() const { return home_.Library() + "/Logs/Quorvik/LogCourier2QX/"; }

  void Plant(const std::string& name) { ASSERT_TRUE(WriteFile(SessionDir() + name, "")); }
  void MakeLogDir() { ASSERT_TRUE(MakeDirs(LogDir())); }

  RunResult Run(const std::vector<std::string>& args,
                const std::string& program = CRASH_PROCESSOR_PATH) {
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), args.begin(), args.end());
    RunResult result = RunProgram(argv);
#if !LUMETRY_TRACE
    // Without the trace option the run never speaks on the console.
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
#endif
    return result;
  }

  std::string MachineId() {
    std::string id;
    GetPreferenceString("MachineID", kDomain, &id, PrefUser::kCurrentUser, PrefHost::kCurrentHost);
    return id;
  }

  // The decoded, time-masked document of a log file; fails the test when the
  // scrambled form lacks its marker.
  std::string Decoded(const std::string& fileName) {
    std::string bytes = Contents(LogDir() + fileName);
    if (fileName.size() > 4 && fileName.substr(fileName.size() - 4) == ".rdy") {
      EXPECT_EQ(bytes.substr(0, 20), kMarker);
      bytes = Rot47(bytes.substr(std::min<size_t>(20, bytes.size())));
    }
    return MaskTimes(bytes);
  }

  ScopedHome home_;
};

TEST_F(CrashRunTest, TooFewArgumentsTouchNothing) {
  for (const auto& args : {std::vector<std::string>{}, std::vector<std::string>{"Prod"}}) {
    EXPECT_EQ(Run(args).status, 255);
  }
  EXPECT_EQ(ListNames(home_.path()), std::vector<std::string>{});
}

TEST_F(CrashRunTest, EmptyProductOrPidFindsNothing) {
  MakeLogDir();
  Plant("1234_Fam_Name_S1_K1_x_y_Prod.info");
  EXPECT_EQ(Run({"", "1234"}).status, 254);
  EXPECT_EQ(Run({"Prod", ""}).status, 254);
  EXPECT_EQ(Run({"Prod", "999"}).status, 254);
  EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{"1234_Fam_Name_S1_K1_x_y_Prod.info"});
  EXPECT_EQ(ListNames(LogDir()), std::vector<std::string>{});
}

TEST_F(CrashRunTest, ScrambledCrashLogByDefault) {
  MakeLogDir();
  Plant("1234_Fam_Name_S1_K1_x_y_Prod.info");
  EXPECT_EQ(Run({"Prod", "1234", "ignored", "extra"}).status, 0);

  EXPECT_EQ(ListNames(LogDir()), std::vector<std::string>{"ulog_LumetryQX_AppCrash_K1_S1_0.rdy"});
  const std::string id = MachineId();
  EXPECT_EQ(id.size(), 36u);
  EXPECT_EQ(Decoded("ulog_LumetryQX_AppCrash_K1_S1_0.rdy"), CrashDocument("S1", "Fam", "Name", id));
  EXPECT_EQ(testing_support::FileMode(LogDir() + "ulog_LumetryQX_AppCrash_K1_S1_0.rdy"), 0600);
  EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{});
}

TEST_F(CrashRunTest, ObfuscatePreferenceChoosesTheForm) {
  struct Case {
    const char* label;
    bool store_number;
    std::int32_t number;
    const char* extension;
  };
  const Case cases[] = {
      {"zero", true, 0, ".xml"},         {"one", true, 1, ".rdy"},
      {"other number", true, 7, ".xml"}, {"negative", true, -1, ".xml"},
      {"string", false, 0, ".rdy"},
  };
  MakeLogDir();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    if (c.store_number) {
      ASSERT_TRUE(SetPreferenceNumber("obfuscate", kDomain, c.number, PrefUser::kCurrentUser,
                                      PrefHost::kCurrentHost));
    } else {
      ASSERT_TRUE(SetPreferenceString("obfuscate", kDomain, "0", PrefUser::kCurrentUser,
                                      PrefHost::kCurrentHost));
    }
    Plant("77_Fam_Name_S9_K9_x_y_Prod.info");
    EXPECT_EQ(Run({"Prod", "77"}).status, 0);
    const std::string file = std::string("ulog_LumetryQX_AppCrash_K9_S9_0") + c.extension;
    ASSERT_EQ(ListNames(LogDir()), std::vector<std::string>{file});
    // Decoded checks the marker of a scrambled log; a plain one with a marker would differ.
    EXPECT_EQ(Decoded(file), CrashDocument("S9", "Fam", "Name", MachineId()));
    ASSERT_EQ(::unlink((LogDir() + file).c_str()), 0);
  }
}

// The pid is a substring test only; every matched name is deleted, but only
// names with eight pieces, the right process name and a session id and key
// become crash logs.
TEST_F(CrashRunTest, MatchedNamesAreConsumedValidOrNot) {
  MakeLogDir();
  for (const char* name : {"1_F_N_SA_KA_x_y_Prod.123",      // pid inside "123"
                           "2_F_N_SB_KB_x_412_Prod.info",   // pid inside "412"
                           "a_b_c_d_e_f_g_Prod.12.info",    // piece 8 is "Prod.12"
                           "12_b_c_d_e_f_Prod.info",        // seven pieces
                           "12_b_c_d_e_f_g_h_Prod.info",    // nine pieces
                           "Prod_12_c_d_e_f_g_Other.info",  // other process
                           "3_F_N_SC_KC_x_y_Prod.99"}) {    // no pid: stays
    Plant(name);
  }
  EXPECT_EQ(Run({"Prod", "12"}).status, 0);
  EXPECT_EQ(ListNames(LogDir()), (std::vector<std::string>{"ulog_LumetryQX_AppCrash_KA_SA_0.rdy",
                                                           "ulog_LumetryQX_AppCrash_KB_SB_0.rdy"}));
  EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{"3_F_N_SC_KC_x_y_Prod.99"});
}

TEST_F(CrashRunTest, MissingLogDirectoryStillConsumesTheFiles) {
  Plant("1234_Fam_Name_S1_K1_x_y_Prod.info");
  EXPECT_EQ(Run({"Prod", "1234"}).status, 0);
  EXPECT_FALSE(PathExists(LogDir()));
  EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{});
}

TEST_F(CrashRunTest, LongerExistingLogKeepsItsTail) {
  MakeLogDir();
  ASSERT_TRUE(
      SetPreferenceNumber("obfuscate", kDomain, 0, PrefUser::kCurrentUser, PrefHost::kCurrentHost));
  const std::string file = LogDir() + "ulog_LumetryQX_AppCrash_K1_S1_0.xml";
  const std::string tail = "TAIL-OF-AN-OLDER-AND-LONGER-DOCUMENT";
  ASSERT_TRUE(WriteFile(file, std::string(2000, 'x') + tail));
  Plant("1234_Fam_Name_S1_K1_x_y_Prod.info");

  EXPECT_EQ(Run({"Prod", "1234"}).status, 0);
  const std::string bytes = Contents(file);
  ASSERT_EQ(bytes.size(), 2000 + tail.size());
  const std::string doc = CrashDocument("S1", "Fam", "Name", MachineId());
  const size_t written = bytes.find("</UsageDoc>\n") + std::string("</UsageDoc>\n").size();
  EXPECT_EQ(MaskTimes(bytes.substr(0, written)), doc);
  EXPECT_EQ(bytes.substr(written), std::string(2000 - written, 'x') + tail);
}

TEST_F(CrashRunTest, NamesThatAreNotUtf8AreHandledAsBytes) {
  MakeLogDir();
  const std::string name = "1234_Fam_N\xff\xfe_S\xc3_K1_x_y_Prod.info";
  Plant(name);
  EXPECT_EQ(Run({"Prod", "1234"}).status, 0);
  const std::string log = "ulog_LumetryQX_AppCrash_K1_S\xc3_0.rdy";
  ASSERT_EQ(ListNames(LogDir()), std::vector<std::string>{log});
  // The crashed product's name is not text: it is written as NOVALUE. The
  // session id keeps its bytes in the file name; in the document its stray
  // byte is the Latin-1 character (C3 -> U+00C3, C3 83), so it stays UTF-8.
  EXPECT_EQ(Decoded(log), CrashDocument("S\xc3\x83", "Fam", "NOVALUE", MachineId()));
  EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{});
}

// A FIFO at the preference file's place: before, the run hung for ever on
// it. Now it reads as a file that cannot be opened: no stored identity, so a
// fresh one that cannot be stored, scrambling on by default, the FIFO left
// alone.
TEST_F(CrashRunTest, FifoAtThePreferenceFileDoesNotHangTheRun) {
  MakeLogDir();
  Plant("1234_Fam_Name_S1_K1_x_y_Prod.info");
  const std::string prefs =
      PreferenceFilePath(kDomain, PrefUser::kCurrentUser, PrefHost::kCurrentHost);
  ASSERT_TRUE(MakeDirs(prefs.substr(0, prefs.rfind('/'))));
  ASSERT_EQ(0, ::mkfifo(prefs.c_str(), 0600));
  const RunResult run =
      RunProgram({"/usr/bin/timeout", "30", CRASH_PROCESSOR_PATH, "Prod", "1234"});
  ASSERT_EQ(run.status, 0) << "124 means the run hung";
  const std::string document = Decoded("ulog_LumetryQX_AppCrash_K1_S1_0.rdy");
  std::smatch id;
  ASSERT_TRUE(std::regex_search(document, id, std::regex("MachineID\" data=\"([0-9A-F-]{36})\"")));
  EXPECT_EQ(document, CrashDocument("S1", "Fam", "Name", id[1].str()));
  struct stat st;
  ASSERT_EQ(0, ::lstat(prefs.c_str(), &st));
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

TEST_F(CrashRunTest, ManyUnrelatedEntries) {
  MakeLogDir();
  ASSERT_TRUE(MakeDirs(SessionDir()));
  for (int i = 0; i < 20000; ++i) {
    const std::string path = SessionDir() + "9_F_N_S_K_x_y_Other." + std::to_string(i);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ::close(fd);
  }
  Plant("1234_Fam_Name_S1_K1_x_y_Prod.info");
  EXPECT_EQ(Run({"Prod", "1234"}).status, 0);
  EXPECT_EQ(ListNames(LogDir()), std::vector<std::string>{"ulog_LumetryQX_AppCrash_K1_S1_0.rdy"});
  EXPECT_EQ(ListNames(SessionDir()).size(), 20000u);
}

// Every entry counts: a hidden name and a sub-directory that hold both keys
// are matched like files; both become crash logs and both are consumed, the
// directory with what it holds.
TEST_F(CrashRunTest, HiddenNamesAndSubdirectoriesAreSessionFilesToo) {
  MakeLogDir();
  Plant(".1234_Fam_Name_S1_K1_x_y_Prod.info");
  ASSERT_TRUE(MakeDirs(SessionDir() + "1234_Fam_Name_S2_K2_x_y_Prod.d"));
  Plant("1234_Fam_Name_S2_K2_x_y_Prod.d/inside");
  Plant(".hidden_other");
  EXPECT_EQ(Run({"Prod", "1234"}).status, 0);
  EXPECT_EQ(ListNames(LogDir()), (std::vector<std::string>{"ulog_LumetryQX_AppCrash_K1_S1_0.rdy",
                                                           "ulog_LumetryQX_AppCrash_K2_S2_0.rdy"}));
  EXPECT_EQ(Decoded("ulog_LumetryQX_AppCrash_K1_S1_0.rdy"),
            CrashDocument("S1", "Fam", "Name", MachineId()));
  EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{".hidden_other"});
}

// The order in which the directory yields its names (creation order on some
// file systems, hash order on others) changes nothing in the outcome.
TEST_F(CrashRunTest, OutcomeDoesNotDependOnTheListingOrder) {
  MakeLogDir();
  std::vector<std::string> names = {"1_F_N_SA_KA_x_y_Prod.77", "2_F_N_SB_KB_x_y_Prod.77",
                                    "77_b_c_d_e_f_g_h_Prod", "3_F_N_SC_KC_x_y_Prod.78",
                                    "4_F_N_SD_KD_x_y_Other.77"};
  std::vector<std::string> firstLogs;
  std::vector<std::string> firstDocs;
  std::sort(names.begin(), names.end());
  int orders = 0;
  do {
    SCOPED_TRACE(orders);
    for (const std::string& name : names) Plant(name);
    EXPECT_EQ(Run({"Prod", "77"}).status, 0);
    const std::vector<std::string> logs = ListNames(LogDir());
    std::vector<std::string> docs;
    for (const std::string& log : logs) {
      docs.push_back(Decoded(log));
      ASSERT_EQ(::unlink((LogDir() + log).c_str()), 0);
    }
    if (orders == 0) {
      firstLogs = logs;
      firstDocs = docs;
      EXPECT_EQ(logs, (std::vector<std::string>{"ulog_LumetryQX_AppCrash_KA_SA_0.rdy",
                                                "ulog_LumetryQX_AppCrash_KB_SB_0.rdy"}));
    }
    EXPECT_EQ(logs, firstLogs);
    EXPECT_EQ(docs, firstDocs);
    EXPECT_EQ(ListNames(SessionDir()),
              (std::vector<std::string>{"3_F_N_SC_KC_x_y_Prod.78", "4_F_N_SD_KD_x_y_Other.77"}));
    for (const std::string& left : ListNames(SessionDir())) {
      ASSERT_EQ(::unlink((SessionDir() + left).c_str()), 0);
    }
  } while (++orders < 6 && std::next_permutation(names.begin(), names.end()));
  EXPECT_EQ(orders, 6);
}

TEST_F(CrashRunTest, ConcurrentRunsNeverInterleaveASession) {
  MakeLogDir();
  const std::string machineId = MachineId();  // empty: the runs create it
  const std::vector<std::string> pids = {"12", "123", "1234", "12", "123", "1234"};
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    for (int s = 0; s < 12; ++s) {
      Plant("1234_Fam_Name_S" + std::to_string(s) + "_K" + std::to_string(s) + "_x_y_Prod.i");
    }
    std::vector<pid_t> children;
    for (const std::string& pid : pids) {
      const pid_t child = ::fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        const RunResult r = RunProgram({CRASH_PROCESSOR_PATH, "Prod", pid});
        // 0: did the work; 254: another run had already consumed the files.
        ::_exit(r.status == 0 || r.status == 254 ? 0 : 1);
      }
      children.push_back(child);
    }
    for (pid_t child : children) {
      int status = 0;
      ASSERT_EQ(::waitpid(child, &status, 0), child);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{});
    const std::string id = MachineId();
    ASSERT_EQ(id.size(), 36u);
    for (int s = 0; s < 12; ++s) {
      const std::string n = std::to_string(s);
      EXPECT_EQ(Decoded("ulog_LumetryQX_AppCrash_K" + n + "_S" + n + "_0.rdy"),
                CrashDocument("S" + n, "Fam", "Name", id));
    }
  }
}

// The program copied to a directory of its own, with "VxLog.config" beside
// it, keeps a diagnostic log of the session writer's steps.
TEST_F(CrashRunTest, CopiedProgramWithConfigKeepsADiagnosticLog) {
  ScopedTempDir appDir;
  const std::string program = appDir.Sub("crash-processor");
  ASSERT_TRUE(std::filesystem::copy_file(CRASH_PROCESSOR_PATH, program));  // with its modes
  ASSERT_TRUE(WriteFile(appDir.Sub("VxLog.config"), "append=1\n"));

  Plant("1234_Fam_Name_S1_K1_x_y_Prod.info");  // log directory missing
  EXPECT_EQ(Run({"Prod", "1234"}, program).status, 0);
  MakeLogDir();
  Plant("1234_Fam_Name_S2_K2_x_y_Prod.info");
  EXPECT_EQ(Run({"Prod", "1234"}, program).status, 0);

  const std::string log =
      Contents(home_.Library() + "/Logs/Quorvik/LumetryQX/VxLog-LogSession.txt");
  static const std::regex kLine(
      R"(\[DEBUG\] \| PID:\d+ \| TIME:\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ \| VALUE:(.*) \| DETAIL:File:Utility/src/MiniSession LINE:(\d+))");
  std::string expected;
  const auto trace = [&](int line, const std::string& value) {
    expected += std::to_string(line) + " " + value + "\n";
  };
  trace(214, "MiniSession::CreateCrashFile");
  std::string path = LogDir();
  for (int i = 0; i < 10; ++i) {
    path += "ulog_LumetryQX_AppCrash_K1_S1_0.rdy";
    trace(176, "MiniSession::Write: " + path);
    trace(182, "MiniSession::Write");
    path += "/";
  }
  trace(214, "MiniSession::CreateCrashFile");
  trace(176, "MiniSession::Write: " + LogDir() + "ulog_LumetryQX_AppCrash_K2_S2_0.rdy");
  trace(156, "MiniSession::Write");
  for (int i = 0; i < 10; ++i) trace(201, "MiniSession::Write");
  EXPECT_EQ(std::regex_replace(log, kLine, "$2 $1"), expected);
}

}  // namespace
