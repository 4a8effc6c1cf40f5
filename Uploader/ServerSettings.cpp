// Configuration and policy fetches, and the uploader's status; see
// ServerSettings.h.
#include "ServerSettings.h"

#include <string>

#include "FileIO.h"
#include "Mac/LogCourUtilsMac.h"
#include "PassContext.h"
#include "Reporter.h"
#include "SettingsFile.h"
#include "UploaderStatus.h"

namespace Courier {
namespace {

const char kSource[] = "Uploader/ServerSettings";

// Says what a request that was not a complete answer amounts to, and closes
// the network when the server cannot be reached. True for a complete answer.
bool Complete(PassContext& context, const std::string& what, const HttpAnswer& answer) {
  if (answer.delivery == Delivery::kUnreachable) {
    context.CloseNetwork("the server cannot be reached (" + answer.error + ")");
    return false;
  }
  if (answer.delivery == Delivery::kBroken) {
    context.report.Say(what + ": no complete answer (" + answer.error + "), nothing changed",
                       kSource, __LINE__);
    return false;
  }
  return true;
}

}  // namespace

bool CheckUploaderStatus(PassContext& context) {
  UploaderStatus status = UploaderStatus::Active;
  if (context.settings.dryRun || context.configPath.empty()) {
    status = Uploader::StatusFromString(context.config.status);  // evaluated in memory
  } else {
    Uploader::EvaluateUploaderStatus("", "", context.configPath, "ulog", &status);
    context.ReloadConfig();
  }
  if (status == UploaderStatus::Active) return true;
  context.CloseNetwork("the server has set the uploader to " + Uploader::StatusToString(status));
  return false;
}

void FetchConfiguration(PassContext& context) {
  const std::string url = context.config.configUrl;
  if (context.settings.dryRun) {
    context.report.Say("dry run: would fetch the configuration from " + url, kSource, __LINE__);
    return;
  }
  HttpAnswer answer;
  if (!context.Request(url, kMaxConfigBytes, &answer)) return;
  if (!Complete(context, "configuration", answer)) return;
  if (answer.status == 204 || answer.status == 404) {
    context.report.Say("configuration: " + std::to_string(answer.status) + ", nothing to change",
                       kSource, __LINE__);
    return;
  }
  if (answer.status != 200 || answer.bodyTooLarge) {
    context.report.Say("configuration: answer " + std::to_string(answer.status) +
                           (answer.bodyTooLarge ? " over the size limit" : "") + " ignored",
                       kSource, __LINE__);
    return;
  }
  if (context.configPath.empty()) {
    context.report.Say("configuration: no configuration file to update", kSource, __LINE__);
    return;
  }
  SettingsFile file;
  file.Load(context.configPath);
  Uploader::MergeSettings(file, answer.body);
  if (file.Save(context.configPath) != 0) {
    context.report.Say("configuration: could not save " + context.configPath, kSource, __LINE__);
    return;
  }
  context.report.Say("configuration: merged the server's settings", kSource, __LINE__);
  // The server may have stopped, paused or re-addressed the uploader.
  CheckUploaderStatus(context);
}

void FetchPolicy(PassContext& context) {
  const std::string url = context.config.tarvixUrl;
  if (context.settings.dryRun) {
    context.report.Say("dry run: would fetch the policy file from " + url, kSource, __LINE__);
    return;
  }
  HttpAnswer answer;
  if (!context.Request(url, kMaxPolicyBytes, &answer)) return;
  if (!Complete(context, "policy", answer)) return;
  if (answer.status != 200 || answer.bodyTooLarge) {
    context.report.Say("policy: answer " + std::to_string(answer.status) +
                           (answer.bodyTooLarge ? " over the size limit" : "") +
                           ", the policy file stays",
                       kSource, __LINE__);
    return;
  }
  const std::string path = GetTarvixPolicyPath();
  if (path.empty() || !FileIO::ReplaceFile(path, answer.body.data(), answer.body.size())) {
    context.report.Say("policy: could not write " + path, kSource, __LINE__);
    return;
  }
  context.report.Say("policy: stored " + std::to_string(answer.body.size()) + " bytes in " + path,
                     kSource, __LINE__);
}

}  // namespace Courier
