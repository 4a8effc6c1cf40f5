// ulog-decode: prints usage logs from the uploader's spool as plain XML.
// A ".rdy" file must begin with the scramble marker; the rest is ROT47 text.
// A ".xml" file is printed as it is. Any other file is decoded when it
// carries the marker and printed as it is otherwise.
#include <getopt.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "FileIO.h"
#include "MiniSession.h"

namespace {

constexpr const char* kUsage = "usage: ulog-decode FILE...";
// Usage logs are a few kilobytes; anything past this is not one.
constexpr std::size_t kMaxLogBytes = std::size_t{16} << 20;

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Decodes one file into `text`; on failure `error` says why.
bool DecodeFile(const std::string& path, std::string* text, std::string* error) {
  std::string contents;
  if (FileIO::ReadFile(path, kMaxLogBytes, &contents) != FileIO::ReadStatus::kOk) {
    *error = "cannot read the file";
    return false;
  }
  const std::string marker(MiniSession::kScrambleMarker, MiniSession::kScrambleMarkerLength);
  const bool hasMarker = contents.compare(0, marker.size(), marker) == 0;
  if (EndsWith(path, ".rdy") && !hasMarker) {
    *error = "not a scrambled usage log (marker missing or wrong)";
    return false;
  }
  if (hasMarker && !EndsWith(path, ".xml")) {
    *text = MiniSession::UnscrambleText(contents.substr(marker.size()));
  } else {
    *text = contents;
  }
  return true;
}

int ToolMain(int argc, char* argv[]) {
  static const option kOptions[] = {{"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};
  int opt;
  while ((opt = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
    if (opt == 'h') {
      std::cout << kUsage << "\n"
                << "Prints each usage log as plain XML: a .rdy file is checked for its\n"
                << "marker and unscrambled, a .xml file is printed as it is.\n";
      return 0;
    }
    std::cerr << kUsage << "\n";
    return 2;
  }
  if (optind >= argc) {
    std::cerr << kUsage << "\n";
    return 2;
  }

  int status = 0;
  for (int i = optind; i < argc; ++i) {
    std::string text;
    std::string error;
    if (!DecodeFile(argv[i], &text, &error)) {
      std::cout.flush();
      std::cerr << "ulog-decode: " << argv[i] << ": " << error << "\n";
      status = 1;
      continue;
    }
    std::cout << text;
  }
  std::cout.flush();
  return status;
}

}  // namespace

int main(int argc, char* argv[]) { return ToolMain(argc, argv); }
