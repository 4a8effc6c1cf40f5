// Host identifier, home, main bundle (also of a copy of this program in an app), probes, launcher.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "Logger.h"
#include "Mac/LogCourUtilsMac.h"
#include "PlatformPaths.h"
#include "Posix/PlatformPathsInternal.h"
#include "SystemInfo.h"
#include "TestSupport.h"

namespace {

using namespace testing_support;

TEST(PlatformPaths, HostIdFromMachineIdFiles) {
  const std::string id = "0123456789abcdefABCDEF0123456789";
  const std::string formatted = "01234567-89AB-CDEF-ABCD-EF0123456789";
  const std::pair<std::string, std::string> cases[] = {
      {id, formatted}, {id + "\n", formatted}, {id + "\n\n", "-"},        {id + " ", "-"},
      {id + "0", "-"}, {id.substr(1), "-"},    {"g" + id.substr(1), "-"}, {"", "-"}};
  for (const auto& [contents, expected] : cases) {
    std::string out = "-";  // untouched on failure
    EXPECT_EQ(expected != "-", Platform::internal::FormatMachineId(contents, &out)) << contents;
    EXPECT_EQ(expected, out);
  }
  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("bad"), "not-an-id\n") && WriteFile(tmp.Sub("good"), id + "\n"));
  EXPECT_EQ(formatted, Platform::internal::HostIdFromFiles({tmp.Sub("bad"), tmp.Sub("good")}));
  char host[256] = {};
  ASSERT_EQ(0, ::gethostname(host, sizeof host - 1));
  EXPECT_EQ(host, Platform::internal::HostIdFromFiles({tmp.Sub("bad"), tmp.Sub("none")}));
}

TEST(PlatformPaths, HomeFromEnvironmentElsePasswordDatabase) {
  struct passwd* entry = ::getpwuid(::getuid());
  ASSERT_NE(nullptr, entry);
  for (const char* value : {"/some/home//", "", static_cast<const char*>(nullptr)}) {
    ScopedEnv env("HOME", value != nullptr ? value : "");
    if (value == nullptr) ::unsetenv("HOME");
    std::string home;
    EXPECT_TRUE(Platform::GetHomeDirectory(&home));
    EXPECT_EQ(value != nullptr && *value ? "/some/home" : entry->pw_dir, home) << value;
  }
}

TEST(PlatformPaths, BundleOfExecutableDirectory) {
  for (std::string dir : {"/A/T.app/Contents/MacOS", "/A/T.app/Contents/MacOS/"})
    EXPECT_EQ("/A/T.app", Platform::internal::BundlePathForExecutableDirectory(dir));
  // Anything else is a bare executable's directory and is its own bundle.
  for (std::string dir :
       {"/usr/bin", "/A/.app/Contents/MacOS", "/A/T/Contents/MacOS", "/A/T.app/Contents/Resources"})
    EXPECT_EQ(dir, Platform::internal::BundlePathForExecutableDirectory(dir));
}

// As the next test's probe copy, the program reports itself before any test runs.
const bool kRunAsBundleProbe = [] {
  if (std::getenv("LUMETRY_BUNDLE_PROBE") == nullptr) return false;
  std::string exe, bundle, id;
  const bool ok = Platform::GetExecutablePath(&exe) && Platform::GetMainBundlePath(&bundle) &&
                  Platform::GetMainBundleIdentifier(&id);
  std::printf("EXE=%s\nBUNDLE=%s\nID=%s\n", exe.c_str(), bundle.c_str(), id.c_str());
  std::fflush(stdout);
  std::_Exit(ok ? 0 : 1);
}();

TEST(PlatformPaths, RealBundleAndBinaryIdentifierOfAProgramInsideAnApp) {
  ScopedTempDir tmp;
  // The program sees its own path resolved, so compare with the resolved tree.
  std::string bundle = std::filesystem::canonical(tmp.path()).string() + "/Probe.app";
  std::string copy = bundle + "/Contents/MacOS/probe";
  ASSERT_TRUE(MakeDirs(bundle + "/Contents/MacOS"));
  std::filesystem::copy_file("/proc/self/exe", copy);
  ASSERT_TRUE(WritePlist(bundle + "/Contents/Info.plist",
                         R"({"CFBundleIdentifier": "com.example.probe"})", true));

  auto result = RunProgram({copy}, {"LUMETRY_BUNDLE_PROBE=1"});
  ASSERT_EQ(0, result.status) << result.err;
  EXPECT_EQ("EXE=" + copy + "\nBUNDLE=" + bundle + "\nID=com.example.probe\n", result.out);

  // An XML Info.plist is read too; a damaged one or none gives no identifier.
  ASSERT_TRUE(WritePlist(tmp.Sub("Xml.app/Contents/Info.plist"),
                         R"({"CFBundleIdentifier": "com.example.xml"})", false) &&
              WriteFile(tmp.Sub("Broken.app/Contents/Info.plist"), "<plist><dict><key>"));
  const ScopedOverride main_bundle(&Platform::SetMainBundlePathForTesting, "");
  for (const std::string app : {"Xml.app", "Broken.app", "Bare"}) {
    main_bundle.Set(tmp.Sub(app));
    std::string id = "none";
    Platform::GetMainBundleIdentifier(&id);
    EXPECT_EQ(app == "Xml.app" ? "com.example.xml" : "none", id);
  }
}

// The handler walk is driven through lumetry-sysinfo; here the optional outputs.
TEST(BrowserTest, NothingNamesABrowser) {
  ScopedHome home;
  ScopedEnv configDirs("XDG_CONFIG_DIRS", home.path()), dataDirs("XDG_DATA_DIRS", home.path()),
      configHome("XDG_CONFIG_HOME", ""), dataHome("XDG_DATA_HOME", "");
  std::string browser = "preset", second = "preset";
  EXPECT_FALSE(GetDefaultBrowser(nullptr, &second) || GetDefaultBrowser(&browser, nullptr));
  EXPECT_EQ(browser + "|" + second, "com.apple.safari|");
}

TEST(ProbeSourcesTest, ParsesTheSourcesAndFallsBack) {
  ScopedTempDir dir;
  const std::string cpuinfo = dir.Sub("cpuinfo"), product = dir.Sub("product"), none = "/none";
  ASSERT_TRUE(WriteFile(cpuinfo,
                        "processor\t: 0\nmodel name\t:  Some CPU @ 2.40GHz \n"
                        "cpu MHz\t\t: 2394.454\nmodel name\t: second\n") &&
              WriteFile(dir.Sub("max_freq"), "3600000\n") && WriteFile(dir.Sub("bad"), "n/a\n") &&
              WriteFile(product, "  Model X 1.0 \n"));

  using namespace SystemInfo;
  EXPECT_EQ(CPUBrandFromCpuinfo(cpuinfo) + "|" + CPUBrandFromCpuinfo(none), "Some CPU @ 2.40GHz|");
  EXPECT_EQ(HardwareModelFrom(product, "x86_64") + "|" + HardwareModelFrom(none, "aarch64"),
            "Model X 1.0|aarch64");
  EXPECT_EQ(CPUSpeedMHzFrom(dir.Sub("max_freq"), cpuinfo) + "|" +
                CPUSpeedMHzFrom(dir.Sub("bad"), cpuinfo) + "|" + CPUSpeedMHzFrom(none, product) +
                "|" + CPUSpeedMHzFrom(none, none),
            "3600|2394|0|0");
}

bool WaitForFile(const std::string& path, std::string* contents) {
  for (int i = 0; i < 500 && !PathExists(path); ++i) ::usleep(20000);
  return ReadFile(path, contents);
}

class LauncherTest : public ::testing::Test {
 protected:
  // No hint and a bundle without an uploader, unless a test sets them.
  void SetUp() override { SetUploaderLocationHint(tree_.Sub("NoHint").c_str()); }

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
  // Found from a hint in Resources; the hint first; none nested in a copy's own bundle.
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
  // The logger's kind is fixed at its first use, here: on, by the bundle's VxLog.config.
  ASSERT_TRUE(WriteFile(tree_.Sub("Plain/VxLog.config"), "append=1\n"));
  Logger::Instance("LogSession");
  // The script reports its argument, pid and a leaked descriptor, then holds (10 s at most).
  const std::string d = tree_.Sub("run");
  const std::string exe =
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
  errno = 0;  // neither the uploader nor an intermediate process is left as our child
  EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);
  ASSERT_TRUE(WriteFile(d + "/release", ""));
  EXPECT_TRUE(WaitForFile(d + "/finished", &out));
}

TEST_F(LauncherTest, ShellFallbacks) {
  // No such path: the line goes to the shell unquoted.
  EXPECT_TRUE(OpenApplication("", ": > '" + tree_.Sub("made") + "'") &&
              PathExists(tree_.Sub("made")));
  EXPECT_FALSE(OpenApplication(tree_.Sub("missing"), "2>/dev/null"));

  // A script without "#!" is run by the shell, quoted, even below a quote in a name.
  std::string script = MakeApp("A'B", "printf '%s' \"$1\" > \"$(dirname \"$0\")/out\"\n");
  EXPECT_TRUE(OpenApplication(script, "value"));
  std::string out;
  ASSERT_TRUE(WaitForFile(tree_.Sub("A'B/Contents/MacOS/out"), &out));
  EXPECT_EQ(out, "value");
}

// Escapes push later quotes past the scan's limit (the path's length): those stay bare.
TEST(LauncherCommandTest, BuildsTheFallbackCommandsAsWritten) {
  EXPECT_EQ(BuildBackgroundCommand("/A'B/LogCourier2", "ARG"), R"('/A'\''B/LogCourier2' ARG &)");
  EXPECT_EQ(BuildBackgroundCommand("/a'b'c'd'e", "ARG"), R"('/a'\''b'\''c'd'e' ARG &)");
}

// A file in the log directory's way is replaced; no usable home, no Library.
TEST_F(LauncherTest, PerUserPaths) {
  const std::string logDir = home_.Library() + "/Logs/Quorvik/LogCourier2QX";
  ASSERT_TRUE(WriteFile(logDir, "a file in the way") && WriteFile(tree_.Sub("file"), ""));
  EXPECT_EQ(GetUploaderLogDir(), logDir);
  EXPECT_TRUE(PathExists(logDir + "/."));
  ScopedEnv noHome("HOME", tree_.Sub("file/home"));
  EXPECT_EQ(GetUploaderLogDir() + GetTarvixPolicyPath(), "");
}

}  // namespace
