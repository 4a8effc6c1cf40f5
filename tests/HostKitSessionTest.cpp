// Host sessions in this process under a temporary HOME, and the naming rule read
// back with the crash processor's parser.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "SessionInfo.h"
#include "SessionName.h"
#include "TestSupport.h"

namespace ts = testing_support;
using Strings = std::vector<std::string>;

namespace {

const lumetry_host_session kSession = {"Fam", "Name", "S1", "K1", "Prod"};

class HostKitSessionTest : public ::testing::Test {
 protected:
  void TearDown() override { lumetry_host_end(); }
  std::string Logs() const { return home_.Library() + "/Logs/Quorvik"; }
  std::string SessionDir() const { return Logs() + "/LumetryQX/SessionInfo"; }
  ts::ScopedHome home_;
};

TEST_F(HostKitSessionTest, PrivateDirectoriesOneSessionFileAndACleanEnd) {
  const std::string token = "__" + std::to_string(::getpid()) + "__";
  // Whatever the umask, new directories are 0700 and the file 0600; each
  // round opens a new session in the same process after a clean end.
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{0777}}) {
    EXPECT_EQ(lumetry_host_end(), -ENOENT);
    ASSERT_EQ(::system(("rm -rf '" + home_.Library() + "'").c_str()), 0);
    const mode_t old = ::umask(mask);
    ASSERT_EQ(lumetry_host_begin(&kSession), 0);
    ::umask(old);
    EXPECT_EQ(lumetry_host_begin(&kSession), -EBUSY);
    for (const std::string& dir : {home_.Library(), home_.Library() + "/Logs", Logs(),
                                   Logs() + "/LumetryQX", SessionDir(), Logs() + "/LogCourier2QX"})
      EXPECT_EQ(ts::FileMode(dir), 0700) << dir;
    const Strings names = ts::ListNames(SessionDir());
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0].rfind(token, 0), 0u) << names[0];
    EXPECT_EQ(lumetry_host_session_path(), SessionDir() + "/" + names[0]);
    EXPECT_EQ(ts::FileMode(SessionDir() + "/" + names[0]), 0600);
    const int fd = ::open(lumetry_host_session_path(), O_RDONLY | O_CLOEXEC);
    EXPECT_NE(::flock(fd, LOCK_EX | LOCK_NB), 0);  // the session holds its lock
    ::close(fd);
    ASSERT_EQ(lumetry_host_end(), 0);
    EXPECT_EQ(ts::ListNames(SessionDir()), Strings{});
    EXPECT_EQ(lumetry_host_session_path(), nullptr);
  }
}

TEST_F(HostKitSessionTest, RefusedPiecesAndLinkedDirectoryCreateNothing) {
  const std::string longest(LUMETRY_HOST_PIECE_MAX, 'x');
  const char* l = longest.c_str();
  // Each piece refused once; each may be long, but not all at once (the name has a limit).
  const lumetry_host_session refused[] = {{nullptr, "N", "S", "K", "P"}, {"F", "N_", "S", "K", "P"},
                                          {"F", "N", nullptr, "K", "P"}, {"F", "N", "S", "K/", "P"},
                                          {"F", "N", "S", "K", ""},      {l, l, l, l, l}};
  for (const lumetry_host_session& s : refused) EXPECT_EQ(lumetry_host_begin(&s), -EINVAL);
  EXPECT_EQ(lumetry_host_begin(nullptr), -EINVAL);
  EXPECT_FALSE(ts::PathExists(home_.Library()));
  // Nor is a linked session directory followed.
  ASSERT_TRUE(ts::MakeDirs(home_.path() + "/elsewhere") && ts::MakeDirs(Logs() + "/LumetryQX"));
  ASSERT_EQ(::symlink((home_.path() + "/elsewhere").c_str(), SessionDir().c_str()), 0);
  EXPECT_LT(lumetry_host_begin(&kSession), 0);
  EXPECT_EQ(ts::ListNames(home_.path() + "/elsewhere"), Strings{});
}

// Existing directories keep their modes; links at this process's names are never
// followed; of stale entries, only those that begin with its fenced pid token go.
TEST_F(HostKitSessionTest, ExistingDirectoriesLinksAndStaleEntries) {
  const std::string pid = std::to_string(::getpid());
  Strings others = {"9" + pid + "_F_N_S_K_t_x_P.info", "__" + pid + "7__F_N_S_K_t_x_P.info",
                    "__9" + pid + "__F_N_S_K_t_x_P.info"};
  for (const std::string& name : others) ASSERT_TRUE(ts::WriteFile(SessionDir() + "/" + name, ""));
  ASSERT_TRUE(ts::WriteFile(SessionDir() + "/__" + pid + "__Old_N_S_K_t_x_P.info", ""));
  ASSERT_EQ(::chmod(SessionDir().c_str(), 0750), 0);
  const std::string victim = home_.path() + "/victim", absent = home_.path() + "/absent";
  ASSERT_TRUE(ts::WriteFile(victim, "keep me"));
  // Links at the names this process would use this second and the next.
  for (time_t t = ::time(nullptr), now = t; t <= now + 1; ++t) {
    char name[300];
    ASSERT_GT(lh_session_name(&kSession, ::getpid(), t, name, sizeof name), 0);
    ASSERT_EQ(::symlink((t == now ? victim : absent).c_str(), (SessionDir() + "/" + name).c_str()),
              0);
  }
  ASSERT_EQ(lumetry_host_begin(&kSession), 0);
  EXPECT_EQ(ts::FileMode(SessionDir()), 0750);
  EXPECT_EQ(ts::Contents(victim), "keep me");
  EXPECT_FALSE(ts::PathExists(absent));
  ASSERT_EQ(lumetry_host_end(), 0);
  std::sort(others.begin(), others.end());
  EXPECT_EQ(ts::ListNames(SessionDir()), others);
}

TEST(HostKitSessionName, PieceCheckAcceptsValidUtf8WithoutFencesOrSlashes) {
  using namespace std::string_literals;
  const std::string longest(LUMETRY_HOST_PIECE_MAX, 'a');
  for (const std::string& ok : {"Photo Studio 2.1-beta"s, "M\xc3\xb6rser"s,
                                "\xe6\x97\xa5\xe6\x9c\xac"s, "\xf0\x9f\x93\xb7"s, longest})
    EXPECT_EQ(lh_check_piece(ok.c_str()), 0) << ok;
  // Too long, empty, fences, slashes, controls, and every kind of bad UTF-8.
  for (const std::string& bad :
       {longest + "a", ""s, "Photo_Studio"s, "_x"s, "a/b"s, "a\nb"s, "a\x7f"s, "a\x80z"s,
        "abc\xc3"s, "a\xff"s, "\xc0\xaf"s, "\xe0\x80\xaf"s, "\xed\xa0\x80"s, "\xf4\x90\x80\x80"s,
        "\xf0\x9f\x93"s})
    EXPECT_EQ(lh_check_piece(bad.c_str()), -EINVAL) << bad;
  EXPECT_EQ(lh_check_piece(nullptr), -EINVAL);
}

TEST(HostKitSessionName, DecodesToTheHostsPiecesAsTheCrashProcessorReadsThem) {
  const std::pair<lumetry_host_session, pid_t> cases[] = {
      {{"Fam", "Name", "12", "123", "Prod.v2"}, 12},  // a "." in the last piece
      {{"Fam ily", "N\xc3\xa4me", "S 1", "K.1", "P"}, 2147483647},
  };
  for (const auto& [s, pid] : cases) {
    char name[300];
    ASSERT_GT(lh_session_name(&s, pid, 1795000000, name, sizeof name), 0);  // 2026-11-18T11:06:40Z
    const CrashProcessor::SessionInfoRecord r = CrashProcessor::ParseSessionInfoName(name);
    EXPECT_EQ(Strings({r.field1, r.crashProductFamily, r.crashProductName, r.sessionId,
                       r.logNameKey, r.field6, r.field7, r.processName}),
              Strings({std::to_string(pid), s.product_family, s.product_name, s.session_id,
                       s.log_name_key, "20261118T110640Z", LH_NAME_TAG, s.process_name}));
    EXPECT_EQ(std::string(name).rfind(LH_NAME_EXTENSION), std::string(name).size() - 5);
  }
  // Too small a buffer leaves the output alone.
  char tiny[10] = "untouched", token[4] = "abc";
  EXPECT_EQ(lh_session_name(&kSession, 1, 0, tiny, sizeof tiny), -EINVAL);
  EXPECT_EQ(lh_pid_token(12, token, sizeof token), -ENAMETOOLONG);
  EXPECT_EQ(std::string(tiny) + token, "untouchedabc");
}

}  // namespace
