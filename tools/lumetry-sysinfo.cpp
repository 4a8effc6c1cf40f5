// lumetry-sysinfo: prints what the system probes report about this machine,
// one probe a line: the processor brand, the hardware model, the processor
// clock speed in MHz and the default web browser.
#include <getopt.h>

#include <iostream>
#include <string>

#include "SystemInfo.h"

namespace {

constexpr const char* kUsage = "usage: lumetry-sysinfo [--help]";

int ToolMain(int argc, char* argv[]) {
  static const option kOptions[] = {{"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};
  int opt;
  while ((opt = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
    if (opt == 'h') {
      std::cout << kUsage << "\n"
                << "Prints the processor brand (CPU), the hardware model (Model), the\n"
                << "processor clock speed (CPU MHz, 0 when unknown) and the default web\n"
                << "browser (Browser, com.apple.safari when none is set), one a line.\n";
      return 0;
    }
    std::cerr << kUsage << "\n";
    return 2;
  }
  if (optind < argc) {
    std::cerr << "lumetry-sysinfo: unexpected argument: " << argv[optind] << "\n" << kUsage << "\n";
    return 2;
  }

  std::string browser;
  GetDefaultBrowser(&browser, nullptr);
  std::cout << "CPU: " << GetCPUBrandString() << "\n"
            << "Model: " << GetHardwareModel() << "\n"
            << "CPU MHz: " << GetCPUSpeedMHz() << "\n"
            << "Browser: " << browser << "\n";
  std::cout.flush();
  return std::cout ? 0 : 1;
}

}  // namespace

int main(int argc, char* argv[]) { return ToolMain(argc, argv); }
