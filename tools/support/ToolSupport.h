// The conventions every operator tool of the project shares, written once:
// exit codes, the answers to --help / --version / a rejected option, one-line
// failure messages that name the file and the system's reason, a bounded
// file read, and the final check that standard output really was written.
// A tool is a short main() that calls its ToolMain(); ToolMain parses with
// getopt_long (opterr = 0) and hands every rejected option to RejectOption.
#ifndef LUMETRY_TOOLS_SUPPORT_TOOLSUPPORT_H_
#define LUMETRY_TOOLS_SUPPORT_TOOLSUPPORT_H_

#include <cstddef>
#include <string>

namespace tool_support {

enum ExitCode : int {
  kExitSuccess = 0,
  kExitFailure = 1,  // a file, a value or the output failed
  kExitUsage = 2,    // the command line was wrong
};

// Size caps of what the tools read.
constexpr std::size_t kUsageLogCap = std::size_t{16} * 1024 * 1024;
constexpr std::size_t kSettingsFileCap = std::size_t{1} * 1024 * 1024;

// The project version the build passes in ("0.0.0" when none was given).
const char* ProjectVersion();

// Prints "<tool> <version>" on standard output.
void PrintVersion(const char* tool);

// Prints "<tool>: <message>" then "Try '<tool> --help'." on standard error
// and answers kExitUsage.
int UsageError(const char* tool, const std::string& message);

// Answers the option getopt_long just rejected: `result` is what getopt_long
// returned ('?' or ':'), `argv` and the globals optind / optopt tell which
// word it was. Prints the usage error and answers kExitUsage.
//   unknown long option:     "<tool>: unrecognized option '--x'"
//   unknown short option:    "<tool>: invalid option -- 'z'"
//   missing option argument: "<tool>: option '--file' requires an argument"
int RejectOption(const char* tool, int result, char* const argv[]);

// Answers what getopt_long returned for an option no tool handles itself:
// 'h' prints the help through `print_help` and 'V' the version, each then
// finishing the output (kExitSuccess unless standard output failed); any
// other value is a rejected option (RejectOption).
int AnswerCommonOption(const char* tool, int result, char* const argv[], void (*print_help)());

// Prints "<tool>: <message>" on standard error (standard output is flushed
// first, so the two streams stay in order on a terminal).
void Complain(const char* tool, const std::string& message);

// "<subject>: <strerror(error_number)>".
std::string WithReason(const std::string& subject, int error_number);

// Reads the regular file at `path` (or standard input for "-") into `data`
// through the file core, refusing more than `cap` bytes, so an oversize file
// never lands in memory; a FIFO or device is refused without blocking. On failure answers false,
// leaves `data` untouched and sets `error` to one line naming the path: "<path>: No such file or
// directory",
// "<path>: Is a directory", "<path>: larger than 16 MiB".
bool ReadFileCapped(const std::string& path, std::size_t cap, std::string* data,
                    std::string* error);

// Writes `data` to standard output; false when the write failed.
bool WriteStdout(const std::string& data);

// Runs `tool_main` and answers its status. An exception that escapes it
// (out of memory) is reported as "<tool>: <what>" with kExitFailure, so no
// tool ends in std::terminate.
int RunTool(const char* tool, int (*tool_main)(int, char**), int argc, char* argv[]);

// Call once at the end: flushes and closes standard output. When anything
// written to it failed (a full disk, a closed pipe), complains
// "<tool>: write error: <reason>" and answers kExitFailure; otherwise answers
// `status` unchanged.
int FinishOutput(const char* tool, int status);

}  // namespace tool_support

#endif  // LUMETRY_TOOLS_SUPPORT_TOOLSUPPORT_H_
