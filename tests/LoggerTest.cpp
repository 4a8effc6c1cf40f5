// The diagnostic log, settled once per process: each scenario runs in a forked child.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <regex>

#include "Logger.h"
#include "PlatformPaths.h"
#include "TestSupport.h"

using namespace testing_support;

namespace {

struct Sandbox {
  ScopedTempDir dir;
  std::string home = dir.Sub("home"), bundle = dir.Sub("bundle");
  std::string config = bundle + "/VxLog.config";
  std::string log = home + "/Library/Logs/Quorvik/LumetryQX/VxLog-LogSession.txt";
  pid_t child = -1;  // of the last Run

  Sandbox() { EXPECT_TRUE(MakeDirs(home) && MakeDirs(bundle)); }
  // The exit code of `body`, run in a child whose HOME and bundle are here.
  int Run(const std::function<int()>& body) {
    (void)std::fflush(nullptr);
    child = ::fork();
    if (child == 0) {
      ::setenv("HOME", home.c_str(), 1);
      const ScopedOverride bundle_override(&Platform::SetMainBundlePathForTesting, bundle);
      const int code = body();
      (void)std::fflush(nullptr);
      ExitChild(code);
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

using TwoArguments = void (Logger::*)(const std::string&, const std::string&);
using ThreeArguments = void (Logger::*)(const std::string&, const std::string&, std::int32_t);
const std::tuple<TwoArguments, ThreeArguments, std::string> kLevels[] = {
    {&Logger::Fatal, &Logger::Fatal, "FATAL"},       {&Logger::Error, &Logger::Error, "ERROR"},
    {&Logger::Warning, &Logger::Warning, "WARNING"}, {&Logger::Debug, &Logger::Debug, "DEBUG"},
    {&Logger::Info, &Logger::Info, "INFO"},
};

}  // namespace

TEST(LoggerInstance, WithoutConfigNothingIsCreatedOrPrinted) {
  Sandbox box;
  const std::string out = box.dir.Sub("stdout");
  EXPECT_EQ(0, box.Run([&] {
    ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    Logger& first = Logger::Instance("LogSession");
    for (const auto& [two, three, level] : kLevels)
      (first.*two)("v", "d"), (first.*three)("v", "f", 1);
    const bool quiet = dynamic_cast<NULLLogger*>(&first) && !PathExists(box.home + "/Library/Logs");
    // The kind of logger is fixed once handed out, even when a config appears.
    WriteFile(box.config, "");
    Logger::Instance("LogSession").Warning("v", "d");
    return quiet && &first == &Logger::Instance("LogSession") && !PathExists(box.log) ? 0 : 1;
  }));
  EXPECT_EQ("", Contents(out));
}

TEST(LoggerInstance, EmptyConfigTruncatesAndWritesOneLinePerCall) {
  Sandbox box;
  ASSERT_TRUE(WriteFile(box.config, "") && WriteFile(box.log, "old line\n"));
  EXPECT_EQ(0, box.Run([&] {
    Logger& logger = Logger::Instance("LogSession");
    for (const auto& [two, three, level] : kLevels)
      (logger.*two)("v", "own detail"), (logger.*three)("v", "Utility/src/Caller", 290);
    return 0;
  }));
  std::string expected;
  for (const auto& [two, three, level] : kLevels) {
    for (const char* detail : {"own detail", "File:Utility/src/Caller LINE:290"})
      expected += "[" + level + "] | PID:" + std::to_string(box.child) +
                  " | TIME:T | VALUE:v | DETAIL:" + detail + "\n";
  }
  EXPECT_EQ(expected,
            std::regex_replace(Contents(box.log),
                               std::regex(R"(TIME:\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)"), "TIME:T"));
}

// Only exactly "append=1" keeps earlier runs' lines; a planted link is never written.
TEST(LoggerInstance, AppendOnlyForExactlyOneAndNeverThroughALink) {
  const std::tuple<const char*, bool, bool> cases[] = {// config, read-only, planted link
                                                       {"append=1\r\n", false, false},
                                                       {"append=1\n", true, false},
                                                       {"append=0\n", false, true},
                                                       {"append=1\n", false, true}};
  for (const auto& [config, read_only, link] : cases) {
    if (read_only && ::geteuid() == 0) continue;  // root opens it anyway
    Sandbox box;
    ASSERT_TRUE(WriteFile(box.config, config) && WriteFile(box.dir.Sub("target"), "precious\n") &&
                MakeDirs(box.home + "/Library/Logs/Quorvik/LumetryQX"));
    if (read_only) ::chmod(box.config.c_str(), 0400);
    ASSERT_TRUE(!link || ::symlink(box.dir.Sub("target").c_str(), box.log.c_str()) == 0);
    for (int run = 0; run < 2; ++run)
      EXPECT_EQ(0, box.Run([] { return Logger::Instance("LogSession").Info("run", "d"), 0; }));
    const std::string text = Contents(link ? box.dir.Sub("target") : box.log);
    EXPECT_TRUE(link ? text == "precious\n" : std::count(text.begin(), text.end(), '\n') == 1)
        << config << link << text;
    struct stat st;
    EXPECT_EQ(link, ::lstat(box.log.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) << config;
  }
}

TEST(ReadConfigValue, TokensLinesAndLimits) {
  ScopedTempDir dir;
  const std::string path = dir.Sub("VxLog.config");
  const auto expect = [&path](const std::string& content, const std::string& value) {
    ASSERT_TRUE(WriteFile(path, content));
    EXPECT_EQ(value, ReadConfigValue(path, "append")) << content.substr(0, 40);
  };
  for (const char* content :
       {"append = 1\n", "append 1;\n", "append,1\n", ";;append=;=1,extra\n", "append=1\nother=5\n"})
    expect(content, "1");
  expect("\tappend=1\n", "");
  // Lines of 511 characters still fit; a longer one ends the reading.
  expect("k=" + std::string(509, 'v') + "\nappend=1\n", "1");
  expect(std::string(512, 'x') + "\nappend=1\n", "");
  expect("append=1\n" + std::string(600, 'x') + "\nappend=2\n", "1");
  // A FIFO reads as no settings, without waiting for a writer that never comes.
  ASSERT_EQ(0, ::mkfifo(dir.Sub("fifo").c_str(), 0600));
  EXPECT_EQ("", ReadConfigValue(dir.Sub("fifo"), "append"));
}
