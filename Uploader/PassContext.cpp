// The shared state of a pass and its one door to the network.
#include "PassContext.h"

#include "Reporter.h"
#include "ServerAddress.h"
#include "SettingsFile.h"

namespace Courier {
namespace {
const char kSource[] = "Uploader/PassContext";
}  // namespace

void PassContext::ReloadConfig() {
  SettingsFile file;
  if (!configPath.empty()) file.Load(configPath);  // a missing file reads as empty
  config = UploaderConfig();
  Uploader::ReadUploaderConfig(file, &config);
}

void PassContext::CloseNetwork(const std::string& why) {
  if (!networkOpen) return;
  networkOpen = false;
  summary.stopReason = why;
  report.Say("no more requests in this pass: " + why, kSource, __LINE__);
}

bool PassContext::Request(const std::string& url, std::size_t maxBody, HttpAnswer* answer,
                          const std::string* fileName, const UploadBody* body) {
  if (!networkOpen) return false;
  if (!IsStrictServerUrl(url)) {
    CloseNetwork("the server address " + url + " is not allowed");
    return false;
  }
  if (!transport) transport = settings.makeTransport();
  ++summary.requests;
  *answer = fileName != nullptr && body != nullptr
                ? transport->PostFile(url, *fileName, *body, maxBody)
                : transport->Get(url, maxBody);
  return true;
}

}  // namespace Courier
