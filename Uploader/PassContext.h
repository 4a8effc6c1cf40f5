// What the steps of one pass share: the settings, the reporter, the clock
// reading of the pass, the configuration as last read, the summary and the
// transport (made on first use). Requests go through Request, which applies
// the strict address check first.
#ifndef LUMETRY_UPLOADER_PASSCONTEXT_H_
#define LUMETRY_UPLOADER_PASSCONTEXT_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Pass.h"
#include "Transport.h"
#include "UploaderConfig.h"

namespace Courier {

class Reporter;

struct PassContext {
  PassContext(const PassSettings& passSettings, Reporter& reporter)
      : settings(passSettings), report(reporter) {}

  const PassSettings& settings;
  Reporter& report;
  std::int64_t now = 0;
  std::string configPath;  // the user's LogCourier2.cfg, or "" when there is none
  UploaderConfig config;   // as last read from configPath
  PassSummary summary;
  bool networkOpen = true;  // false once a step has ended all requests
  std::unique_ptr<Transport> transport;

  // Reads the configuration file again into `config` (defaults applied in
  // memory; nothing is written).
  void ReloadConfig();

  // Ends every further request of the pass, saying why (once).
  void CloseNetwork(const std::string& why);

  // GET or POST (with `fileName` and `body`) on `url`; false, with nothing
  // sent, when the network is closed or the address fails the strict check
  // (which also closes the network).
  bool Request(const std::string& url, std::size_t maxBody, HttpAnswer* answer,
               const std::string* fileName = nullptr, const UploadBody* body = nullptr);
};

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_PASSCONTEXT_H_
