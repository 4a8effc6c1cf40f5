// logcourier-config: shows the uploader configuration as the uploader would
// read it (limits after range checks, the server and request addresses, the
// evaluated status and the paused items), and says on standard error which
// values of the file were refused and what is used instead. Reading never
// changes the file; the file is read with a 1 MiB cap.
#include <getopt.h>

#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "SettingsFile.h"
#include "ToolSupport.h"
#include "UploaderConfig.h"

namespace {

namespace ts = tool_support;

const char kToolName[] = "logcourier-config";

void PrintHelp() {
  std::cout << "Usage: " << kToolName
            << " [--file PATH] [--json] [--help] [--version]\n"
               "\n"
               "Prints the uploader configuration as the uploader reads it: out-of-range\n"
               "numbers and disallowed addresses replaced by their defaults, the status\n"
               "evaluated for today's date. Each refused value is named on standard error.\n"
               "The file is only read, never changed.\n"
               "\n"
               "Options:\n"
               "  -f, --file PATH  read PATH instead of the user's configuration file\n"
               "                   (which is found, and created or refreshed from the\n"
               "                   installed copy, as the uploader does)\n"
               "  -j, --json       print one JSON object instead of the lines below\n"
               "  -h, --help       show this help and exit\n"
               "  -V, --version    show the version and exit\n"
               "\n"
               "Output, one \"key: value\" line each, in this order:\n"
               "  file, maxDiskSpace, retryInterval, maxRetries, serverUrl, uploadUrl,\n"
               "  configUrl, tarvixUrl, status, then one \"hibernated: ITEM=VALUE\" line\n"
               "  per paused item (none when no item is paused).\n"
               "\n"
               "Exit status: 0 on success (also when values were refused), 1 when the file\n"
               "cannot be read or the output cannot be written, 2 on bad usage.\n";
}

// One value of the file that the uploader does not accept.
struct Refusal {
  std::string key;     // "maxdiskspace", ...
  std::string value;   // as written in the file
  std::string reason;  // "accepted 5..100", ...
  std::string used;    // what the uploader uses instead
};

// The checked keys, with the rule the uploader applies to each.
struct CheckedKey {
  const char* section;
  const char* key;
  const char* reason;
};
constexpr CheckedKey kCheckedKeys[] = {
    {"settings", "maxdiskspace", "accepted 5..100"},
    {"settings", "retryinterval", "accepted 1..60"},
    {"settings", "maxretries", "accepted 1..5"},
    {"settings", "url", "not an allowed server address"},
    {"ulog", "status", "accepted Active, Kill, Hibernate"},
};

// Compares the file as read with the dictionary after the uploader's getters
// replaced what they refuse (they write their defaults into it in memory).
std::vector<Refusal> FindRefusals(const SettingsFile::Entries& before, const SettingsFile& after) {
  std::vector<Refusal> refusals;
  for (const CheckedKey& checked : kCheckedKeys) {
    const auto found = before.find(std::string(checked.section) + "/" + checked.key);
    if (found == before.end()) continue;  // absent: the default, silently
    const std::string& raw = found->second;
    const std::string used = after.GetValue(checked.section, checked.key);
    const bool is_status = std::string(checked.section) == "ulog";
    const bool refused =
        is_status ? raw != "Active" && raw != "Kill" && raw != "Hibernate" : used != raw;
    if (refused) refusals.push_back({checked.key, raw, checked.reason, used});
  }
  return refusals;
}

void PrintText(const std::string& path, const UploaderConfig& config) {
  std::cout << "file: " << path << "\nmaxDiskSpace: " << config.maxDiskSpace
            << "\nretryInterval: " << config.retryInterval << "\nmaxRetries: " << config.maxRetries
            << "\nserverUrl: " << config.serverUrl << "\nuploadUrl: " << config.uploadUrl
            << "\nconfigUrl: " << config.configUrl << "\ntarvixUrl: " << config.tarvixUrl
            << "\nstatus: " << config.status << "\n";
  for (const auto& item : config.hibernatedItems) {
    std::cout << "hibernated: " << item.first << "=" << item.second << "\n";
  }
}

void PrintJson(const std::string& path, const UploaderConfig& config,
               const std::vector<Refusal>& refusals) {
  nlohmann::ordered_json out = {
      {"file", path},
      {"maxDiskSpace", config.maxDiskSpace},
      {"retryInterval", config.retryInterval},
      {"maxRetries", config.maxRetries},
      {"serverUrl", config.serverUrl},
      {"uploadUrl", config.uploadUrl},
      {"configUrl", config.configUrl},
      {"tarvixUrl", config.tarvixUrl},
      {"status", config.status},
      {"hibernated", nlohmann::ordered_json::object()},
      {"refused", nlohmann::ordered_json::array()},
  };
  for (const auto& item : config.hibernatedItems) out["hibernated"][item.first] = item.second;
  for (const Refusal& r : refusals) {
    out["refused"].push_back(
        {{"key", r.key}, {"value", r.value}, {"reason", r.reason}, {"using", r.used}});
  }
  // The file is bytes: text that is not UTF-8 is shown with U+FFFD, not refused.
  std::cout << out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
}

int ToolMain(int argc, char* argv[]) {
  static const option kOptions[] = {
      {"file", required_argument, nullptr, 'f'},
      {"json", no_argument, nullptr, 'j'},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {nullptr, 0, nullptr, 0},
  };
  std::string path;
  bool have_path = false;
  bool json = false;
  opterr = 0;  // our own one-line messages instead of getopt's
  for (;;) {
    const int c = getopt_long(argc, argv, ":f:jhV", kOptions, nullptr);
    if (c == -1) break;
    switch (c) {
      case 'f':
        if (have_path) return ts::UsageError(kToolName, "--file given more than once");
        path = optarg;
        have_path = true;
        break;
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
  if (have_path && path.empty()) return ts::UsageError(kToolName, "--file needs a non-empty path");

  if (!have_path) {
    path = Uploader::GetUploaderConfigPath();
    if (path.empty()) {
      ts::Complain(kToolName, "cannot find or create the user's configuration directory");
      return ts::kExitFailure;
    }
  }

  std::string text;
  std::string error;
  if (!ts::ReadFileCapped(path, ts::kSettingsFileCap, &text, &error)) {
    ts::Complain(kToolName, error);
    return ts::kExitFailure;
  }
  SettingsFile settings;
  settings.LoadText(text);
  const SettingsFile::Entries as_read = settings.entries();
  UploaderConfig config;
  Uploader::ReadUploaderConfig(settings, &config);  // in memory only

  const std::vector<Refusal> refusals = FindRefusals(as_read, settings);
  for (const Refusal& r : refusals) {
    ts::Complain(kToolName, path + ": " + r.key + "=" + r.value + " refused (" + r.reason +
                                "), using " + r.used);
  }
  if (json) {
    PrintJson(path, config, refusals);
  } else {
    PrintText(path, config);
  }
  return ts::FinishOutput(kToolName, ts::kExitSuccess);
}

}  // namespace

int main(int argc, char* argv[]) { return tool_support::RunTool(kToolName, ToolMain, argc, argv); }
