// The conventions every operator tool keeps, checked on each built tool:
// --help and --version on standard output, the exact answer to an unknown
// option, one line naming the file and the system's reason for a missing
// file, a directory or an oversize input, and a failed write of standard
// output reported with exit status 1.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"

namespace {

namespace ts = testing_support;

constexpr std::size_t kMiB = std::size_t{1024} * 1024;

struct ToolCase {
  std::string name;
  std::vector<std::string> file_args;  // what comes before an input file
  std::size_t cap;                     // bytes an input file may hold; 0: reads no file
  std::vector<std::string> printing;   // a run that prints; "@" is the sandbox's doc.xml
};

const ToolCase kTools[] = {
    {"ulog-decode", {}, 16 * kMiB, {"@"}},
    {"logcourier-config", {"--file"}, kMiB, {"--file", "@"}},
    {"lumetry-sysinfo", {}, 0, {}},
    {"lumetry-defaults", {"import", "com.quorvik.test"}, kMiB, {"paths"}},
};

std::string Path(const ToolCase& tool) { return std::string(TOOLS_DIR) + "/" + tool.name; }

ts::RunResult RunTool(const ToolCase& tool, const std::vector<std::string>& args,
                      const std::string& home) {
  std::vector<std::string> argv = {Path(tool)};
  argv.insert(argv.end(), args.begin(), args.end());
  return ts::RunProgram(argv, {"HOME=" + home, "LUMETRY_SYSTEM_PREFS_DIR=" + home + "/system"});
}

TEST(ToolConventionsCliTest, HelpAndVersionGoToStandardOutput) {
  ts::ScopedTempDir home;
  for (const ToolCase& tool : kTools) {
    SCOPED_TRACE(tool.name);
    const auto help = RunTool(tool, {"--help"}, home.path());
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: " + tool.name + " ", 0), 0u) << help.out;
    EXPECT_EQ(help.err, "");
    const auto version = RunTool(tool, {"--version"}, home.path());
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, tool.name + " " + LUMETRY_PROJECT_VERSION + "\n");
    EXPECT_EQ(version.err, "");
  }
}

TEST(ToolConventionsCliTest, UnknownOptionsGetOneLineAndAHint) {
  ts::ScopedTempDir home;
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      // arguments, message
      {{"--x"}, "unrecognized option '--x'"},
      {{"--x=1"}, "unrecognized option '--x'"},
      {{"-z"}, "invalid option -- 'z'"},
      {{"--help=x"}, "option '--help' doesn't allow an argument"},
      {{"--nope", "--version"}, "unrecognized option '--nope'"},
  };
  for (const ToolCase& tool : kTools) {
    for (const auto& [args, message] : cases) {
      SCOPED_TRACE(tool.name + " " + args[0]);
      const auto run = RunTool(tool, args, home.path());
      EXPECT_EQ(run.status, 2);
      EXPECT_EQ(run.out, "");
      EXPECT_EQ(run.err, tool.name + ": " + message + "\nTry '" + tool.name + " --help'.\n");
    }
  }
}

TEST(ToolConventionsCliTest, UnreadableInputsNameTheFileAndTheReason) {
  ts::ScopedTempDir home;
  for (const ToolCase& tool : kTools) {
    if (tool.cap == 0) continue;  // lumetry-sysinfo takes no file
    // A sparse file one byte past the cap: no memory or disk needed for it.
    const std::string big = home.Sub("big-" + tool.name);
    ASSERT_TRUE(ts::WriteFile(big, ""));
    ASSERT_EQ(::truncate(big.c_str(), static_cast<off_t>(tool.cap + 1)), 0);
    const std::pair<std::string, std::string> cases[] = {
        // file, reason
        {home.Sub("missing"), "No such file or directory"},
        {home.path(), "Is a directory"},
        {big, tool.cap == kMiB ? "larger than 1 MiB" : "larger than 16 MiB"},
    };
    for (const auto& [file, reason] : cases) {
      SCOPED_TRACE(tool.name + " " + file);
      std::vector<std::string> args = tool.file_args;
      args.push_back(file);
      const auto run = RunTool(tool, args, home.path());
      EXPECT_EQ(run.status, 1);
      EXPECT_EQ(run.out, "");
      EXPECT_EQ(run.err, tool.name + ": " + file + ": " + reason + "\n");
    }
  }
}

TEST(ToolConventionsCliTest, InputsUpToTheCapAreRead) {
  ts::ScopedTempDir home;
  // A settings text of exactly 1 MiB: comments padded to the cap.
  const std::string line = "# " + std::string(1021, 'x') + "\n";
  std::string text = "[settings]\nmaxretries=4\n";
  while (text.size() + line.size() <= kMiB) text += line;
  text += std::string(kMiB - text.size(), '\n');
  ASSERT_EQ(text.size(), kMiB);
  ASSERT_TRUE(ts::WriteFile(home.Sub("full.cfg"), text));
  const auto run = RunTool(kTools[1], {"--file", home.Sub("full.cfg")}, home.path());
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("\nmaxRetries: 4\n"), std::string::npos) << run.out;
}

TEST(ToolConventionsCliTest, AFullStandardOutputFailsTheRun) {
  ts::ScopedTempDir home;
  ASSERT_TRUE(ts::WriteFile(home.Sub("doc.xml"), "[settings]\n<doc/>\n"));
  for (const ToolCase& tool : kTools) {
    for (const auto& args : {tool.printing, std::vector<std::string>{"--help"}}) {
      SCOPED_TRACE(tool.name + " " + (args.empty() ? "" : args[0]));
      // The shell points standard output at /dev/full, then runs the tool.
      std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$0\" \"$@\" >/dev/full",
                                       Path(tool)};
      for (const std::string& a : args) argv.push_back(a == "@" ? home.Sub("doc.xml") : a);
      const auto run = ts::RunProgram(argv, {"HOME=" + home.path()});
      EXPECT_EQ(run.status, 1);
      EXPECT_EQ(run.err, tool.name + ": write error: No space left on device\n");
    }
  }
}

}  // namespace
