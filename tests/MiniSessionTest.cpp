// The crash mini-session writer: a plain document, scrambling, raw writes and
// the refused writes; the failed opens are traced in the crash run's log.
#include <gtest/gtest.h>

#include "MiniSession.h"
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
