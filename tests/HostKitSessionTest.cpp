// Opening and closing host sessions in this process under a temporary HOME:
// the directories and the session file with their modes, a clean end that
// leaves nothing, refused pieces that create nothing, and planted links and
// stale entries that are never followed.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include "SessionName.h"
#include "TestSupport.h"
#include "lumetry/host.h"

namespace ts = testing_support;

namespace {

const lumetry_host_session kSession = {"Fam", "Name", "S1", "K1", "Prod"};

std::string Token() { return "__" + std::to_string(::getpid()) + "__"; }

class HostKitSessionTest : public ::testing::Test {
 protected:
  void TearDown() override { lumetry_host_end(); }

  std::string Logs() const { return home_.Library() + "/Logs/Quorvik"; }
  std::string SessionDir() const { return Logs() + "/LumetryQX/SessionInfo"; }
  std::string SpoolDir() const { return Logs() + "/LogCourier2QX"; }

  ts::ScopedHome home_;
};

TEST_F(HostKitSessionTest, PrivateDirectoriesOneSessionFileAndACleanEnd) {
  EXPECT_EQ(lumetry_host_end(), -ENOENT);
  // Whatever the umask, the new directories are 0700 and the file 0600; each
  // round opens a new session in the same process after a clean end.
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}, mode_t{0777}}) {
    SCOPED_TRACE(mask);
    ASSERT_EQ(::system(("rm -rf '" + home_.Library() + "'").c_str()), 0);
    const mode_t old = ::umask(mask);
    const int rc = lumetry_host_begin(&kSession);
    ::umask(old);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(lumetry_host_begin(&kSession), -EBUSY);
    for (const std::string& dir : {home_.Library(), home_.Library() + "/Logs", Logs(),
                                   Logs() + "/LumetryQX", SessionDir(), SpoolDir()}) {
      EXPECT_EQ(ts::FileMode(dir), 0700) << dir;
    }
    const std::vector<std::string> names = ts::ListNames(SessionDir());
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0].rfind(Token(), 0), 0u) << names[0];
    const std::string path = SessionDir() + "/" + names[0];
    EXPECT_STREQ(lumetry_host_session_path(), path.c_str());
    EXPECT_EQ(ts::FileMode(path), 0600);
    EXPECT_EQ(ts::ListNames(SpoolDir()), std::vector<std::string>{});
    ASSERT_EQ(lumetry_host_end(), 0);
    EXPECT_EQ(ts::ListNames(SessionDir()), std::vector<std::string>{});
    EXPECT_EQ(lumetry_host_session_path(), nullptr);
    EXPECT_EQ(lumetry_host_end(), -ENOENT);
  }
}

TEST_F(HostKitSessionTest, RefusedPiecesCreateNoFileAndNoDirectory) {
  const char* lumetry_host_session::*const fields[] = {
      &lumetry_host_session::product_family, &lumetry_host_session::product_name,
      &lumetry_host_session::session_id, &lumetry_host_session::log_name_key,
      &lumetry_host_session::process_name};
  const std::string too_long(LUMETRY_HOST_PIECE_MAX + 1, 'a');
  const char* bad_values[] = {nullptr, "", "a_b", "a/b", "a\xff", "a\nb", too_long.c_str()};
  EXPECT_EQ(lumetry_host_begin(nullptr), -EINVAL);
  for (const auto field : fields) {
    for (const char* bad : bad_values) {
      lumetry_host_session session = kSession;
      session.*field = bad;
      EXPECT_EQ(lumetry_host_begin(&session), -EINVAL) << (bad ? bad : "(null)");
    }
  }
  // Each piece may be long, but not all of them at once (the name has a limit).
  const std::string longest(LUMETRY_HOST_PIECE_MAX, 'x');
  const lumetry_host_session huge = {longest.c_str(), longest.c_str(), longest.c_str(),
                                     longest.c_str(), longest.c_str()};
  EXPECT_EQ(lumetry_host_begin(&huge), -EINVAL);
  EXPECT_FALSE(ts::PathExists(home_.Library()));
  EXPECT_EQ(lumetry_host_session_path(), nullptr);
}

TEST_F(HostKitSessionTest, ExistingDirectoriesKeepTheirModesAndLinksAreNeverFollowed) {
  ASSERT_TRUE(ts::MakeDirs(SessionDir()));
  ASSERT_EQ(::chmod(Logs().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(SessionDir().c_str(), 0750), 0);
  const std::string victim = home_.path() + "/victim";
  const std::string absent = home_.path() + "/absent";
  ASSERT_TRUE(ts::WriteFile(victim, "keep me"));
  ASSERT_EQ(::chmod(victim.c_str(), 0644), 0);
  // Links at the names this process would use this second and the next.
  const time_t now = ::time(nullptr);
  for (time_t t = now; t <= now + 1; ++t) {
    char name[300];
    ASSERT_GT(lh_session_name(&kSession, ::getpid(), t, name, sizeof name), 0);
    const std::string target = t == now ? victim : absent;
    ASSERT_EQ(::symlink(target.c_str(), (SessionDir() + "/" + name).c_str()), 0);
  }

  ASSERT_EQ(lumetry_host_begin(&kSession), 0);

  EXPECT_EQ(ts::FileMode(Logs()), 0755);
  EXPECT_EQ(ts::FileMode(SessionDir()), 0750);
  EXPECT_EQ(ts::FileMode(SpoolDir()), 0700);  // made now
  EXPECT_EQ(ts::Contents(victim), "keep me");
  EXPECT_EQ(ts::FileMode(victim), 0644);
  EXPECT_FALSE(ts::PathExists(absent));
  const std::vector<std::string> names = ts::ListNames(SessionDir());
  ASSERT_EQ(names.size(), 1u);
  struct stat st;
  ASSERT_EQ(::lstat((SessionDir() + "/" + names[0]).c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
}

TEST_F(HostKitSessionTest, LinkedSessionDirectoryIsRefused) {
  const std::string elsewhere = home_.path() + "/elsewhere";
  ASSERT_TRUE(ts::MakeDirs(elsewhere));
  ASSERT_TRUE(ts::MakeDirs(Logs() + "/LumetryQX"));
  ASSERT_EQ(::symlink(elsewhere.c_str(), SessionDir().c_str()), 0);
  EXPECT_LT(lumetry_host_begin(&kSession), 0);
  EXPECT_EQ(ts::ListNames(elsewhere), std::vector<std::string>{});
  EXPECT_EQ(lumetry_host_session_path(), nullptr);
}

TEST_F(HostKitSessionTest, StaleEntriesOfThisPidGoOthersStay) {
  const std::string pid = std::to_string(::getpid());
  const std::vector<std::string> others = {
      "__" + pid + "7__Fam_Name_S2_K1_t_host1_Prod.info",
      "__9" + pid + "__Fam_Name_S3_K1_t_host1_Prod.info",
      pid + "_Fam_Name_S4_K1_t_x_Prod.info",
  };
  for (const std::string& name : others) ASSERT_TRUE(ts::WriteFile(SessionDir() + "/" + name, ""));
  ASSERT_TRUE(ts::WriteFile(SessionDir() + "/" + Token() + "Old_Name_S0_K0_t_host1_Prod.info", ""));

  ASSERT_EQ(lumetry_host_begin(&kSession), 0);
  ASSERT_EQ(lumetry_host_end(), 0);
  std::vector<std::string> expected = others;
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(ts::ListNames(SessionDir()), expected);
}

}  // namespace
