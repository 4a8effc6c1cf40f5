// The uploader's command line:
//   LogCourier2 [--verbose] [--dry-run] [--connect-to H:P:H2:P2]
//               [--cacert FILE] [--help] [--version] [reason]
//   LogCourier2 --status [--json]
// The reason (free text, as the launcher passes it) is only logged.
#ifndef LUMETRY_UPLOADER_OPTIONS_H_
#define LUMETRY_UPLOADER_OPTIONS_H_

#include <ostream>
#include <string>

namespace Courier {

struct Options {
  bool verbose = false;   // decisions and a summary on standard error
  bool dryRun = false;    // decide everything; send, delete and record nothing
  std::string connectTo;  // curl's --connect-to HOST:PORT:HOST2:PORT2
  std::string caFile;     // trust these certificates instead of the system's
  std::string reason;     // why the pass was started, or ""
  bool status = false;    // print the status view instead of making a pass
  bool json = false;      // the status view as JSON
};

enum class ParseOutcome { kRun, kHelp, kVersion, kUsageError };

// Parses argv with getopt_long. On kUsageError `error` holds the message
// lines to print on standard error (without the trailing hint); `options` is
// filled only on kRun.
ParseOutcome ParseOptions(int argc, char* argv[], Options* options, std::string* error);

void PrintUsage(std::ostream& out);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_OPTIONS_H_
