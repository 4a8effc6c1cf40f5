// The crash-processor and ulog-decode run as built under a temporary HOME (exit
// statuses, the exact bytes of the usage logs, the session files left, the
// diagnostic log), and the few pieces of the crash run no run can reach.
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
  std::string SessionDir() const {
    return home_.Library() + "/Logs/Quorvik/LumetryQX/SessionInfo/";
  }
  std::string LogDir() const { return home_.Library() + "/Logs/Quorvik/LogCourier2QX/"; }
  void Plant(const std::string& name) { ASSERT_TRUE(WriteFile(SessionDir() + name, "")); }
  int Run(const Strings& args = {"Prod", "1234"},
          const std::string& program = CRASH_PROCESSOR_PATH) {
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

// One run per row: arguments, planted session files and the "obfuscate"
// preference in; status, logs {file, session id, family, product} and the
// session files left out. A log name ending in '.' gets the form "obfuscate" picks.
struct CliCase {
  const char* label;
  Strings args, planted;
  int obf;  // kNoPref, kStrPref or the number stored
  bool logDir;
  int status;
  std::vector<Strings> logs;
  Strings left;
};
constexpr int kNoPref = -100, kStrPref = -101;
const std::string kP = Info("1"), kP9 = Info("9", "77");
const Strings kLog1 = {LogName("1"), "S1", "Fam", "Name"},
              kLog9 = {LogName("9", "."), "S9", "Fam", "Name"};
// clang-format off
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
     {{LogName("A"), "SA", "F", "N"}, {LogName("B"), "SB", "F", "N"}},
     {"3_F_N_SC_KC_x_y_Prod.99"}},
    // Empty pieces are skipped, and no extension is needed.
    {"separators collapse", {"Prod", "1234"}, {"_1234__Fam_Name_S1_K1_x_y_Prod_.info", "1234_Fam_Name_S2_K2_x_y_Prod"},
     kNoPref, true, 0, {kLog1, {LogName("2"), "S2", "Fam", "Name"}}, {}},
    // Attributes are escaped '&' first; UTF-8 passes as it is.
    {"escaped names", {"Prod", "1234"}, {"1234_<&#38;\"\\'>\xC3\xA9_Name_S1_K1_x_y_Prod.info"}, kNoPref, true, 0,
     {{LogName("1"), "S1", "&#60;&#38;#38;&#34;&#92;&#39;&#62;\xC3\xA9", "Name"}}, {}},
    // A name that is not text is NOVALUE; the session id keeps its bytes in the
    // file name, and its stray byte is Latin-1 in the document (C3 -> C3 83).
    {"names that are not UTF-8", {"Prod", "1234"}, {"1234_Fam_N\xff\xfe_S\xc3_K1_x_y_Prod.info"}, kNoPref, true, 0,
     {{"ulog_LumetryQX_AppCrash_K1_S\xc3_0.rdy", "S\xc3\x83", "Fam", "NOVALUE"}}, {}},
    // Hidden names and directories (with what they hold) are session files too.
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

// Whatever order the directory yields its names in, the outcome is the same.
TEST_F(CrashRunTest, OutcomeDoesNotDependOnTheListingOrder) {
  ASSERT_TRUE(MakeDirs(LogDir()));
  Strings names = {"1_F_N_SA_KA_x_y_Prod.77", "2_F_N_SB_KB_x_y_Prod.77", "77_b_c_d_e_f_g_h_Prod",
                   "3_F_N_SC_KC_x_y_Prod.78", "4_F_N_SD_KD_x_y_Other.77"};
  const Strings logs = {LogName("A"), LogName("B")}, left = {names[3], names[4]};
  for (int orders = 0; orders < 6;
       ++orders, std::next_permutation(names.begin(), names.begin() + 3)) {
    std::filesystem::remove_all(SessionDir());
    std::filesystem::remove_all(LogDir());
    ASSERT_TRUE(MakeDirs(LogDir()));
    for (const std::string& name : names) Plant(name);
    EXPECT_EQ(Run({"Prod", "77"}), 0);
    ASSERT_EQ(ListNames(LogDir()), logs) << orders;
    EXPECT_EQ(Decoded(logs[0]) + Decoded(logs[1]), CrashDocument("SA", "F", "N", MachineId()) +
                                                       CrashDocument("SB", "F", "N", MachineId()));
    EXPECT_EQ(ListNames(SessionDir()), left) << orders;
  }
}

TEST_F(CrashRunTest, ConcurrentRunsNeverInterleaveASession) {
  ASSERT_TRUE(MakeDirs(LogDir()));
  for (int round = 0; round < 5; ++round) {
    for (int s = 0; s < 12; ++s) Plant(Info(std::to_string(s)));
    std::vector<pid_t> children;
    for (const char* pid : {"12", "123", "1234", "12", "123", "1234"}) {
      children.push_back(::fork());
      ASSERT_GE(children.back(), 0);
      if (children.back() == 0) {  // 254: another run had consumed the files first
        const int status = RunProgram({CRASH_PROCESSOR_PATH, "Prod", pid}).status;
        ::_exit(status == 0 || status == 254 ? 0 : 1);
      }
    }
    for (pid_t child : children) {
      int status = 0;
      EXPECT_TRUE(::waitpid(child, &status, 0) == child && WIFEXITED(status) &&
                  WEXITSTATUS(status) == 0);
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
  ScopedTempDir appDir;
  const std::string program = appDir.Sub("crash-processor");
  ASSERT_TRUE(std::filesystem::copy_file(CRASH_PROCESSOR_PATH, program));  // with its modes
  ASSERT_TRUE(WriteFile(appDir.Sub("VxLog.config"), "append=1\n"));
  Plant(Info("1"));  // log directory missing
  EXPECT_EQ(Run({"Prod", "1234"}, program), 0);
  ASSERT_TRUE(MakeDirs(LogDir()));
  Plant(Info("2"));
  EXPECT_EQ(Run({"Prod", "1234"}, program), 0);
  // A locked log and a link at the log's name are not written, nor what they lead to.
  const std::string held = appDir.Sub("held"), target = appDir.Sub("target");
  ASSERT_TRUE(WriteFile(held, "keep") && WriteFile(target, "keep"));
  ASSERT_EQ(0, ::link(held.c_str(), (LogDir() + LogName("3")).c_str()));
  ASSERT_EQ(0, ::symlink(target.c_str(), (LogDir() + LogName("4")).c_str()));
  const int holder = ::open(held.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, ::flock(holder, LOCK_EX | LOCK_NB));
  for (const char* n : {"3", "4"}) {
    Plant(Info(n));
    EXPECT_EQ(Run({"Prod", "1234"}, program), 0);
  }
  ::close(holder);
  EXPECT_EQ(Contents(held) + Contents(target), "keepkeep");

  std::string expected;
  const auto trace = [&](int line, const std::string& value) {
    expected += std::to_string(line) + " MiniSession::" + value + "\n";
  };
  const auto failedOpens = [&](const std::string& n) {  // each retry one level down
    trace(214, "CreateCrashFile");
    std::string path = LogDir();
    for (int i = 0; i < 10; ++i, path += "/") {
      trace(176, "Write: " + (path += LogName(n)));
      trace(182, "Write");
    }
  };
  failedOpens("1");
  trace(214, "CreateCrashFile");
  trace(176, "Write: " + LogDir() + LogName("2"));
  trace(156, "Write");
  for (int i = 0; i < 10; ++i) trace(201, "Write");
  failedOpens("3");
  failedOpens("4");
  static const std::regex kLine(
      R"(\[DEBUG\] \| PID:\d+ \| TIME:\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ \| VALUE:(.*) \| DETAIL:File:Utility/src/MiniSession LINE:(\d+))");
  EXPECT_EQ(
      std::regex_replace(Contents(home_.Library() + "/Logs/Quorvik/LumetryQX/VxLog-LogSession.txt"),
                         kLine, "$2 $1"),
      expected);
}

// What no run reaches: refusals of empty inputs, values no file name can hold,
// the raw writer's refusals, a trailing separator, and every byte's scrambling.
TEST(CrashRunPieces, RefusalsAndRawWrites) {
  Strings names = {"stale"};
  EXPECT_FALSE(CrashProcessor::FindSessionInfoFiles("/nonexistent", "Prod", "1", &names));
  EXPECT_TRUE(names.empty());
  EXPECT_FALSE(CrashProcessor::CreateCrashLogs("", "Prod", {"1_F_N_S_K_x_y_Prod"}, true));
  EXPECT_FALSE(CrashProcessor::CreateCrashLogs("/nonexistent/", "Prod", {}, true));
  for (const std::string& v : {std::string(), std::string("\0t", 2)})
    EXPECT_EQ(UsageDoc::EscapeAttributeValue(v), "NOVALUE");
  EXPECT_EQ(UsageDoc::FormatTime(1794711069), "2026-11-15T02:51:09Z");

  ScopedTempDir dir;
  MiniSession session(dir.path() + "/", "LumetryQX", "AppCrash", "S7", "K7", true);
  EXPECT_EQ(-1, session.Write(nullptr));
  EXPECT_EQ(-2, MiniSession(dir.Sub("absent"), "L", "A", "S", "K", true).Write("x"));
  EXPECT_EQ(0, session.Write("ab\xff"));  // 0xFF is U+00FF, C3 BF
  EXPECT_EQ(0, session.Write("c"));
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
  const std::string rot =
      "knI>= G6CD:@?lQ`]_Q 6?4@5:?8lQFE7\\gQnm\n\nk&D286s@4 G6CD:@?lQ_]d]dQm\n";  // by hand
  ScopedTempDir d;
  ASSERT_TRUE(WriteFile(d.Sub("a.rdy"), kMarker + rot) && WriteFile(d.Sub("b.xml"), doc));
  ASSERT_TRUE(WriteFile(d.Sub("bad.rdy"), "K-Q$mw#$zRTd8pofupiX" + rot) &&
              WriteFile(d.Sub("short.rdy"), "K-Q$"));
  const std::string kUsage = "ulog-decode: no file given\nTry 'ulog-decode --help'.\n";
  const std::pair<Strings, std::string> cases[] = {
      // files, expected stderr (or its first line's start)
      {{}, kUsage},
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
    EXPECT_EQ(bad ? r.err.substr(0, 15 + err.size()) : r.err,
              bad ? "ulog-decode: " + err + ": " : err);
    EXPECT_TRUE(!bad || r.err.find('\n') == r.err.size() - 1) << r.err;
  }
}

// A position-independent executable whose only shared objects are the C
// library and libplist (the C++ runtime, libgcc, Expat and libuuid linked in),
// so start-up maps and resolves no more than the run needs; the sanitizer
// build keeps the C++ runtime shared, as its own runtime expects.
TEST(CrashProcessorLink, PositionIndependentWithOnlyTheSharedLibrariesItMust) {
  const RunResult r = RunProgram({"/usr/bin/readelf", "-hld", CRASH_PROCESSOR_PATH}, {"LC_ALL=C"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("Type:                              DYN "), std::string::npos);
  EXPECT_NE(r.out.find("[Requesting program interpreter: "), std::string::npos);
  std::string needed;
  const std::regex library(R"(\(NEEDED\)\s+Shared library: \[([^\]]+)\])");
  for (std::sregex_iterator it(r.out.begin(), r.out.end(), library), end; it != end; ++it)
    needed += (*it)[1].str() + " ";
  EXPECT_TRUE(needed.find("libc.so") != std::string::npos &&
              needed.find("libplist") != std::string::npos)
      << needed;
#if !defined(__SANITIZE_ADDRESS__)
  EXPECT_TRUE(std::regex_match(needed, std::regex(R"(((libc\.so|libplist|ld-linux)\S* )*)")))
      << needed;
#else
  EXPECT_TRUE(needed.find("libexpat") == std::string::npos &&
              needed.find("libuuid") == std::string::npos)
      << needed;
#endif
}

}  // namespace
