// Tests of the uploader launcher: locating LogCourier2, the diagnostic line,
// real detached starts, the shell fallbacks and the uploader's paths.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

#include "Logger.h"
#include "Mac/LogCourUtilsMac.h"
#include "PlatformPaths.h"
#include "TestSupport.h"

namespace {

using namespace testing_support;

// The logger's kind is fixed by its first use, so logging is switched on
// once, before any test, with a log file in a directory of its own.
std::string g_logPath;
class LoggingOn : public ::testing::Environment {
  void SetUp() override {
    dir_ = std::make_unique<ScopedTempDir>();
    ScopedEnv home("HOME", dir_->path());
    ASSERT_TRUE(WriteFile(dir_->Sub("Bundle/VxLog.config"), "append=1\n"));
    Platform::SetMainBundlePathForTesting(dir_->Sub("Bundle"));
    Logger::Instance("LogSession");
    Platform::SetMainBundlePathForTesting("");
    g_logPath = dir_->Sub("Library/Logs/Quorvik/LumetryQX/VxLog-LogSession.txt");
  }
  void TearDown() override { dir_.reset(); }
  std::unique_ptr<ScopedTempDir> dir_;
};
const auto* const g_env = ::testing::AddGlobalTestEnvironment(new LoggingOn);

std::string LogText() {
  std::string text;
  ReadFile(g_logPath, &text);
  return text;
}

bool WaitForFile(const std::string& path, std::string* contents) {
  for (int i = 0; i < 500 && !PathExists(path); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return ReadFile(path, contents);
}

class LauncherTest : public ::testing::Test {
 protected:
  // No hint and a bundle without an uploader, unless a test sets them.
  void SetUp() override {
    ASSERT_TRUE(MakeDirs(tree_.Sub("Plain")));
    Platform::SetMainBundlePathForTesting(tree_.Sub("Plain"));
    SetUploaderLocationHint(tree_.Sub("NoHint").c_str());
  }
  void TearDown() override { Platform::SetMainBundlePathForTesting(""); }

  // An application directory whose executable is the shell script `body`.
  std::string MakeApp(const std::string& appDir, const std::string& body = "exit 0\n") {
    std::string exe = tree_.Sub(appDir) + "/Contents/MacOS/LogCourier2";
    EXPECT_TRUE(WriteFile(exe, body));
    EXPECT_EQ(::chmod(exe.c_str(), 0755), 0);
    return exe;
  }

  ScopedHome home_;
  ScopedTempDir tree_;
};

TEST_F(LauncherTest, LocatesTheUploader) {
  MakeApp("Host.app/Contents/MacOS/LogCourier2.app");
  MakeApp("Shared/LogCourier2.app");
  MakeApp("LogCourier2.app");
  EXPECT_EQ(FindUploaderExecutableIn(tree_.Sub("Host.app")), "");
  struct Case {
    const char *hintDir, *bundle, *app;
  } cases[] = {
      // The host's Contents/MacOS copy, found from a hint in its Resources.
      {"Host.app/Contents/Resources/", "Plain", "Host.app/Contents/MacOS/LogCourier2.app"},
      {"Shared", "Plain", "Shared/LogCourier2.app"},
      {"Shared/", "Host.app", "Shared/LogCourier2.app"},  // the hint comes first
      {"Elsewhere/", "Host.app", "Host.app/Contents/MacOS/LogCourier2.app"},
      {"Elsewhere/", "LogCourier2.app", ""},  // its own bundle holds no nested copy
  };
  for (const Case& c : cases) {
    SetUploaderLocationHint(tree_.Sub(c.hintDir).c_str());
    SetUploaderLocationHint(nullptr);  // changes nothing
    Platform::SetMainBundlePathForTesting(tree_.Sub(c.bundle));
    std::string app = *c.app ? tree_.Sub(c.app) : "";
    EXPECT_EQ(LocateUploaderExecutable(), *c.app ? app + "/Contents/MacOS/LogCourier2" : "")
        << c.hintDir << " " << c.bundle;
    EXPECT_EQ(GetUploaderAppPath(), app);
    EXPECT_EQ(IsUploaderInstalled(), *c.app != '\0');
  }
}

TEST_F(LauncherTest, LogsThePathOnlyWhenGuarded) {
  std::string before = LogText();
  EXPECT_FALSE(LaunchUploader("", "arg"));
  EXPECT_EQ(LogText(), before);

  // Not installed: the empty path leaves " exit 7" for the shell.
  EXPECT_FALSE(LaunchUploader("guard", "exit 7"));
  std::string added = LogText().substr(before.size());
  EXPECT_EQ(added.rfind("[INFO] | PID:" + std::to_string(::getpid()) + " | TIME:", 0), 0u);
  EXPECT_NE(added.find(" | VALUE:LogCourier2 Path:  | DETAIL:File:Utility/src/Mac/"
                       "LogCourUtilsMac LINE:290\n"),
            std::string::npos)
      << added;
}

TEST_F(LauncherTest, StartsTheUploaderDetached) {
  // The script reports its pid, a leaked descriptor and its argument, then
  // holds until released (at most 10 s).
  std::string d = tree_.Sub("run");
  ASSERT_TRUE(MakeDirs(d));
  std::string exe =
      MakeApp("Host.app/Contents/MacOS/LogCourier2.app", "#!/bin/sh\nd='" + d + "'\n" + R"(
printf '%s' "$$" > "$d/pid"
[ -e /proc/$$/fd/57 ] && : > "$d/leaked"
printf '%s' "$1" > "$d/arg.part" && mv "$d/arg.part" "$d/arg"
i=0; while [ ! -e "$d/release" ] && [ "$i" -lt 200 ]; do sleep 0.05; i=$((i+1)); done
: > "$d/finished"
)");
  SetUploaderLocationHint(tree_.Sub("Host.app/Contents/Resources").c_str());
  int fd = ::open("/dev/null", O_RDONLY);
  ASSERT_EQ(::dup2(fd, 57), 57);  // no close-on-exec
  ::close(fd);

  ASSERT_TRUE(LaunchUploader("guard", "-a 'b c'"));
  ::close(57);
  EXPECT_FALSE(PathExists(d + "/finished"));  // not waited for
  EXPECT_NE(LogText().find("VALUE:LogCourier2 Path: " + exe + " | DETAIL:"), std::string::npos);

  std::string arg, pid;
  ASSERT_TRUE(WaitForFile(d + "/arg", &arg));
  EXPECT_EQ(arg, "-a 'b c'");
  ASSERT_TRUE(ReadFile(d + "/pid", &pid));
  EXPECT_EQ(::getsid(std::stoi(pid)), std::stoi(pid));  // a session of its own
  EXPECT_FALSE(PathExists(d + "/leaked"));
  // Neither the uploader nor an intermediate process is left as our child.
  errno = 0;
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  ASSERT_TRUE(WriteFile(d + "/release", ""));
  EXPECT_TRUE(WaitForFile(d + "/finished", &arg));
}

TEST_F(LauncherTest, ShellFallbacks) {
  // No such path: the line goes to the shell unquoted.
  EXPECT_TRUE(OpenApplication("", ": > '" + tree_.Sub("made") + "'"));
  EXPECT_TRUE(PathExists(tree_.Sub("made")));
  EXPECT_FALSE(OpenApplication(tree_.Sub("missing"), "2>/dev/null"));

  // A script without "#!" cannot be started directly; the shell runs it in
  // the background, quoted, even below a directory with a quote in its name.
  std::string script = tree_.Sub("A'B/LogCourier2");
  ASSERT_TRUE(WriteFile(script, "printf '%s' \"$1\" > \"$(dirname \"$0\")/out\"\n"));
  ASSERT_EQ(::chmod(script.c_str(), 0755), 0);
  EXPECT_TRUE(OpenApplication(script, "value"));
  std::string out;
  ASSERT_TRUE(WaitForFile(tree_.Sub("A'B/out"), &out));
  EXPECT_EQ(out, "value");
}

TEST(LauncherCommandTest, BuildsTheFallbackCommandsAsWritten) {
  EXPECT_EQ(BuildUnquotedCommand("", "-x"), " -x");
  EXPECT_EQ(BuildUnquotedCommand("/a b/LogCourier2", "x y"), "/a b/LogCourier2 x y");
  struct Case {
    const char *path, *command;
  } cases[] = {
      {"/A'B/LogCourier2", R"('/A'\''B/LogCourier2' ARG &)"},
      {"/a b/LogCourier2", R"('/a b/LogCourier2' ARG &)"},
      {"/ab'", R"('/ab'\''' ARG &)"},
      // Escapes push the later quotes past the scan's limit (the length of
      // the path as given), so those stay bare.
      {"/a'b'c'd'e", R"('/a'\''b'\''c'd'e' ARG &)"},
      {"''''", R"(''\'''''' ARG &)"},
  };
  for (const Case& c : cases) EXPECT_EQ(BuildBackgroundCommand(c.path, "ARG"), c.command);
}

TEST_F(LauncherTest, PerUserPaths) {
  std::string logDir = home_.Library() + "/Logs/Quorvik/LogCourier2QX";
  ASSERT_TRUE(WriteFile(logDir, "a file in the way"));
  EXPECT_EQ(GetUploaderLogDir(), logDir);
  struct stat st;
  EXPECT_TRUE(::stat(logDir.c_str(), &st) == 0 && S_ISDIR(st.st_mode));
  EXPECT_EQ(GetUploaderLockPath(), logDir + "/.LogCourierAppLock");

  std::string tarvix = home_.Library() + "/Application Support/Quorvik/Tarvix/TarvixQX";
  EXPECT_EQ(GetTarvixPolicyPath(), tarvix + "/tarvix_policy.xml");
  EXPECT_TRUE(PathExists(tarvix));
  EXPECT_FALSE(PathExists(tarvix + "/tarvix_policy.xml"));

  // Without a usable home there is no Library directory.
  ASSERT_TRUE(WriteFile(tree_.Sub("file"), ""));
  ScopedEnv noHome("HOME", tree_.Sub("file/home"));
  EXPECT_EQ(GetUploaderLogDir(), "");
  EXPECT_EQ(GetUploaderLockPath(), "/.LogCourierAppLock");
  EXPECT_EQ(GetTarvixPolicyPath(), "");
}

}  // namespace
