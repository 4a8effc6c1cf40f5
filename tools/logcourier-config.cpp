// logcourier-config: shows the uploader configuration as the uploader would
// read it (limits after range checks, the server and request addresses, the
// evaluated status and the paused items). Reading never changes the file.
#include <getopt.h>

#include <iostream>
#include <string>

#include "SettingsFile.h"
#include "UploaderConfig.h"

namespace {

const char kToolName[] = "logcourier-config";

void PrintUsage(std::ostream& out) {
  out << "Usage: " << kToolName
      << " [--file PATH] [--help]\n"
         "\n"
         "Prints the uploader configuration as the uploader reads it: out-of-range\n"
         "numbers and disallowed addresses replaced by their defaults, the status\n"
         "evaluated for today's date. The file is only read, never changed.\n"
         "\n"
         "Options:\n"
         "  -f, --file PATH  read PATH instead of the user's configuration file\n"
         "                   (which is found, and created or refreshed from the\n"
         "                   installed copy, as the uploader does)\n"
         "  -h, --help       show this help and exit\n"
         "\n"
         "Output, one \"key: value\" line each, in this order:\n"
         "  file, maxDiskSpace, retryInterval, maxRetries, serverUrl, uploadUrl,\n"
         "  configUrl, tarvixUrl, status, then one \"hibernated: ITEM=VALUE\" line\n"
         "  per paused item (none when no item is paused).\n"
         "\n"
         "Exit status: 0 on success, 1 when the file cannot be read, 2 on bad usage.\n";
}

// The option getopt just rejected, as the user typed it.
std::string RejectedOption(char* argv[]) {
  const std::string word = argv[optind - 1];
  if (word.compare(0, 2, "--") == 0 || optopt == 0) return word.substr(0, word.find('='));
  return std::string("-") + static_cast<char>(optopt);
}

int UsageError(const std::string& message) {
  std::cerr << kToolName << ": " << message << " (try --help)\n";
  return 2;
}

int ToolMain(int argc, char* argv[]) {
  static const option kOptions[] = {
      {"file", required_argument, nullptr, 'f'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  std::string path;
  bool have_path = false;
  opterr = 0;  // our own one-line messages instead of getopt's
  for (;;) {
    const int c = getopt_long(argc, argv, ":f:h", kOptions, nullptr);
    if (c == -1) break;
    switch (c) {
      case 'f':
        if (have_path) return UsageError("--file given more than once");
        path = optarg;
        have_path = true;
        break;
      case 'h':
        PrintUsage(std::cout);
        return 0;
      case ':':
        return UsageError("option " + RejectedOption(argv) + " needs a value");
      default:
        return UsageError("unknown option " + RejectedOption(argv));
    }
  }
  if (optind < argc) return UsageError(std::string("unexpected argument ") + argv[optind]);
  if (have_path && path.empty()) return UsageError("--file needs a non-empty path");

  if (!have_path) {
    path = Uploader::GetUploaderConfigPath();
    if (path.empty()) {
      std::cerr << kToolName << ": cannot find or create the user's configuration directory\n";
      return 1;
    }
  }

  SettingsFile settings;
  if (settings.Load(path) != 0) {
    std::cerr << kToolName << ": cannot read " << path << "\n";
    return 1;
  }
  UploaderConfig config;
  Uploader::ReadUploaderConfig(settings, &config);  // in memory only

  std::cout << "file: " << path << "\nmaxDiskSpace: " << config.maxDiskSpace
            << "\nretryInterval: " << config.retryInterval << "\nmaxRetries: " << config.maxRetries
            << "\nserverUrl: " << config.serverUrl << "\nuploadUrl: " << config.uploadUrl
            << "\nconfigUrl: " << config.configUrl << "\ntarvixUrl: " << config.tarvixUrl
            << "\nstatus: " << config.status << "\n";
  for (const auto& item : config.hibernatedItems) {
    std::cout << "hibernated: " << item.first << "=" << item.second << "\n";
  }
  if (!std::cout.flush()) {
    std::cerr << kToolName << ": cannot write the output\n";
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) { return ToolMain(argc, argv); }
