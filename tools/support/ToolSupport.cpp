// The shared conventions of the operator tools; see ToolSupport.h.
#include "ToolSupport.h"

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include "FileIO.h"

#ifndef LUMETRY_PROJECT_VERSION
#define LUMETRY_PROJECT_VERSION "0.0.0"
#endif

namespace tool_support {
namespace {

constexpr std::size_t kMiB = std::size_t{1024} * 1024;

// The reason of the first failed write to standard output, kept for the
// final report (a later flush may no longer see it).
int first_write_error = 0;

std::string DescribeSize(std::size_t bytes) {
  if (bytes % kMiB == 0) return std::to_string(bytes / kMiB) + " MiB";
  return std::to_string(bytes) + " bytes";
}

// The option word as typed, without an attached "=value".
std::string OptionWord(const char* word) {
  const std::string text = word == nullptr ? "" : word;
  return text.substr(0, text.find('='));
}

bool IsLongWord(const std::string& word) {
  // "--name", or "-name" for tools that take single-dash long options.
  return word.size() > 2 && word[0] == '-';
}

}  // namespace

const char* ProjectVersion() { return LUMETRY_PROJECT_VERSION; }

void PrintVersion(const char* tool) { std::cout << tool << ' ' << ProjectVersion() << '\n'; }

void Complain(const char* tool, const std::string& message) {
  std::cout.flush();
  std::cerr << tool << ": " << message << '\n';
}

int UsageError(const char* tool, const std::string& message) {
  Complain(tool, message);
  std::cerr << "Try '" << tool << " --help'.\n";
  return kExitUsage;
}

int RejectOption(const char* tool, int result, char* const argv[]) {
  // getopt_long leaves optind just past the word it rejected.
  const char* raw = optind > 0 ? argv[optind - 1] : nullptr;
  const std::string word = OptionWord(raw);
  const bool has_value = raw != nullptr && std::strchr(raw, '=') != nullptr;
  const std::string letter(1, static_cast<char>(optopt));
  if (result == ':') {
    if (IsLongWord(word)) return UsageError(tool, "option '" + word + "' requires an argument");
    return UsageError(tool, "option requires an argument -- '" + letter + "'");
  }
  // Tools with single-dash long options (getopt_long_only) report an unknown
  // letter with optopt 0: it is still a short option to the user.
  if (optopt == 0 && word.size() == 2 && word[0] == '-' && word[1] != '-') {
    return UsageError(tool, std::string("invalid option -- '") + word[1] + "'");
  }
  if (optopt == 0) return UsageError(tool, "unrecognized option '" + word + "'");
  if (IsLongWord(word) && has_value) {
    return UsageError(tool, "option '" + word + "' doesn't allow an argument");
  }
  return UsageError(tool, "invalid option -- '" + letter + "'");
}

int AnswerCommonOption(const char* tool, int result, char* const argv[], void (*print_help)()) {
  switch (result) {
    case 'h':
      print_help();
      return FinishOutput(tool, kExitSuccess);
    case 'V':
      PrintVersion(tool);
      return FinishOutput(tool, kExitSuccess);
    default:
      return RejectOption(tool, result, argv);
  }
}

std::string WithReason(const std::string& subject, int error_number) {
  return subject + ": " + std::strerror(error_number);
}

bool ReadFileCapped(const std::string& path, std::size_t cap, std::string* data,
                    std::string* error) {
  const bool from_stdin = path == "-";
  const std::string name = from_stdin ? "standard input" : path;
  int error_number = 0;
  switch (from_stdin ? FileIO::ReadStandardInput(cap, data, &error_number)
                     : FileIO::ReadFile(path, cap, data, &error_number)) {
    case FileIO::ReadStatus::kOk:
      return true;
    case FileIO::ReadStatus::kTooLarge:
      *error = name + ": larger than " + DescribeSize(cap);
      return false;
    case FileIO::ReadStatus::kNotRegular:
      *error = error_number == EISDIR ? WithReason(name, EISDIR) : name + ": not a regular file";
      return false;
    case FileIO::ReadStatus::kMissing:
    case FileIO::ReadStatus::kError:
      break;
  }
  *error = WithReason(name, error_number != 0 ? error_number : EIO);
  return false;
}

bool WriteStdout(const std::string& data) {
  std::cout.flush();
  if (std::fwrite(data.data(), 1, data.size(), stdout) == data.size()) return true;
  if (first_write_error == 0) first_write_error = errno;
  return false;
}

int RunTool(const char* tool, int (*tool_main)(int, char**), int argc, char* argv[]) {
  try {
    return tool_main(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << tool << ": " << error.what() << '\n';
  } catch (...) {
    std::cerr << tool << ": unexpected failure\n";
  }
  return kExitFailure;
}

int FinishOutput(const char* tool, int status) {
  int error_number = first_write_error;
  // std::cout shares stdout's buffer (synchronised with stdio): flushing
  // stdout first keeps the errno of the failed write.
  if (std::fflush(stdout) != 0 && error_number == 0) error_number = errno;
  std::cout.flush();
  const bool stream_failed = !std::cout;
  const bool had_error = std::ferror(stdout) != 0;
  if (std::fclose(stdout) != 0 && error_number == 0) error_number = errno;
  if (!stream_failed && !had_error && error_number == 0) return status;
  // Not Complain(): standard output is closed now and must not be flushed.
  std::cerr << tool << ": " << WithReason("write error", error_number != 0 ? error_number : EIO)
            << '\n';
  return kExitFailure;
}

}  // namespace tool_support
