// LogCourier2's entry logic; see CourierTool.h.
#include "CourierTool.h"

#include <ctime>
#include <iostream>
#include <string>

#include "CurlTransport.h"
#include "Options.h"
#include "Pass.h"
#include "PrivacyPrefs.h"
#include "Reporter.h"
#include "StatusView.h"

#ifndef LUMETRY_VERSION
#define LUMETRY_VERSION "0"
#endif

namespace Courier {

int ToolMain(int argc, char* argv[]) {
  Options options;
  std::string error;
  switch (ParseOptions(argc, argv, &options, &error)) {
    case ParseOutcome::kHelp:
      PrintUsage(std::cout);
      return 0;
    case ParseOutcome::kVersion:
      std::cout << "LogCourier2 " << LUMETRY_VERSION << '\n';
      return 0;
    case ParseOutcome::kUsageError:
      std::cerr << error << "\nTry 'LogCourier2 --help'.\n";
      return 2;
    case ParseOutcome::kRun:
      break;
  }

  if (options.status) {
    const StatusReport status = CollectStatus(static_cast<std::int64_t>(std::time(nullptr)));
    if (options.json) {
      PrintStatusJson(status, std::cout);
    } else {
      PrintStatusText(status, std::cout);
    }
    std::cout.flush();
    if (!std::cout) {
      std::cerr << "LogCourier2: cannot write the status\n";
      return 1;
    }
    return 0;
  }

  Reporter report(options.verbose, &std::cerr);
  PassSettings settings;
  settings.dryRun = options.dryRun;
  settings.reason = options.reason;
  settings.makeTransport = [&options]() {
    TransportSettings transport;
    transport.userAgent = std::string("LogCourier2/") + LUMETRY_VERSION + " (Linux)";
    transport.machineId = GetMachineID();
    transport.connectTo = options.connectTo;
    transport.caFile = options.caFile;
    return MakeCurlTransport(transport);
  };
  RunPass(settings, report);
  return 0;
}

}  // namespace Courier
