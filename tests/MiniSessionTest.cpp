// The crash mini-session writer: file names, the exact document, the
// scrambled form, writing over an existing file, and every way the open can
// fail (missing directory, lock held elsewhere, planted symbolic link).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <sstream>
#include <utility>

#include "MiniSession.h"
#include "PlatformPaths.h"
#include "TestSupport.h"

using namespace testing_support;

namespace {

const std::string kName = "ulog_LumetryQX_AppCrash_KEY42_SID-7_0";

MiniSession MakeSession(const std::string& dir, bool scramble) {
  return MiniSession(dir, "LumetryQX", "AppCrash", "SID-7", "KEY42", scramble);
}

// The crash document with every time stamp written as "T".
const std::string kDocument =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n\n<UsageDoc version=\"0.5.5\">\n"
    "<StartSession id=\"SID-7\" time=\"T\" seq=\"0\" />\n"
    "<NewGroup category=\"Lumetry\" subcategory=\"Crash\" name=\"Session\" time=\"T\" "
    "group=\"0\" doc=\"NOVALUE\" seq=\"1\" />\n"
    "<DataRec time=\"T\" group=\"0\" name=\"ProductFamily\" data=\"LumetryQX\" seq=\"2\" />\n"
    "<DataRec time=\"T\" group=\"0\" name=\"ProductName\" data=\"AppCrash\" seq=\"3\" />\n"
    "<NewGroup category=\"AppExit\" subcategory=\"Crash\" name=\"ExitInfo\" time=\"T\" "
    "group=\"1\" doc=\"NOVALUE\" seq=\"4\" />\n"
    "<DataRec time=\"T\" group=\"1\" name=\"ExitType\" data=\"Crash\" seq=\"5\" />\n"
    "<DataRec time=\"T\" group=\"1\" name=\"CrashProductName\" data=\"Host &#38; Co\" "
    "seq=\"6\" />\n"
    "<DataRec time=\"T\" group=\"1\" name=\"CrashProductFamily\" data=\"HostFamily\" "
    "seq=\"7\" />\n"
    "<DataRec time=\"T\" group=\"1\" name=\"MachineID\" data=\"MACHINE\" seq=\"8\" />\n"
    "<EndSession id=\"SID-7\" time=\"T\" seq=\"9\" />\n</UsageDoc>\n";

std::string MaskTimes(const std::string& text) {
  static const std::regex stamp(R"(time="\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ")");
  return std::regex_replace(text, stamp, "time=\"T\"");
}

void WriteCrashFile(const std::string& dir, bool scramble) {
  MiniSession session = MakeSession(dir, scramble);
  EXPECT_EQ(0, session.CreateCrashFile("MACHINE", "HostFamily", "Host & Co"));
}

}  // namespace

TEST(MiniSession, WritesTheCrashDocumentPlainOrScrambled) {
  struct Case {
    bool scramble;
    std::string dirSuffix, extension;
  } cases[] = {{true, "", ".rdy"}, {false, "", ".xml"}, {false, "/", ".xml"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.extension + c.dirSuffix);
    ScopedTempDir dir;
    WriteCrashFile(dir.path() + c.dirSuffix, c.scramble);
    ASSERT_EQ(std::vector<std::string>{kName + c.extension}, ListNames(dir.path()));
    std::string path = dir.Sub(kName + c.extension), contents;
    ASSERT_TRUE(ReadFile(path, &contents));
    EXPECT_EQ(0600, FileMode(path));
    if (c.scramble) {
      ASSERT_EQ(std::string("K-Q$mw#$zRTd8pofupin"), contents.substr(0, 20));
      contents = MiniSession::UnscrambleText(contents.substr(20));
    }
    EXPECT_EQ(kDocument, MaskTimes(contents));
  }
}

TEST(MiniSession, Rot47RotatesPrintableAsciiOnly) {
  EXPECT_EQ("w6==@[ (@C=5P", MiniSession::ScrambleText("Hello, World!"));
  EXPECT_EQ("2 \n\t\x7f\xc3\xa9", MiniSession::ScrambleText("a \n\t\x7f\xc3\xa9"));
  EXPECT_EQ("PO~", MiniSession::ScrambleText("!~O"));
  EXPECT_EQ("", MiniSession::ScrambleText(nullptr));
  std::string all;
  for (int b = 1; b < 256; ++b) all += static_cast<char>(b);
  EXPECT_EQ(all, MiniSession::UnscrambleText(MiniSession::ScrambleText(all.c_str())));
}

TEST(MiniSession, SecondSessionWritesOverTheFileFromItsStart) {
  ScopedTempDir dir;
  std::string path = dir.Sub(kName + ".xml"), contents;
  const std::string old(5000, 'Z');
  ASSERT_TRUE(WriteFile(path, old));
  // An empty machine identity is written as NOVALUE.
  MakeSession(dir.path(), false).CreateCrashFile("", "HostFamily", "Host & Co");
  ASSERT_TRUE(ReadFile(path, &contents));
  size_t end = contents.find("</UsageDoc>\n") + 12;
  ASSERT_LT(end, old.size());
  std::string expected = kDocument;
  expected.replace(expected.find("MACHINE"), 7, "NOVALUE");
  EXPECT_EQ(expected, MaskTimes(contents.substr(0, end)));
  EXPECT_EQ(old.substr(end), contents.substr(end));
}

TEST(MiniSession, WriteStatuses) {
  ScopedTempDir dir;
  std::string path = dir.Sub(kName + ".rdy"), contents;
  MiniSession session = MakeSession(dir.path(), true);
  EXPECT_EQ(-1, session.Write(nullptr));
  EXPECT_EQ(dir.path(), session.path());  // nothing attempted yet
  // Bytes that are not UTF-8 are still written.
  EXPECT_EQ(0, session.Write("ab\xff"));
  EXPECT_EQ(0, session.Write("c"));
  ASSERT_TRUE(ReadFile(path, &contents));
  EXPECT_EQ(std::string(MiniSession::kScrambleMarker) + "23\xff" + "4", contents);
}

TEST(MiniSession, FailedOpenWritesNothingAndGrowsThePath) {
  for (int kind = 0; kind < 3; ++kind) {  // missing directory, lock held elsewhere, planted link
    SCOPED_TRACE(kind);
    ScopedTempDir tmp;
    std::string dir = kind == 0 ? tmp.Sub("absent") : tmp.path();
    std::string path = dir + "/" + kName + ".xml", other = tmp.Sub("other"), contents;
    ASSERT_TRUE(WriteFile(other, "keep"));
    if (kind == 1) {
      ASSERT_EQ(0, ::link(other.c_str(), path.c_str()));
    }
    if (kind == 2) {
      ASSERT_EQ(0, ::symlink(other.c_str(), path.c_str()));
    }
    int holder = ::open(other.c_str(), O_RDONLY);
    if (kind == 1) {
      ASSERT_EQ(0, ::flock(holder, LOCK_EX | LOCK_NB));
    }

    MiniSession session = MakeSession(dir, false);
    EXPECT_EQ(-2, session.Write("text"));
    EXPECT_EQ(path, session.path());
    EXPECT_EQ(-2, session.Write("text"));
    EXPECT_EQ(path + "/" + kName + ".xml", session.path());  // one level deeper
    ::close(holder);
    EXPECT_TRUE(ReadFile(other, &contents) && contents == "keep");
    EXPECT_EQ(kind == 0 ? 1u : 2u, ListNames(tmp.path()).size());
  }
}

// The logger is settled once per process, so the sessions run in a fresh copy
// of this test binary whose HOME and main bundle point into a sandbox.
TEST(MiniSession, TracesEachStepToTheDiagnosticLog) {
  if (const char* root = std::getenv("MINISESSION_TRACE_ROOT")) {
    Platform::SetMainBundlePathForTesting(std::string(root) + "/bundle");
    MakeSession(std::string(root) + "/absent", false).CreateCrashFile("M", "F", "P");
    MakeSession(std::string(root) + "/logs", true).CreateCrashFile("M", "F", "P");
    return;
  }
  ScopedTempDir box;
  std::string home = box.Sub("home"), logs = box.Sub("logs"), absent = box.Sub("absent");
  ASSERT_TRUE(MakeDirs(home) && MakeDirs(logs) && WriteFile(box.Sub("bundle/VxLog.config"), ""));
  RunResult run =
      RunProgram({"/proc/self/exe", "--gtest_filter=MiniSession.TracesEachStepToTheDiagnosticLog"},
                 {"HOME=" + home, "MINISESSION_TRACE_ROOT=" + box.path()});
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_FALSE(PathExists(absent));

  using Trace = std::pair<std::string, int>;
  std::vector<Trace> expected{{"MiniSession::CreateCrashFile", 214}};
  std::string grown = absent;
  for (int i = 0; i < 10; ++i) {
    grown += "/" + kName + ".xml";
    expected.push_back({"MiniSession::Write: " + grown, 176});
    expected.push_back({"MiniSession::Write", 182});
  }
  expected.push_back({"MiniSession::CreateCrashFile", 214});
  expected.push_back({"MiniSession::Write: " + logs + "/" + kName + ".rdy", 176});
  expected.push_back({"MiniSession::Write", 156});
  for (int i = 0; i < 10; ++i) expected.push_back({"MiniSession::Write", 201});

  std::string text;
  ASSERT_TRUE(ReadFile(home + "/Library/Logs/Quorvik/LumetryQX/VxLog-LogSession.txt", &text));
  std::istringstream in(text);
  std::vector<Trace> actual;
  const std::regex format(R"(\[DEBUG\] \| PID:\d+ \| TIME:\S+ \| VALUE:(.*) \| )"
                          R"(DETAIL:File:Utility/src/MiniSession LINE:(\d+))");
  for (std::string line; std::getline(in, line);) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, format)) << line;
    actual.push_back({m[1], std::stoi(m[2])});
  }
  EXPECT_EQ(expected, actual);
}
