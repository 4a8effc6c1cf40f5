// ulog-decode: prints usage logs from the uploader's spool as plain XML.
// A ".rdy" file must begin with the scramble marker; the rest is ROT47 text.
// A ".xml" file is printed as it is. Any other file is decoded when it
// carries the marker and printed as it is otherwise. Each file is read with
// a size cap, so a huge or endless file is refused instead of filling memory.
#include <getopt.h>

#include <iostream>
#include <string>

#include "MiniSession.h"
#include "ToolSupport.h"

namespace {

namespace ts = tool_support;

const char kToolName[] = "ulog-decode";

void PrintHelp() {
  std::cout << "Usage: " << kToolName
            << " [--help] [--version] FILE...\n"
               "\n"
               "Prints each usage log as plain XML: a .rdy file is checked for its marker\n"
               "and unscrambled, a .xml file is printed as it is. Files larger than 16 MiB\n"
               "are refused.\n"
               "\n"
               "Options:\n"
               "  -h, --help     show this help and exit\n"
               "  -V, --version  show the version and exit\n"
               "\n"
               "Exit status: 0 when every file was printed, 1 when a file could not be\n"
               "read or decoded or the output could not be written, 2 on bad usage.\n";
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Decodes one file into `text`; on failure `error` is one line naming it.
bool DecodeFile(const std::string& path, std::string* text, std::string* error) {
  std::string contents;
  if (!ts::ReadFileCapped(path, ts::kUsageLogCap, &contents, error)) return false;
  const std::string marker(MiniSession::kScrambleMarker, MiniSession::kScrambleMarkerLength);
  const bool has_marker = contents.compare(0, marker.size(), marker) == 0;
  if (EndsWith(path, ".rdy") && !has_marker) {
    *error = path + ": not a scrambled usage log (marker missing or wrong)";
    return false;
  }
  if (has_marker && !EndsWith(path, ".xml")) {
    *text = MiniSession::UnscrambleText(contents.substr(marker.size()));
  } else {
    text->swap(contents);
  }
  return true;
}

int ToolMain(int argc, char* argv[]) {
  static const option kOptions[] = {{"help", no_argument, nullptr, 'h'},
                                    {"version", no_argument, nullptr, 'V'},
                                    {nullptr, 0, nullptr, 0}};
  opterr = 0;
  for (;;) {
    const int c = getopt_long(argc, argv, ":hV", kOptions, nullptr);
    if (c == -1) break;
    switch (c) {
      default:
        return ts::AnswerCommonOption(kToolName, c, argv, &PrintHelp);
    }
  }
  if (optind >= argc) return ts::UsageError(kToolName, "no file given");

  int status = ts::kExitSuccess;
  for (int i = optind; i < argc; ++i) {
    std::string text;
    std::string error;
    if (!DecodeFile(argv[i], &text, &error)) {
      ts::Complain(kToolName, error);
      status = ts::kExitFailure;
      continue;
    }
    if (!ts::WriteStdout(text)) break;  // FinishOutput reports it
  }
  return ts::FinishOutput(kToolName, status);
}

}  // namespace

int main(int argc, char* argv[]) { return tool_support::RunTool(kToolName, ToolMain, argc, argv); }
