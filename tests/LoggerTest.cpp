// The diagnostic log. Logger::Instance settles the logger once per process,
// so every scenario that goes through it runs in a forked child with its own
// HOME and main bundle (the test process itself never calls it, so each fork
// starts undecided); the parent inspects the files left behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <iostream>
#include <regex>
#include <sstream>

#include "Logger.h"
#include "PlatformPaths.h"
#include "TestSupport.h"

using namespace testing_support;

namespace {

int InChild(const std::function<int()>& body) {
  std::cout.flush();
  std::fflush(nullptr);
  pid_t pid = ::fork();
  if (pid == 0) {
    int code = 99;
    try {
      code = body();
    } catch (...) {
    }
    std::cout.flush();
    std::fflush(nullptr);
    ::_exit(code);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct Sandbox {
  ScopedTempDir dir;
  std::string home = dir.Sub("home");
  std::string bundle = dir.Sub("bundle");
  std::string config = bundle + "/VxLog.config";
  std::string logDir = home + "/Library/Logs/Quorvik/LumetryQX";
  std::string log = logDir + "/VxLog-LogSession.txt";

  Sandbox() {
    MakeDirs(home);
    MakeDirs(bundle);
  }
  int Run(const std::function<int()>& body) const {
    return InChild([&] {
      ::setenv("HOME", home.c_str(), 1);
      Platform::SetMainBundlePathForTesting(bundle);
      return body();
    });
  }
  std::vector<std::string> LogLines() const {
    std::string text;
    std::vector<std::string> lines;
    if (!ReadFile(log, &text)) return lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
};

int LogOnce() {
  Logger::Instance("LogSession").Info("run", "Utility/src/Caller", 42);
  return 0;
}

}  // namespace

TEST(LoggerInstance, WithoutConfigNothingIsCreatedOrPrinted) {
  Sandbox box;
  std::string out = box.dir.Sub("stdout");
  EXPECT_EQ(0, box.Run([&] {
    ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    Logger& first = Logger::Instance("LogSession");
    first.Info("v", "d");
    first.Error("v", "Utility/src/Caller", 1);
    if (dynamic_cast<NULLLogger*>(&first) == nullptr) return 1;
    if (PathExists(box.home + "/Library/Logs")) return 2;
    // The kind of logger is fixed once handed out, even when a config appears.
    WriteFile(box.config, "");
    Logger& second = Logger::Instance("LogSession");
    second.Warning("v", "d");
    return &first == &second && !PathExists(box.log) ? 0 : 3;
  }));
  std::string printed;
  ASSERT_TRUE(ReadFile(out, &printed));
  EXPECT_EQ("", printed);
}

TEST(LoggerInstance, EmptyConfigTruncatesAndWritesOneLinePerCall) {
  Sandbox box;
  ASSERT_TRUE(WriteFile(box.config, ""));
  ASSERT_TRUE(WriteFile(box.log, "old line\n"));
  EXPECT_EQ(0, box.Run([&] {
    Logger& logger = Logger::Instance("LogSession");
    struct stat st;
    if (::stat(box.log.c_str(), &st) != 0 || st.st_size != 0) return 1;
    logger.Info(std::to_string(::getpid()), "Utility/src/Caller", 290);
    Logger::Instance("LogSession").Fatal("second value", "own detail");
    return 0;
  }));
  std::vector<std::string> lines = box.LogLines();
  ASSERT_EQ(2u, lines.size());
  const std::string time = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)";
  std::smatch m;
  ASSERT_TRUE(std::regex_match(
      lines[0], m,
      std::regex(R"(\[INFO\] \| PID:(\d+) \| TIME:)" + time +
                 R"( \| VALUE:(\d+) \| DETAIL:File:Utility/src/Caller LINE:290)")));
  EXPECT_EQ(m[1], m[2]);  // the child logged its own pid as the value
  EXPECT_TRUE(
      std::regex_match(lines[1], std::regex(R"(\[FATAL\] \| PID:\d+ \| TIME:)" + time +
                                            R"( \| VALUE:second value \| DETAIL:own detail)")));
}

TEST(LoggerInstance, AppendOnlyForExactlyOneAcrossRuns) {
  enum Kind { kFile, kReadOnly, kDirectory };
  struct Case {
    Kind kind;
    std::string config;
    size_t lines;
  } cases[] = {
      {kFile, "append=1\n", 2},     {kFile, "append=1\r\n", 1}, {kFile, "append=yes\n", 1},
      {kReadOnly, "append=1\n", 1}, {kDirectory, "", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.config + " kind " + std::to_string(c.kind));
    if (c.kind == kReadOnly && ::geteuid() == 0) continue;  // root opens it anyway
    Sandbox box;
    if (c.kind == kDirectory) {
      ASSERT_TRUE(MakeDirs(box.config));
    } else {
      ASSERT_TRUE(WriteFile(box.config, c.config));
      if (c.kind == kReadOnly) ::chmod(box.config.c_str(), 0400);
    }
    EXPECT_EQ(0, box.Run(LogOnce));
    EXPECT_EQ(0, box.Run(LogOnce));
    EXPECT_EQ(c.lines, box.LogLines().size());
  }
}

TEST(LoggerInstance, RemovedLogDirectoryIsRecreatedByTheNextCall) {
  Sandbox box;
  ASSERT_TRUE(WriteFile(box.config, "append=1"));
  EXPECT_EQ(0, box.Run([&] {
    LogOnce();
    ::unlink(box.log.c_str());
    if (::rmdir(box.logDir.c_str()) != 0) return 1;
    LogOnce();
    // The directory is back, but lines still go to the file opened first.
    return PathExists(box.logDir) && !PathExists(box.log) ? 0 : 2;
  }));
}

TEST(ReadConfigValue, TokensLinesAndLimits) {
  ScopedTempDir dir;
  std::string path = dir.Sub("VxLog.config");
  struct Case {
    std::string content, key, expected;
  } cases[] = {
      {"append=1", "append", "1"},
      {"append = 1\n", "append", "1"},
      {"append 1;\n", "append", "1"},
      {"append,1\n", "append", "1"},
      {";;append=;=1,extra\n", "append", "1"},
      {"append=1\nappend=2\n", "append", "2"},
      {"other=5\nappend=1\n", "other", "5"},
      {"append\n", "append", ""},
      {"append=1\r\n", "append", "1\r"},
      {"\tappend=1\n", "append", ""},
      {"k=" + std::string(509, 'v') + "\nappend=1\n", "append", "1"},  // 511 chars fit
      {"append=" + std::string(504, 'z'), "append", std::string(504, 'z')},
      {std::string(512, 'x') + "\nappend=1\n", "append", ""},
      {"append=1\n" + std::string(600, 'x') + "\nappend=2\n", "append", "1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.content.substr(0, 40));
    ASSERT_TRUE(WriteFile(path, c.content));
    EXPECT_EQ(c.expected, ReadConfigValue(path, c.key));
  }
  EXPECT_EQ("", ReadConfigValue(dir.Sub("absent"), "append"));
}

TEST(Logger, LevelOperationsWriteTheirLevelWhileNullLoggerDiscards) {
  using Op = std::function<void(Logger&)>;
  struct Case {
    Op op;
    std::string suffix;
  } cases[] = {
      {[](Logger& l) { l.Fatal("v", "d"); }, "[FATAL]"},
      {[](Logger& l) { l.Error("v", "d"); }, "[ERROR]"},
      {[](Logger& l) { l.Warning("v", "d"); }, "[WARNING]"},
      {[](Logger& l) { l.Debug("v", "d"); }, "[DEBUG]"},
      {[](Logger& l) { l.Info("v", "d"); }, "[INFO]"},
      {[](Logger& l) { l.Fatal("v", "f", 1); }, "[FATAL]"},
      {[](Logger& l) { l.Error("v", "f", 2); }, "[ERROR]"},
      {[](Logger& l) { l.Warning("v", "f", 3); }, "[WARNING]"},
      {[](Logger& l) { l.Debug("v", "f", 4); }, "[DEBUG]"},
      {[](Logger& l) { l.Info("v", "f", 5); }, "[INFO]"},
  };
  std::ostringstream nullOut;
  NULLLogger null(&nullOut);
  int line = 0;
  for (const Case& c : cases) {
    std::ostringstream out;
    Logger logger(&out);
    c.op(logger);
    c.op(null);
    std::string detail = line < 5 ? "d" : "File:f LINE:" + std::to_string(line - 4);
    EXPECT_EQ(0u, out.str().find(c.suffix + " | PID:")) << out.str();
    EXPECT_NE(std::string::npos, out.str().find(" | VALUE:v | DETAIL:" + detail + "\n"));
    ++line;
  }
  EXPECT_EQ("", nullOut.str());
  null.Log("INFO", "v", "d");  // the inherited Log still writes
  EXPECT_NE("", nullOut.str());
}

TEST(LoggerPaths, PositionConfigAndLogFile) {
  EXPECT_EQ("File:a/b LINE:7", FormatPosition("a/b", 7));
  EXPECT_EQ("File: LINE:-1", FormatPosition("", -1));

  Platform::SetMainBundlePathForTesting("/opt/Host.app");
  EXPECT_EQ("/opt/Host.app/VxLog.config", ConfigFilePath());
  Platform::SetMainBundlePathForTesting("/opt/tools/");
  EXPECT_EQ("/opt/tools/VxLog.config", ConfigFilePath());
  Platform::SetMainBundlePathForTesting("");

  ScopedHome home;
  std::string expected = home.Library() + "/Logs/Quorvik/LumetryQX/VxLog-Name.txt";
  EXPECT_EQ(expected, LogFilePath("Name"));
  EXPECT_TRUE(PathExists(home.Library() + "/Logs/Quorvik/LumetryQX"));
  ASSERT_TRUE(WriteFile(home.path() + "/plain", "x"));
  ScopedEnv fileAsHome("HOME", home.path() + "/plain");
  EXPECT_EQ("", LogFilePath("Name"));
}
