// The crash mini-session writer: a plain document, scrambling, raw writes and
// the failed opens with their diagnostic traces.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>

#include "MiniSession.h"
#include "PlatformPaths.h"
#include "TestSupport.h"

using namespace testing_support;

namespace {

const std::string kName = "ulog_LumetryQX_AppCrash_KEY42_SID-7_0";

MiniSession MakeSession(const std::string& dir, bool scramble) {
  return MiniSession(dir, "LumetryQX", "AppCrash", "SID-7", "KEY42", scramble);
}

}  // namespace

// Both forms of the whole document are pinned end to end by the crash run;
// here the parts it cannot reach: a directory given with a trailing separator,
// an escaped product name and the path the session reports.
TEST(MiniSession, WritesThePlainDocumentBelowADirectoryWithATrailingSeparator) {
  ScopedTempDir dir;
  MiniSession session = MakeSession(dir.path() + "/", false);
  EXPECT_EQ(0, session.CreateCrashFile("MACHINE", "HostFamily", "Host & Co"));
  ASSERT_EQ(std::vector<std::string>{kName + ".xml"}, ListNames(dir.path()));
  const std::string path = dir.Sub(kName + ".xml");
  EXPECT_EQ(path, session.path());
  EXPECT_EQ(0600, FileMode(path));
  EXPECT_EQ(CrashDocument("SID-7", "HostFamily", "Host &#38; Co", "MACHINE"),
            MaskTimes(Contents(path)));
}

// A stray byte is written as the Latin-1 character of its value (0xFF is
// U+00FF, C3 BF), so the document stays valid UTF-8.
TEST(MiniSession, ScramblesEveryByteAndRepairsBytesThatAreNotUtf8) {
  std::string all(1, '\0');
  for (int b = 1; b < 256; ++b) all += static_cast<char>(b);
  EXPECT_EQ(Rot47(all), MiniSession::UnscrambleText(all));
  EXPECT_EQ(Rot47(all.substr(1)), MiniSession::ScrambleText(all.c_str() + 1));
  EXPECT_EQ("", MiniSession::ScrambleText(nullptr));

  ScopedTempDir dir;
  MiniSession session = MakeSession(dir.path(), true);
  EXPECT_EQ(-1, session.Write(nullptr));
  EXPECT_EQ(dir.path(), session.path());  // nothing attempted yet
  EXPECT_EQ(-2, MakeSession(dir.Sub("absent"), true).Write("x"));
  EXPECT_EQ(0, session.Write("ab\xff"));
  EXPECT_EQ(0, session.Write("c"));
  EXPECT_EQ(std::string(MiniSession::kScrambleMarker) + "23\xc3\xbf" + "4",
            Contents(dir.Sub(kName + ".rdy")));
}

// The logger is settled once per process, so the sessions run in a fresh copy
// of this test binary whose HOME and main bundle point into a sandbox. The
// trace of a missing directory and of a successful open is pinned by the
// crash run's diagnostic log.
TEST(MiniSession, FailedOpensWriteNothingAndTraceEveryAttempt) {
  if (const char* root = std::getenv("MINISESSION_ROOT")) {
    const ScopedOverride bundle(&Platform::SetMainBundlePathForTesting,
                                std::string(root) + "/bundle");
    for (const char* dir : {"/locked", "/link"})
      MakeSession(root + std::string(dir), true).CreateCrashFile("M", "F", "P");
    return;
  }
  ScopedTempDir box;
  const std::string home = box.Sub("home"), held = box.Sub("held"), target = box.Sub("target");
  ASSERT_TRUE(MakeDirs(home) && MakeDirs(box.Sub("locked")) && MakeDirs(box.Sub("link")) &&
              WriteFile(box.Sub("bundle/VxLog.config"), "") && WriteFile(held, "keep") &&
              WriteFile(target, "keep"));
  ASSERT_EQ(0, ::link(held.c_str(), (box.Sub("locked/") + kName + ".rdy").c_str()));
  ASSERT_EQ(0, ::symlink(target.c_str(), (box.Sub("link/") + kName + ".rdy").c_str()));
  const int holder = ::open(held.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, ::flock(holder, LOCK_EX | LOCK_NB));
  RunResult run = RunProgram({"/proc/self/exe", "--gtest_filter=MiniSession.FailedOpens*"},
                             {"HOME=" + home, "MINISESSION_ROOT=" + box.path()});
  ::close(holder);
  ASSERT_EQ(0, run.status) << run.out << run.err;
  // Neither the locked file nor the link's target is written.
  EXPECT_EQ(Contents(held), "keep");
  EXPECT_EQ(Contents(target), "keep");

  std::string expected;
  const auto trace = [&](int line, const std::string& value) {
    expected += std::to_string(line) + " " + value + "\n";
  };
  for (const char* dir : {"/locked", "/link"}) {
    trace(214, "MiniSession::CreateCrashFile");
    std::string grown = box.path() + dir;
    for (int i = 0; i < 10; ++i) {
      grown += "/" + kName + ".rdy";
      trace(176, "MiniSession::Write: " + grown);
      trace(182, "MiniSession::Write");
    }
  }
  const std::string text = Contents(home + "/Library/Logs/Quorvik/LumetryQX/VxLog-LogSession.txt");
  const std::regex format(R"(\[DEBUG\] \| PID:\d+ \| TIME:\S+ \| VALUE:(.*) \| )"
                          R"(DETAIL:File:Utility/src/MiniSession LINE:(\d+))");
  EXPECT_EQ(expected, std::regex_replace(text, format, "$2 $1"));
}
