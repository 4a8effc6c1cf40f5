// The uploader launcher: locating LogCourier2, the diagnostic line, real
// detached starts, the shell fallbacks and the uploader's paths.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "Logger.h"
#include "Mac/LogCourUtilsMac.h"
#include "PlatformPaths.h"
#include "TestSupport.h"

namespace {

using namespace testing_support;

bool WaitForFile(const std::string& path, std::string* contents) {
  for (int i = 0; i < 500 && !PathExists(path); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  return ReadFile(path, contents);
}

class LauncherTest : public ::testing::Test {
 protected:
  // No hint and a bundle without an uploader, unless a test sets them.
  void SetUp() override { SetUploaderLocationHint(tree_.Sub("NoHint").c_str()); }

  // An application directory whose executable is the shell script `body`.
  std::string MakeApp(const std::string& appDir, const std::string& body = "exit 0\n") {
    std::string exe = tree_.Sub(appDir) + "/Contents/MacOS/LogCourier2";
    EXPECT_TRUE(WriteFile(exe, body) && ::chmod(exe.c_str(), 0755) == 0);
    return exe;
  }

  ScopedHome home_;
  ScopedTempDir tree_;
  const ScopedOverride bundle_{&Platform::SetMainBundlePathForTesting, tree_.Sub("Plain")};
};

TEST_F(LauncherTest, LocatesTheUploader) {
  MakeApp("Host.app/Contents/MacOS/LogCourier2.app");
  MakeApp("Shared/LogCourier2.app");
  MakeApp("LogCourier2.app");
  // The host's Contents/MacOS copy, found from a hint in its Resources; the
  // hint comes first; a copy's own bundle holds no nested copy.
  const char* const cases[][3] = {
      {"Host.app/Contents/Resources/", "Plain", "Host.app/Contents/MacOS/LogCourier2.app"},
      {"Shared/", "Host.app", "Shared/LogCourier2.app"},
      {"Elsewhere/", "Host.app", "Host.app/Contents/MacOS/LogCourier2.app"},
      {"Elsewhere/", "LogCourier2.app", ""}};
  for (const auto& [hintDir, bundle, found] : cases) {
    SetUploaderLocationHint(tree_.Sub(hintDir).c_str());
    SetUploaderLocationHint(nullptr);  // changes nothing
    bundle_.Set(tree_.Sub(bundle));
    const std::string app = *found ? tree_.Sub(found) : "";
    EXPECT_EQ(LocateUploaderExecutable(), *found ? app + "/Contents/MacOS/LogCourier2" : "")
        << hintDir << " " << bundle;
    EXPECT_EQ(GetUploaderAppPath() + (IsUploaderInstalled() ? "+" : ""), *found ? app + "+" : "");
  }
}

TEST_F(LauncherTest, StartsTheUploaderDetachedAndLogsItsPathWhenGuarded) {
  // The logger's kind is fixed by its first use, which is here: the
  // VxLog.config in the main bundle switches logging on for the process.
  ASSERT_TRUE(WriteFile(tree_.Sub("Plain/VxLog.config"), "append=1\n"));
  Logger::Instance("LogSession");
  // The script reports its argument, its pid and a leaked descriptor, then
  // holds until released (at most 10 s).
  std::string d = tree_.Sub("run");
  std::string exe =
      MakeApp("Host.app/Contents/MacOS/LogCourier2.app", "#!/bin/sh\nd='" + d + "'\n" + R"(
[ -e /proc/$$/fd/57 ] && leak=leaked
printf '%s %s%s' "$1" "$$" "$leak" > "$d/out.part" && mv "$d/out.part" "$d/out"
i=0; while [ ! -e "$d/release" ] && [ "$i" -lt 200 ]; do sleep 0.05; i=$((i+1)); done
: > "$d/finished"
)");
  ASSERT_TRUE(MakeDirs(d));
  SetUploaderLocationHint(tree_.Sub("Host.app/Contents/Resources").c_str());
  EXPECT_FALSE(LaunchUploader("", "arg"));
  ASSERT_EQ(::dup2(STDERR_FILENO, 57), 57);  // without close-on-exec
  ASSERT_TRUE(LaunchUploader("guard", "-a 'b c'"));
  ::close(57);
  EXPECT_FALSE(PathExists(d + "/finished"));  // not waited for
  const std::string log =
      Contents(home_.Library() + "/Logs/Quorvik/LumetryQX/VxLog-LogSession.txt");
  const std::string tail = " | VALUE:LogCourier2 Path: " + exe +
                           " | DETAIL:File:Utility/src/Mac/LogCourUtilsMac LINE:290\n";
  EXPECT_EQ(log.rfind("[INFO] | PID:" + std::to_string(::getpid()) + " | TIME:", 0), 0u) << log;
  EXPECT_EQ(log.find('\n'), log.size() - 1) << log;  // the unguarded call wrote no line
  EXPECT_EQ(log.find(tail), log.size() - tail.size()) << log;

  std::string out;
  ASSERT_TRUE(WaitForFile(d + "/out", &out));
  const int pid = std::atoi(out.substr(out.rfind(' ') + 1).c_str());
  EXPECT_EQ(out, "-a 'b c' " + std::to_string(pid));  // nothing leaked
  EXPECT_EQ(::getsid(pid), pid);                      // a session of its own
  // Neither the uploader nor an intermediate process is left as our child.
  errno = 0;
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  ASSERT_TRUE(WriteFile(d + "/release", ""));
  EXPECT_TRUE(WaitForFile(d + "/finished", &out));
}

TEST_F(LauncherTest, ShellFallbacks) {
  // No such path: the line goes to the shell unquoted.
  EXPECT_TRUE(OpenApplication("", ": > '" + tree_.Sub("made") + "'"));
  EXPECT_TRUE(PathExists(tree_.Sub("made")));
  EXPECT_FALSE(OpenApplication(tree_.Sub("missing"), "2>/dev/null"));

  // A script without "#!" cannot be started directly; the shell runs it in
  // the background, quoted, even below a directory with a quote in its name.
  std::string script = MakeApp("A'B", "printf '%s' \"$1\" > \"$(dirname \"$0\")/out\"\n");
  EXPECT_TRUE(OpenApplication(script, "value"));
  std::string out;
  ASSERT_TRUE(WaitForFile(tree_.Sub("A'B/Contents/MacOS/out"), &out));
  EXPECT_EQ(out, "value");
}

// Escapes push the later quotes past the scan's limit (the length of the path
// as given), so those stay bare.
TEST(LauncherCommandTest, BuildsTheFallbackCommandsAsWritten) {
  EXPECT_EQ(BuildBackgroundCommand("/A'B/LogCourier2", "ARG"), R"('/A'\''B/LogCourier2' ARG &)");
  EXPECT_EQ(BuildBackgroundCommand("/a'b'c'd'e", "ARG"), R"('/a'\''b'\''c'd'e' ARG &)");
}

// A file in the way of the log directory is replaced; without a usable home
// there is no Library directory.
TEST_F(LauncherTest, PerUserPaths) {
  const std::string logDir = home_.Library() + "/Logs/Quorvik/LogCourier2QX";
  ASSERT_TRUE(WriteFile(logDir, "a file in the way") && WriteFile(tree_.Sub("file"), ""));
  EXPECT_EQ(GetUploaderLogDir(), logDir);
  EXPECT_TRUE(PathExists(logDir + "/."));
  ScopedEnv noHome("HOME", tree_.Sub("file/home"));
  EXPECT_EQ(GetUploaderLogDir() + GetTarvixPolicyPath(), "");
}

}  // namespace
