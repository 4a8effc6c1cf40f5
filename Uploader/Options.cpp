// Command-line parsing of LogCourier2. getopt's own messages are switched
// off so that every message has the program's fixed wording.
#include "Options.h"

#include <getopt.h>

namespace Courier {

void PrintUsage(std::ostream& out) {
  out << "Usage: LogCourier2 [--verbose] [--dry-run] [--connect-to H:P:H2:P2] [--cacert FILE]\n"
         "                   [--help] [--version] [reason]\n"
         "       LogCourier2 --status [--json]\n"
         "\n"
         "Makes one pass over the usage-log spool (~/Library/Logs/Quorvik/LogCourier2QX):\n"
         "fetches the uploader configuration and the policy file, keeps the spool within\n"
         "its disk budget and sends the finished usage logs, oldest first. Nothing is\n"
         "sent when the user or the machine has switched sending off, or the server has\n"
         "stopped or paused the uploader. Silent unless --verbose is given.\n"
         "\n"
         "Options:\n"
         "  -v, --verbose             print one line per decision and a summary on stderr\n"
         "  -n, --dry-run             decide everything but send and delete nothing and keep\n"
         "                            the attempt counts and the configuration as they are\n"
         "      --connect-to H:P:H2:P2  connect to H2:P2 for requests meant for H:P\n"
         "                            (the name H is kept for TLS and the Host header)\n"
         "      --cacert FILE         trust the certificates in FILE instead of the system's\n"
         "      --status              show why logs were or were not sent (no network, no\n"
         "                            change, safe while a pass runs); with --json as JSON\n"
         "  -h, --help                show this help and exit\n"
         "  -V, --version             show the version and exit\n"
         "\n"
         "The reason, if given, is only written to the diagnostic log.\n"
         "Exit status: 0 when the pass ran (whatever the server said), 2 on bad usage.\n";
}

ParseOutcome ParseOptions(int argc, char* argv[], Options* options, std::string* error) {
  enum { kConnectTo = 256, kCaCert, kStatus, kJson };
  static const option kLong[] = {
      {"verbose", no_argument, nullptr, 'v'},
      {"dry-run", no_argument, nullptr, 'n'},
      {"connect-to", required_argument, nullptr, kConnectTo},
      {"cacert", required_argument, nullptr, kCaCert},
      {"status", no_argument, nullptr, kStatus},
      {"json", no_argument, nullptr, kJson},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {nullptr, 0, nullptr, 0},
  };
  Options parsed;
  opterr = 0;
  optind = 0;  // a full restart of GNU getopt, so the parser can run more than once
  for (;;) {
    const int c = getopt_long(argc, argv, ":vnhV", kLong, nullptr);
    if (c == -1) break;
    const std::string word = optind > 0 && optind <= argc ? argv[optind - 1] : "";
    switch (c) {
      case 'v':
        parsed.verbose = true;
        break;
      case 'n':
        parsed.dryRun = true;
        break;
      case kConnectTo:
        parsed.connectTo = optarg;
        break;
      case kCaCert:
        parsed.caFile = optarg;
        break;
      case kStatus:
        parsed.status = true;
        break;
      case kJson:
        parsed.json = true;
        break;
      case 'h':
        return ParseOutcome::kHelp;
      case 'V':
        return ParseOutcome::kVersion;
      case ':':
        *error =
            "LogCourier2: option '" + word.substr(0, word.find('=')) + "' requires an argument";
        return ParseOutcome::kUsageError;
      default:
        if (optopt != 0) {
          *error =
              std::string("LogCourier2: invalid option -- '") + static_cast<char>(optopt) + "'";
        } else {
          *error = "LogCourier2: unrecognized option '" + word + "'";
        }
        return ParseOutcome::kUsageError;
    }
  }
  if (argc - optind > 1) {
    *error = std::string("LogCourier2: unexpected argument '") + argv[optind + 1] + "'";
    return ParseOutcome::kUsageError;
  }
  if (optind < argc) parsed.reason = argv[optind];
  if (parsed.json && !parsed.status) {
    *error = "LogCourier2: --json goes with --status";
    return ParseOutcome::kUsageError;
  }
  if (parsed.status && (parsed.dryRun || !parsed.reason.empty())) {
    *error = "LogCourier2: --status makes no pass: it takes only --json";
    return ParseOutcome::kUsageError;
  }
  *options = parsed;
  return ParseOutcome::kRun;
}

}  // namespace Courier
