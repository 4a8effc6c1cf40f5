// lumetry-sysinfo: prints what the system probes report about this machine,
// one probe a line (or one JSON object): the processor brand, the hardware
// model, the processor clock speed in MHz and the default web browser.
#include <getopt.h>

#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "SystemInfo.h"
#include "ToolSupport.h"

namespace {

namespace ts = tool_support;

const char kToolName[] = "lumetry-sysinfo";

void PrintHelp() {
  std::cout << "Usage: " << kToolName
            << " [--json] [--help] [--version]\n"
               "\n"
               "Prints the processor brand (CPU), the hardware model (Model), the\n"
               "processor clock speed (CPU MHz, 0 when unknown) and the default web\n"
               "browser (Browser, com.apple.safari when none is set), one a line.\n"
               "\n"
               "Options:\n"
               "  -j, --json     print one JSON object with the keys cpu, model, cpuMHz\n"
               "                 and browser instead\n"
               "  -h, --help     show this help and exit\n"
               "  -V, --version  show the version and exit\n"
               "\n"
               "Exit status: 0 on success, 1 when the output cannot be written, 2 on bad\n"
               "usage.\n";
}

int ToolMain(int argc, char* argv[]) {
  static const option kOptions[] = {{"json", no_argument, nullptr, 'j'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {"version", no_argument, nullptr, 'V'},
                                    {nullptr, 0, nullptr, 0}};
  bool json = false;
  opterr = 0;
  for (;;) {
    const int c = getopt_long(argc, argv, ":jhV", kOptions, nullptr);
    if (c == -1) break;
    switch (c) {
      case 'j':
        json = true;
        break;
      default:
        return ts::AnswerCommonOption(kToolName, c, argv, &PrintHelp);
    }
  }
  if (optind < argc) {
    return ts::UsageError(kToolName, std::string("unexpected argument '") + argv[optind] + "'");
  }

  std::string browser;
  GetDefaultBrowser(&browser, nullptr);
  const std::string cpu = GetCPUBrandString();
  const std::string model = GetHardwareModel();
  const std::string mhz = GetCPUSpeedMHz();
  if (json) {
    // The probe answers decimal text; JSON readers get the number.
    const unsigned long long mhz_number = std::strtoull(mhz.c_str(), nullptr, 10);
    const nlohmann::ordered_json out = {
        {"cpu", cpu}, {"model", model}, {"cpuMHz", mhz_number}, {"browser", browser}};
    // Probe texts come from files of the system: show stray bytes as U+FFFD.
    std::cout << out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
  } else {
    std::cout << "CPU: " << cpu << "\nModel: " << model << "\nCPU MHz: " << mhz
              << "\nBrowser: " << browser << "\n";
  }
  return ts::FinishOutput(kToolName, ts::kExitSuccess);
}

}  // namespace

int main(int argc, char* argv[]) { return tool_support::RunTool(kToolName, ToolMain, argc, argv); }
