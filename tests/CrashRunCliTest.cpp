// End-to-end runs of the built crash-processor under a temporary HOME: the
// exit statuses, the exact bytes of the usage logs it leaves, which session
// files remain, and its diagnostic log.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
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

// One run per row: planted session files and the "obfuscate" preference in,
// exit status, crash logs (file, session id, family, product) and the session
// files left over out.
struct CliCase {
  const char* label;
  std::vector<std::string> args, planted;
  int obfuscate;  // kNoPref, kStringPref or the number stored
  bool logDir;
  int status;
  std::vector<std::vector<std::string>> logs;  // a name ending in '.' gets the expected form
  std::vector<std::string> left;
};
constexpr int kNoPref = -100, kStringPref = -101;
const std::string kP = "1234_Fam_Name_S1_K1_x_y_Prod.info", kP9 = "77_Fam_Name_S9_K9_x_y_Prod.info";
const std::vector<std::string> kLog1 = {"ulog_LumetryQX_AppCrash_K1_S1_0.rdy", "S1", "Fam", "Name"};
const std::vector<std::string> kLog9 = {"ulog_LumetryQX_AppCrash_K9_S9_0.", "S9", "Fam", "Name"};
const CliCase kCliCases[] = {
    {"no arguments", {}, {}, kNoPref, false, 255, {}, {}},
    {"one argument", {"Prod"}, {}, kNoPref, false, 255, {}, {}},
    {"empty product", {"", "1234"}, {kP}, kNoPref, true, 254, {}, {kP}},
    {"empty pid", {"Prod", ""}, {kP}, kNoPref, true, 254, {}, {kP}},
    {"other pid", {"Prod", "999"}, {kP}, kNoPref, true, 254, {}, {kP}},
    {"scrambled by default", {"Prod", "1234", "ignored", "x"}, {kP}, kNoPref, true, 0, {kLog1}, {}},
    {"no session directory", {"Prod", "1234"}, {}, kNoPref, true, 254, {}, {}},
    {"product is case-sensitive", {"prod", "1234"}, {kP}, kNoPref, true, 254, {}, {kP}},
    {"missing log directory", {"Prod", "1234"}, {kP}, kNoPref, false, 0, {}, {}},
    {"obfuscate 0", {"Prod", "77"}, {kP9}, 0, true, 0, {kLog9}, {}},
    {"obfuscate 1", {"Prod", "77"}, {kP9}, 1, true, 0, {kLog9}, {}},
    {"obfuscate 7", {"Prod", "77"}, {kP9}, 7, true, 0, {kLog9}, {}},
    {"obfuscate -1", {"Prod", "77"}, {kP9}, -1, true, 0, {kLog9}, {}},
    {"obfuscate string", {"Prod", "77"}, {kP9}, kStringPref, true, 0, {kLog9}, {}},
    // The pid is a substring test only; every matched name is deleted, but
    // only names with eight pieces, the right process name and a session id
    // and key become crash logs.
    // clang-format off
    {"matched names are consumed", {"Prod", "12"},
     {"1_F_N_SA_KA_x_y_Prod.123", "2_F_N_SB_KB_x_412_Prod.info", "a_b_c_d_e_f_g_Prod.12.info",
      "12_b_c_d_e_f_Prod.info", "12_b_c_d_e_f_g_h_Prod.info", "Prod_12_c_d_e_f_g_Other.info",
      "3_F_N_SC_KC_x_y_Prod.99"}, kNoPref, true, 0,
     {{"ulog_LumetryQX_AppCrash_KA_SA_0.rdy", "SA", "F", "N"},
      {"ulog_LumetryQX_AppCrash_KB_SB_0.rdy", "SB", "F", "N"}}, {"3_F_N_SC_KC_x_y_Prod.99"}},
    // A product name that is not text is written as NOVALUE; the session id
    // keeps its bytes in the file name, and its stray byte is the Latin-1
    // character in the document (C3 -> C3 83), so it stays UTF-8.
    {"names that are not UTF-8", {"Prod", "1234"}, {"1234_Fam_N\xff\xfe_S\xc3_K1_x_y_Prod.info"},
     kNoPref, true, 0,
     {{"ulog_LumetryQX_AppCrash_K1_S\xc3_0.rdy", "S\xc3\x83", "Fam", "NOVALUE"}}, {}},
    // Hidden names and directories (with what they hold) are session files too.
    {"hidden names and directories", {"Prod", "1234"},
     {"." + kP, "1234_Fam_Name_S2_K2_x_y_Prod.d/inside", ".hidden_other"}, kNoPref, true, 0,
     {kLog1, {"ulog_LumetryQX_AppCrash_K2_S2_0.rdy", "S2", "Fam", "Name"}}, {".hidden_other"}},
    // clang-format on
};

class CrashRunCases : public CrashRunTest, public ::testing::WithParamInterface<CliCase> {};

TEST_P(CrashRunCases, Run) {
  const CliCase& c = GetParam();
  SCOPED_TRACE(c.label);
  if (c.logDir) MakeLogDir();
  if (c.obfuscate == kStringPref) {
    ASSERT_TRUE(SetPreferenceString("obfuscate", kDomain, "0", PrefUser::kCurrentUser,
                                    PrefHost::kCurrentHost));
  } else if (c.obfuscate != kNoPref) {
    ASSERT_TRUE(SetPreferenceNumber("obfuscate", kDomain, c.obfuscate, PrefUser::kCurrentUser,
                                    PrefHost::kCurrentHost));
  }
  for (const std::string& name : c.planted) Plant(name);
  EXPECT_EQ(Run(c.args).status, c.status);
  // A refused run touches nothing; a run without the log directory does not make it.
  EXPECT_TRUE(c.status != 255 || ListNames(home_.path()).empty());
  EXPECT_TRUE(c.logDir || !PathExists(LogDir()));
  // Only a stored number other than 1 turns scrambling off.
  const bool plain = c.obfuscate != kNoPref && c.obfuscate != kStringPref && c.obfuscate != 1;
  std::vector<std::string> files;
  for (const auto& log : c.logs)
    files.push_back(log[0].back() != '.' ? log[0] : log[0] + (plain ? "xml" : "rdy"));
  ASSERT_EQ(ListNames(LogDir()), files);
  const std::string id = MachineId();
  for (size_t i = 0; i < files.size(); ++i) {
    EXPECT_EQ(id.size(), 36u);
    // Decoded checks the marker of a scrambled log; a plain one with a marker would differ.
    EXPECT_EQ(Decoded(files[i]), CrashDocument(c.logs[i][1], c.logs[i][2], c.logs[i][3], id));
    EXPECT_EQ(testing_support::FileMode(LogDir() + files[i]), 0600);
  }
  EXPECT_EQ(ListNames(SessionDir()), c.left);
}

void PrintTo(const CliCase& c, std::ostream* os) { *os << c.label; }

INSTANTIATE_TEST_SUITE_P(Table, CrashRunCases, ::testing::ValuesIn(kCliCases));

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
  // A locked log and a link at the log's name are not written, nor what they lead to.
  const std::string held = appDir.Sub("held"), target = appDir.Sub("target");
  ASSERT_TRUE(WriteFile(held, "keep") && WriteFile(target, "keep"));
  ASSERT_EQ(0, ::link(held.c_str(), (LogDir() + "ulog_LumetryQX_AppCrash_K3_S3_0.rdy").c_str()));
  ASSERT_EQ(0,
            ::symlink(target.c_str(), (LogDir() + "ulog_LumetryQX_AppCrash_K4_S4_0.rdy").c_str()));
  const int holder = ::open(held.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, ::flock(holder, LOCK_EX | LOCK_NB));
  for (const char* n : {"3", "4"}) {
    Plant(std::string("1234_Fam_Name_S") + n + "_K" + n + "_x_y_Prod.info");
    EXPECT_EQ(Run({"Prod", "1234"}, program).status, 0);
  }
  ::close(holder);
  EXPECT_EQ(Contents(held) + Contents(target), "keepkeep");

  const std::string log =
      Contents(home_.Library() + "/Logs/Quorvik/LumetryQX/VxLog-LogSession.txt");
  static const std::regex kLine(
      R"(\[DEBUG\] \| PID:\d+ \| TIME:\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ \| VALUE:(.*) \| DETAIL:File:Utility/src/MiniSession LINE:(\d+))");
  std::string expected;
  const auto trace = [&](int line, const std::string& value) {
    expected += std::to_string(line) + " " + value + "\n";
  };
  // Every failed open is traced, each retry one more level down.
  const auto failedOpens = [&](const std::string& n) {
    trace(214, "MiniSession::CreateCrashFile");
    std::string path = LogDir();
    for (int i = 0; i < 10; ++i) {
      path += "ulog_LumetryQX_AppCrash_K" + n + "_S" + n + "_0.rdy";
      trace(176, "MiniSession::Write: " + path);
      trace(182, "MiniSession::Write");
      path += "/";
    }
  };
  failedOpens("1");
  trace(214, "MiniSession::CreateCrashFile");
  trace(176, "MiniSession::Write: " + LogDir() + "ulog_LumetryQX_AppCrash_K2_S2_0.rdy");
  trace(156, "MiniSession::Write");
  for (int i = 0; i < 10; ++i) trace(201, "MiniSession::Write");
  failedOpens("3");
  failedOpens("4");
  EXPECT_EQ(std::regex_replace(log, kLine, "$2 $1"), expected);
}

}  // namespace
