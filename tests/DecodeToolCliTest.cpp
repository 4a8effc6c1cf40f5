// ulog-decode, run as support engineers run it on files of the spool.
#include <gtest/gtest.h>

#include <string>

#include "TestSupport.h"

using testing_support::RunProgram;
using testing_support::RunResult;
using testing_support::ScopedTempDir;
using testing_support::WriteFile;

namespace {

const std::string kTool = std::string(TOOLS_DIR) + "/ulog-decode";
const std::string kMarker = "K-Q$mw#$zRTd8pofupin";
const std::string kDoc =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n\n<UsageDoc version=\"0.5.5\">\n";
// kDoc under ROT47, written out by hand so the test does not share the
// tool's own code.
const std::string kScrambledDoc =
    "knI>= G6CD:@?lQ`]_Q 6?4@5:?8lQFE7\\gQnm\n\nk&D286s@4 G6CD:@?lQ_]d]dQm\n";

TEST(DecodeTool, DecodesScrambledAndPassesPlain) {
  ScopedTempDir dir;
  ASSERT_TRUE(WriteFile(dir.Sub("a.rdy"), kMarker + kScrambledDoc));
  ASSERT_TRUE(WriteFile(dir.Sub("b.xml"), kDoc));
  const RunResult r = RunProgram({kTool, dir.Sub("a.rdy"), dir.Sub("b.xml")});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kDoc + kDoc);
  EXPECT_EQ(r.err, "");
}

TEST(DecodeTool, RefusesBadFilesWithOneLineEach) {
  ScopedTempDir dir;
  ASSERT_TRUE(WriteFile(dir.Sub("wrong.rdy"), "K-Q$mw#$zRTd8pofupiX" + kScrambledDoc));
  ASSERT_TRUE(WriteFile(dir.Sub("short.rdy"), "K-Q$"));
  ASSERT_TRUE(WriteFile(dir.Sub("good.xml"), kDoc));
  const struct {
    std::string file;
  } bad[] = {
      {dir.Sub("wrong.rdy")}, {dir.Sub("short.rdy")}, {dir.Sub("missing.rdy")}, {dir.path()}};
  for (const auto& c : bad) {
    SCOPED_TRACE(c.file);
    const RunResult r = RunProgram({kTool, c.file, dir.Sub("good.xml")});
    EXPECT_NE(r.status, 0);
    // The good file after the bad one is still printed.
    EXPECT_EQ(r.out, kDoc);
    EXPECT_EQ(r.err.find("ulog-decode: " + c.file + ": "), 0u) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
  }
}

TEST(DecodeTool, UsageWithoutFiles) {
  const RunResult r = RunProgram({kTool});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "ulog-decode: no file given\nTry 'ulog-decode --help'.\n");
}

}  // namespace
