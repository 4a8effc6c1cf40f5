// The crash-processor and ulog-decode run as built under a temporary HOME, and
// the few pieces of the crash run that no run can reach.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "MiniSession.h"
#include "Preferences.h"
#include "SessionInfo.h"
#include "TestSupport.h"
#include "UsageDoc.h"

using namespace testing_support;
using Strings = std::vector<std::string>;

namespace {

constexpr const char* kMarker = "K-Q$mw#$zRTd8pofupin";
constexpr const char* kDomain = "com.quorvik.lumetryqx";
constexpr auto kUser = PrefUser::kCurrentUser;
constexpr auto kHost = PrefHost::kCurrentHost;
std::string LogName(const std::string& n, const char* ext = ".rdy") {
  return "ulog_LumetryQX_AppCrash_K" + n + "_S" + n + "_0" + ext;
}
std::string Info(const std::string& n, const std::string& pid = "1234") {
  return pid + "_Fam_Name_S" + n + "_K" + n + "_x_y_Prod.info";
}

class CrashRunTest : public ::testing::Test {
 protected:
  std::string Dir(const char* sub) const { return home_.Library() + "/Logs/Quorvik/" + sub; }
  std::string SessionDir() const { return Dir("LumetryQX/SessionInfo/"); }
  std::string LogDir() const { return Dir("LogCourier2QX/"); }
  void Plant(const std::string& name) { ASSERT_TRUE(WriteFile(SessionDir() + name, "")); }
  int Run(const Strings& args = {"Prod", "1234"}, const char* program = CRASH_PROCESSOR_PATH) {
    Strings argv = {program};
    argv.insert(argv.end(), args.begin(), args.end());
    const RunResult result = RunProgram(argv);
#if !LUMETRY_TRACE
    EXPECT_EQ(result.out + result.err, "");  // without tracing a run never speaks
#endif
    return result.status;
  }
  std::string MachineId() {
    std::string id;
    GetPreferenceString("MachineID", kDomain, &id, kUser, kHost);
    return id;
  }
  // The decoded, time-masked document of a log; a scrambled one must carry its marker.
  std::string Decoded(const std::string& fileName) {
    std::string bytes = Contents(LogDir() + fileName);
    if (fileName.substr(fileName.size() - 4) == ".rdy") {
      EXPECT_EQ(bytes.substr(0, 20), kMarker);
      bytes = Rot47(bytes.substr(std::min<size_t>(20, bytes.size())));
    }
    return MaskTimes(bytes);
  }
  ScopedHome home_;
};

// One run per row: arguments, planted session files and "obfuscate" in; status, logs {file,
// session id, family, product} (a name ending in '.' gets the form "obfuscate" picks), files left.
// clang-format off
struct CliCase {
  const char* label; Strings args, planted; int obf; bool logDir; int status;
  std::vector<Strings> logs; Strings left;
};
constexpr int kNoPref = -100, kStrPref = -101;  // obf: these, or the number stored
const std::string kP = Info("1"), kP9 = Info("9", "77"), kA = "1_F_N_SA_KA_x_y_Prod.77",
    kB = "2_F_N_SB_KB_x_y_Prod.77", kX = "77_b_c_d_e_f_g_h_Prod", kC = "3_F_N_SC_KC_x_y_Prod.78",
    kD = "4_F_N_SD_KD_x_y_Other.77";
const Strings kLog1 = {LogName("1"), "S1", "Fam", "Name"},
    kLog9 = {LogName("9", "."), "S9", "Fam", "Name"};
const std::vector<Strings> kLogAB = {{LogName("A"), "SA", "F", "N"},
                                     {LogName("B"), "SB", "F", "N"}};
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
    {"obfuscate string", {"Prod", "77"}, {kP9}, kStrPref, true, 0, {kLog9}, {}},
    // The pid is a substring test; every matched name goes, but only eight
    // pieces with the right process name, a session id and a key make a log.
    {"matched names are consumed", {"Prod", "12"},
     {"1_F_N_SA_KA_x_y_Prod.123", "2_F_N_SB_KB_x_412_Prod.info", "a_b_c_d_e_f_g_Prod.12.info",
      "12_b_c_d_e_f_Prod.info", "12_b_c_d_e_f_g_h_Prod.info", "Prod_12_c_d_e_f_g_Other.info",
      "3_F_N_SC_KC_x_y_Prod.99"}, kNoPref, true, 0,
     kLogAB, {"3_F_N_SC_KC_x_y_Prod.99"}},
    // Empty pieces are skipped, and no extension is needed.
    {"separators collapse", {"Prod", "1234"},
     {"_1234__Fam_Name_S1_K1_x_y_Prod_.info", "1234_Fam_Name_S2_K2_x_y_Prod"}, kNoPref, true, 0,
     {kLog1, {LogName("2"), "S2", "Fam", "Name"}}, {}},
    // Attributes are escaped '&' first; UTF-8 passes as it is.
    {"escaped names", {"Prod", "1234"},
     {"1234_<&#38;\"\\'>\xC3\xA9_Name_S1_K1_x_y_Prod.info"}, kNoPref, true, 0,
     {{LogName("1"), "S1", "&#60;&#38;#38;&#34;&#92;&#39;&#62;\xC3\xA9", "Name"}}, {}},
    // A name that is not text is NOVALUE; the session id keeps its bytes in the
    // file name, and its stray byte is Latin-1 in the document (C3 -> C3 83).
    {"names that are not UTF-8", {"Prod", "1234"},
     {"1234_Fam_N\xff\xfe_S\xc3_K1_x_y_Prod.info"}, kNoPref, true, 0,
     {{"ulog_LumetryQX_AppCrash_K1_S\xc3_0.rdy", "S\xc3\x83", "Fam", "NOVALUE"}}, {}},
    // Hidden names and directories (with what they hold) are session files too.
    // Whatever order the directory yields its names in, the outcome is the same.
    {"order ABX", {"Prod", "77"}, {kA, kB, kX, kC, kD}, kNoPref, true, 0, kLogAB, {kC, kD}},
    {"order AXB", {"Prod", "77"}, {kA, kX, kB, kC, kD}, kNoPref, true, 0, kLogAB, {kC, kD}},
    {"order BAX", {"Prod", "77"}, {kB, kA, kX, kC, kD}, kNoPref, true, 0, kLogAB, {kC, kD}},
    {"order BXA", {"Prod", "77"}, {kB, kX, kA, kC, kD}, kNoPref, true, 0, kLogAB, {kC, kD}},
    {"order XAB", {"Prod", "77"}, {kX, kA, kB, kC, kD}, kNoPref, true, 0, kLogAB, {kC, kD}},
    {"order XBA", {"Prod", "77"}, {kX, kB, kA, kC, kD}, kNoPref, true, 0, kLogAB, {kC, kD}},
    {"hidden names and directories", {"Prod", "1234"},
     {"." + kP, "1234_Fam_Name_S2_K2_x_y_Prod.d/inside", ".hidden_other"}, kNoPref, true, 0,
     {kLog1, {LogName("2"), "S2", "Fam", "Name"}}, {".hidden_other"}},
};
// clang-format on

class CrashRunCases : public CrashRunTest, public ::testing::WithParamInterface<CliCase> {};

TEST_P(CrashRunCases, Run) {
  const CliCase& c = GetParam();
  ASSERT_TRUE(!c.logDir || MakeDirs(LogDir()));
  ASSERT_TRUE(c.obf != kStrPref || SetPreferenceString("obfuscate", kDomain, "0", kUser, kHost));
  ASSERT_TRUE(c.obf <= kNoPref || SetPreferenceNumber("obfuscate", kDomain, c.obf, kUser, kHost));
  for (const std::string& name : c.planted) Plant(name);
  EXPECT_EQ(Run(c.args), c.status);
  // A refused run touches nothing; a run without the log directory does not make it.
  EXPECT_TRUE(c.status != 255 || ListNames(home_.path()).empty());
  EXPECT_TRUE(c.logDir || !PathExists(LogDir()));
  const bool plain = c.obf > kNoPref && c.obf != 1;  // only a stored number but 1 turns it off
  Strings files;
  for (const auto& log : c.logs)
    files.push_back(log[0].back() != '.' ? log[0] : log[0] + (plain ? "xml" : "rdy"));
  ASSERT_EQ(ListNames(LogDir()), files);
  for (size_t i = 0; i < files.size(); ++i) {
    EXPECT_EQ(MachineId().size(), 36u);
    EXPECT_EQ(Decoded(files[i]),
              CrashDocument(c.logs[i][1], c.logs[i][2], c.logs[i][3], MachineId()));
    EXPECT_EQ(FileMode(LogDir() + files[i]), 0600);
  }
  EXPECT_EQ(ListNames(SessionDir()), c.left);
}
void PrintTo(const CliCase& c, std::ostream* os) { *os << c.label; }
INSTANTIATE_TEST_SUITE_P(Table, CrashRunCases, ::testing::ValuesIn(kCliCases));

// An older, longer log keeps its tail; 20000 unrelated names change nothing.
TEST_F(CrashRunTest, LongerExistingLogAndManyUnrelatedEntries) {
  ASSERT_TRUE(MakeDirs(LogDir()) && SetPreferenceNumber("obfuscate", kDomain, 0, kUser, kHost));
  const std::string file = LogDir() + LogName("1", ".xml"), old = std::string(2000, 'x') + "TAIL";
  ASSERT_TRUE(WriteFile(file, old));
  for (int i = 0; i < 20000; ++i) Plant("9_F_N_S_K_x_y_Other." + std::to_string(i));
  Plant(kP);
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(ListNames(LogDir()), Strings{LogName("1", ".xml")});
  EXPECT_EQ(ListNames(SessionDir()).size(), 20000u);
  const std::string bytes = Contents(file), doc = CrashDocument("S1", "Fam", "Name", MachineId());
  const size_t end = bytes.find("</UsageDoc>\n") + 12;
  EXPECT_EQ(MaskTimes(bytes.substr(0, end)), doc);
  EXPECT_EQ(bytes.substr(end), old.substr(end));
}

// A FIFO at the preference file's place reads as a file that cannot be opened
// (it once hung the run): a fresh identity, scrambling on, the FIFO left alone.
TEST_F(CrashRunTest, FifoAtThePreferenceFileDoesNotHangTheRun) {
  ASSERT_TRUE(MakeDirs(LogDir()));
  Plant(kP);
  const std::string prefs = PreferenceFilePath(kDomain, kUser, kHost);
  ASSERT_TRUE(MakeDirs(prefs.substr(0, prefs.rfind('/'))));
  ASSERT_EQ(0, ::mkfifo(prefs.c_str(), 0600));
  ASSERT_EQ(RunProgram({"/usr/bin/timeout", "30", CRASH_PROCESSOR_PATH, "Prod", "1234"}).status, 0);
  const std::string doc = Decoded(LogName("1"));
  std::smatch id;
  ASSERT_TRUE(std::regex_search(doc, id, std::regex("MachineID\" data=\"([0-9A-F-]{36})\"")));
  EXPECT_EQ(doc, CrashDocument("S1", "Fam", "Name", id[1].str()));
  struct stat st;
  EXPECT_TRUE(::lstat(prefs.c_str(), &st) == 0 && S_ISFIFO(st.st_mode));
}

TEST_F(CrashRunTest, ConcurrentRunsNeverInterleaveASession) {
  ASSERT_TRUE(MakeDirs(LogDir()));
  for (int round = 0; round < 5; ++round) {
    for (int s = 0; s < 12; ++s) Plant(Info(std::to_string(s)));
    std::vector<pid_t> children;
    for (const char* pid : {"12", "123", "1234", "12", "123", "1234"}) {
      if ((children.emplace_back(::fork())) == 0) {  // 254: another run consumed the files first
        const int status = RunProgram({CRASH_PROCESSOR_PATH, "Prod", pid}).status;
        ExitChild(status == 0 || status == 254 ? 0 : 1);
      }
    }
    for (pid_t child : children) {
      int status = -1;
      EXPECT_TRUE(child > 0 && ::waitpid(child, &status, 0) == child && status == 0);
    }
    EXPECT_EQ(ListNames(SessionDir()), Strings{}) << round;
    for (int s = 0; s < 12; ++s) {
      const std::string n = std::to_string(s);
      EXPECT_EQ(Decoded(LogName(n)), CrashDocument("S" + n, "Fam", "Name", MachineId())) << round;
    }
  }
}

// The program copied to a directory of its own, with "VxLog.config" beside
// it, keeps a diagnostic log of the session writer's steps.
TEST_F(CrashRunTest, CopiedProgramWithConfigKeepsADiagnosticLog) {
  ScopedTempDir app;
  const std::string program = app.Sub("crash-processor"), held = app.Sub("held"),
                    target = app.Sub("target");
  ASSERT_TRUE(std::filesystem::copy_file(CRASH_PROCESSOR_PATH, program));  // with its modes
  ASSERT_TRUE(WriteFile(app.Sub("VxLog.config"), "append=1\n") && WriteFile(held, "keep") &&
              WriteFile(target, "keep"));
  const int holder = ::open(held.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, ::flock(holder, LOCK_EX | LOCK_NB));
  // Log 1 without a log directory; 3 at a locked log's name and 4 at a link's are not written.
  for (const char* n : {"1", "2", "3", "4"}) {
    ASSERT_TRUE(*n != '2' || (MakeDirs(LogDir()) &&
                              ::link(held.c_str(), (LogDir() + LogName("3")).c_str()) == 0 &&
                              ::symlink(target.c_str(), (LogDir() + LogName("4")).c_str()) == 0));
    Plant(Info(n));
    EXPECT_EQ(Run({"Prod", "1234"}, program.c_str()), 0);
  }
  ::close(holder);
  EXPECT_EQ(Contents(held) + Contents(target), "keepkeep");
  std::string expected;
  for (const char* n : {"1", "2", "3", "4"}) {
    std::string path = LogDir() + LogName(n);
    expected += "214 MiniSession::CreateCrashFile\n";
    if (*n == '2') expected += "176 MiniSession::Write: " + path + "\n156 MiniSession::Write\n";
    // Each failed open is retried one level down.
    for (int i = 0; i < 10; ++i, path += "/" + LogName(n))
      expected += *n == '2' ? "201 MiniSession::Write\n"
                            : "176 MiniSession::Write: " + path + "\n182 MiniSession::Write\n";
  }
  static const std::regex kLine(
      R"(\[DEBUG\] \| PID:\d+ \| TIME:\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ \| VALUE:(.*) \| DETAIL:File:Utility/src/MiniSession LINE:(\d+))");
  const std::string log = Contents(Dir("LumetryQX/VxLog-LogSession.txt"));
  EXPECT_EQ(std::regex_replace(log, kLine, "$2 $1"), expected);
}

// What no run reaches: refusals of empty inputs, values no file name can hold,
// the raw writer's refusals, a trailing separator, and every byte's scrambling.
TEST(CrashRunPieces, RefusalsAndRawWrites) {
  Strings names = {"stale"};  // cleared
  EXPECT_TRUE(!CrashProcessor::FindSessionInfoFiles("/nonexistent", "Prod", "1", &names) &&
              names.empty());
  EXPECT_FALSE(CrashProcessor::CreateCrashLogs("", "Prod", {"1_F_N_S_K_x_y_Prod"}, true) ||
               CrashProcessor::CreateCrashLogs("/nonexistent/", "Prod", {}, true));
  EXPECT_EQ(UsageDoc::EscapeAttributeValue("") + UsageDoc::EscapeAttributeValue({"\0t", 2}),
            "NOVALUENOVALUE");
  EXPECT_EQ(UsageDoc::FormatTime(1794711069), "2026-11-15T02:51:09Z");

  ScopedTempDir dir;
  MiniSession session(dir.path() + "/", "LumetryQX", "AppCrash", "S7", "K7", true);
  EXPECT_EQ(-1, session.Write(nullptr));
  EXPECT_EQ(-2, MiniSession(dir.Sub("absent"), "L", "A", "S", "K", true).Write("x"));
  EXPECT_TRUE(session.Write("ab\xff") == 0 && session.Write("c") == 0);  // 0xFF is U+00FF, C3 BF
  EXPECT_EQ(dir.Sub(LogName("7")), session.path());
  EXPECT_EQ(std::string(kMarker) + "23\xc3\xbf" + "4", Contents(session.path()));
  std::string all(1, '\0');
  for (int b = 1; b < 256; ++b) all += static_cast<char>(b);
  EXPECT_EQ(Rot47(all), MiniSession::UnscrambleText(all));
  EXPECT_EQ(Rot47(all.substr(1)), MiniSession::ScrambleText(all.c_str() + 1));
  EXPECT_EQ("", MiniSession::ScrambleText(nullptr));
}

// ulog-decode as support engineers run it on files of the spool: each bad
// file is one line on stderr, and the files after it are still printed.
TEST(DecodeTool, Runs) {
  const std::string doc =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n\n<UsageDoc version=\"0.5.5\">\n";
  ScopedTempDir d;
  ASSERT_TRUE(WriteFile(d.Sub("a.rdy"), kMarker + Rot47(doc)) && WriteFile(d.Sub("b.xml"), doc) &&
              WriteFile(d.Sub("bad.rdy"), "K-Q$mw#$zRTd8pofupiX" + Rot47(doc)) &&
              WriteFile(d.Sub("short.rdy"), "K-Q$"));
  // Files; stderr, or for a bad file the name its one line starts with.
  const std::pair<Strings, std::string> cases[] = {
      {{}, "ulog-decode: no file given\nTry 'ulog-decode --help'.\n"},
      {{"a.rdy", "b.xml"}, ""},
      {{"bad.rdy", "b.xml"}, d.Sub("bad.rdy")},
      {{"short.rdy", "b.xml"}, d.Sub("short.rdy")},
      {{"none", "b.xml"}, d.Sub("none")},
      {{"", "b.xml"}, d.Sub("")}};
  for (const auto& [files, err] : cases) {
    Strings argv = {std::string(TOOLS_DIR) + "/ulog-decode"};
    for (const std::string& f : files) argv.push_back(d.Sub(f));
    const RunResult r = RunProgram(argv);
    const bool bad = err.find(d.path()) == 0;
    EXPECT_EQ(r.status, files.empty() ? 2 : bad ? 1 : 0) << err;
    EXPECT_EQ(r.out, files.empty() ? "" : bad ? doc : doc + doc);
    EXPECT_EQ(
        bad ? r.err.substr(0, 15 + err.size()) + std::to_string(r.err.find('\n') + 1 - r.err.size())
            : r.err,
        bad ? "ulog-decode: " + err + ": 0" : err);
  }
}

// Position-independent, sharing only the C library and libplist so start-up maps no more
// than the run needs (a sanitizer build keeps its C++ runtime shared).
TEST(CrashProcessorLink, PositionIndependentWithOnlyTheSharedLibrariesItMust) {
  const RunResult r = RunProgram({"/usr/bin/readelf", "-hld", CRASH_PROCESSOR_PATH}, {"LC_ALL=C"});
  EXPECT_TRUE(r.out.find("Type:                              DYN ") != std::string::npos &&
              r.out.find("[Requesting program interpreter: ") != std::string::npos)
      << r.err;
  std::string needed;
  const std::regex library(R"(\(NEEDED\)\s+Shared library: \[([^\]]+)\])");
  for (std::sregex_iterator it(r.out.begin(), r.out.end(), library), end; it != end; ++it)
    needed += (*it)[1].str() + " ";
#if !defined(__SANITIZE_ADDRESS__)
  const bool onlyThose =
      std::regex_match(needed, std::regex(R"(((libc\.so|libplist|ld-linux)\S* )*)"));
#else
  const bool onlyThose =
      needed.find("libexpat") == std::string::npos && needed.find("libuuid") == std::string::npos;
#endif
  EXPECT_TRUE(onlyThose && needed.find("libc.so") != std::string::npos &&
              needed.find("libplist") != std::string::npos)
      << needed;
}

}  // namespace
