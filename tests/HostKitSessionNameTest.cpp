// The host kit's piece checks and naming rule, read back with the crash
// processor's own parser: the names decode to the host's pieces. (That the
// pid token matches one process only is the crash test's pid trap.)
#include <gtest/gtest.h>
#include <sys/types.h>

#include <cerrno>
#include <string>
#include <utility>

#include "SessionInfo.h"
#include "SessionName.h"

using CrashProcessor::ParseSessionInfoName;
using CrashProcessor::SessionInfoRecord;

namespace {

constexpr time_t kStart = 1795000000;  // 2026-11-18T11:06:40Z

std::string NameFor(const lumetry_host_session& session, pid_t pid) {
  char name[300];
  const int length = lh_session_name(&session, pid, kStart, name, sizeof name);
  EXPECT_GT(length, 0);
  return length > 0 ? std::string(name, static_cast<size_t>(length)) : std::string();
}

std::string TokenFor(pid_t pid) {
  char token[32];
  EXPECT_GT(lh_pid_token(pid, token, sizeof token), 0);
  return token;
}

TEST(HostKitPieceCheck, AcceptsAndRefusesByContent) {
  struct Case {
    const char* label;
    std::string piece;
    int expected;
  };
  const Case cases[] = {
      {"plain", "PhotoStudio", 0},
      {"dots, dashes, blanks", "Photo Studio 2.1-beta", 0},
      {"two-byte UTF-8", "M\xc3\xb6rser", 0},
      {"three-byte UTF-8", "\xe6\x97\xa5\xe6\x9c\xac", 0},
      {"four-byte UTF-8", "\xf0\x9f\x93\xb7", 0},
      {"longest", std::string(LUMETRY_HOST_PIECE_MAX, 'a'), 0},
      {"one byte too long", std::string(LUMETRY_HOST_PIECE_MAX + 1, 'a'), -EINVAL},
      {"empty", "", -EINVAL},
      {"underscore", "Photo_Studio", -EINVAL},
      {"leading underscore", "_x", -EINVAL},
      {"slash", "Photo/Studio", -EINVAL},
      {"newline", "Photo\nStudio", -EINVAL},
      {"delete", "Photo\x7fStudio", -EINVAL},
      {"stray continuation byte", "a\x80z", -EINVAL},
      {"lone lead byte at the end", "abc\xc3", -EINVAL},
      {"invalid byte", "a\xff", -EINVAL},
      {"overlong slash", "\xc0\xaf", -EINVAL},
      {"overlong three-byte", "\xe0\x80\xaf", -EINVAL},
      {"surrogate", "\xed\xa0\x80", -EINVAL},
      {"past U+10FFFF", "\xf4\x90\x80\x80", -EINVAL},
      {"truncated four-byte", "\xf0\x9f\x93", -EINVAL},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(lh_check_piece(c.piece.c_str()), c.expected) << c.label;
  }
  EXPECT_EQ(lh_check_piece(nullptr), -EINVAL);
}

TEST(HostKitSessionName, DecodesToTheHostsPiecesAsTheCrashProcessorReadsThem) {
  const std::pair<lumetry_host_session, pid_t> cases[] = {
      {{"QuorvikCreative", "PhotoStudio", "SESS-01", "K7F3", "PhotoStudio"}, 4711},
      {{"Fam", "Name", "12", "123", "Prod.v2"}, 12},  // a "." in the last piece
      {{"Fam ily", "N\xc3\xa4me", "S 1", "K.1", "P"}, 2147483647},
  };
  for (const auto& [session, pid] : cases) {
    const std::string name = NameFor(session, pid);
    SCOPED_TRACE(name);
    const SessionInfoRecord record = ParseSessionInfoName(name);
    EXPECT_EQ(record.field1, std::to_string(pid));
    EXPECT_EQ(record.crashProductFamily, session.product_family);
    EXPECT_EQ(record.crashProductName, session.product_name);
    EXPECT_EQ(record.sessionId, session.session_id);
    EXPECT_EQ(record.logNameKey, session.log_name_key);
    EXPECT_EQ(record.field6, "20261118T110640Z");
    EXPECT_EQ(record.field7, LH_NAME_TAG);
    EXPECT_EQ(record.processName, session.process_name);
    EXPECT_EQ(name.rfind(LH_NAME_EXTENSION), name.size() - 5);
    EXPECT_EQ(name.find('/'), std::string::npos);
  }
}

// A name over 255 bytes is refused by lumetry_host_begin in HostKitSessionTest.
TEST(HostKitSessionName, TooSmallABufferLeavesTheOutputAlone) {
  const lumetry_host_session small = {"F", "N", "S", "K", "P"};
  char tiny[10] = "untouched";
  EXPECT_EQ(lh_session_name(&small, 1, kStart, tiny, sizeof tiny), -EINVAL);
  EXPECT_STREQ(tiny, "untouched");
  char token[4] = "abc";
  EXPECT_EQ(lh_pid_token(12, token, sizeof token), -ENAMETOOLONG);
  EXPECT_STREQ(token, "abc");
  EXPECT_EQ(TokenFor(12), "__12__");
}

}  // namespace
