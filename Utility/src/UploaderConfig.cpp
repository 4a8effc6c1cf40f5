// The uploader's configuration file; see UploaderConfig.h.
#include "UploaderConfig.h"

#include <climits>
#include <cstdlib>

#include "ExtendedRegex.h"
#include "FileUtil.h"
#include "PatternBounds.h"
#include "PlatformPaths.h"
#include "RuntimePlaces.h"
#include "SettingsFile.h"
#include "UploaderStatus.h"

namespace Uploader {

const char* const kConfigFileName = Places::kUploaderConfigName;
const char* const kUploaderBundleId = "com.quorvik.lumetry.LogCourier2App";
const char* const kDefaultServerUrl = "https://lumetry.quorvik.com/lumetry";

namespace {

const char kSettingsSection[] = "settings";

// The local test server, then any host inside the maker's domain.
const char* const kAllowedUrlPatterns[] = {
    "http://localhost/lumetry",
    "http://[^/]+\\.quorvik\\.com/.*",
    "https://[^/]+\\.quorvik\\.com/.*",
};

struct NumericSetting {
  const char* key;
  int minimum;
  int maximum;
  int default_value;
  const char* default_text;
};

constexpr NumericSetting kMaxDiskSpace = {"maxdiskspace", 5, 100, 10, "10"};
constexpr NumericSetting kRetryInterval = {"retryinterval", 1, 60, 10, "10"};
constexpr NumericSetting kMaxRetries = {"maxretries", 1, 5, 3, "3"};

// atoi without its undefined behaviour: a number beyond the int range is
// clamped (and so lands outside every accepted range).
int ParseLeadingInt(const std::string& text) {
  const long value = std::strtol(text.c_str(), nullptr, 10);
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

std::uint32_t GetNumericSetting(SettingsFile& settings, const NumericSetting& setting) {
  const int value = ParseLeadingInt(settings.GetValue(kSettingsSection, setting.key));
  // One unsigned comparison: a value below the minimum wraps to a huge number.
  const unsigned offset = static_cast<unsigned>(value) - static_cast<unsigned>(setting.minimum);
  if (offset <= static_cast<unsigned>(setting.maximum - setting.minimum)) {
    return static_cast<std::uint32_t>(value);
  }
  settings.SetValue(kSettingsSection, setting.key, setting.default_text);
  return static_cast<std::uint32_t>(setting.default_value);
}

}  // namespace

std::string GetBundledConfigDir() {
  std::string bundle;
  if (!Platform::GetMainBundlePath(&bundle) || bundle.empty()) return std::string();
  std::string identifier;
  if (Platform::GetMainBundleIdentifier(&identifier) && identifier == kUploaderBundleId) {
    return bundle + "/Contents/Resources/";
  }
  return bundle + "/Contents/MacOS/LogCourier2.app/Contents/Resources/";
}

std::string GetUploaderConfigPath() {
  const std::string shipped_dir = GetBundledConfigDir();
  // Without a bundle there is no shipped copy (not one relative to the cwd).
  const std::string shipped =
      shipped_dir.empty() ? std::string() : FileUtil::JoinPath(shipped_dir, kConfigFileName);
  const bool has_shipped = FileUtil::Exists(shipped);

  std::string support;
  if (!FileUtil::GetApplicationSupportDirectory(&support)) return std::string();
  const std::string user_dir = FileUtil::JoinPath(support, Places::kUploaderConfigSubdir);
  if (!FileUtil::Exists(user_dir) && !FileUtil::CreateDirectories(user_dir)) return std::string();
  std::string user_copy = FileUtil::JoinPath(user_dir, kConfigFileName);
  const bool has_user = FileUtil::Exists(user_copy);

  if (has_shipped && has_user) {
    // A newer installation brings its own settings and starts active.
    if (FileUtil::IsNewer(shipped_dir, user_copy) || FileUtil::IsNewer(shipped, user_copy)) {
      ReactivateUploaderConfig(shipped, user_copy);
    }
  } else if (has_shipped) {
    FileUtil::Copy(shipped, user_copy);
  } else if (!has_user) {
    WriteDefaultUploaderConfig(user_copy);
  }
  return user_copy;
}

void WriteDefaultUploaderConfig(const std::string& target) {
  if (target.empty()) return;
  SettingsFile settings;
  settings.SetValue(kSettingsSection, kMaxDiskSpace.key, kMaxDiskSpace.default_text);
  settings.SetValue(kSettingsSection, kRetryInterval.key, kRetryInterval.default_text);
  settings.SetValue(kSettingsSection, kMaxRetries.key, kMaxRetries.default_text);
  settings.SetValue(kSettingsSection, "url", kDefaultServerUrl);
  settings.SetValue("ulog", "status", "Active");
  settings.Save(target);
}

void ReactivateUploaderConfig(const std::string& source, const std::string& target) {
  if (source.empty() || target.empty()) return;
  SettingsFile settings;
  settings.Load(source);
  settings.SetValue("ulog", "status", "Active");
  settings.SetValue("ulog", "wakeupdate", "");
  settings.Save(target);
}

std::uint32_t GetMaxDiskSpace(SettingsFile& settings) {
  return GetNumericSetting(settings, kMaxDiskSpace);
}

std::uint32_t GetRetryInterval(SettingsFile& settings) {
  return GetNumericSetting(settings, kRetryInterval);
}

std::uint32_t GetMaxRetries(SettingsFile& settings) {
  return GetNumericSetting(settings, kMaxRetries);
}

std::string GetServerUrl(SettingsFile& settings) {
  std::string url = settings.GetValue(kSettingsSection, "url");
  if (IsAllowedServerUrl(url)) return url;
  settings.SetValue(kSettingsSection, "url", kDefaultServerUrl);
  return kDefaultServerUrl;
}

bool IsAllowedServerUrl(const std::string& url) {
  for (const char* pattern : kAllowedUrlPatterns) {
    if (MatchesPattern(url, pattern)) return true;
  }
  return false;
}

bool MatchesPattern(const std::string& text, const std::string& pattern) {
  // Only bounded patterns are compiled: the compiler's memory grows with the
  // repetitions of a pattern, and foreign patterns reach this call.
  return PatternBounds::IsAcceptable(pattern) && ExtendedRegex(pattern).Matches(text);
}

void ReadUploaderConfig(SettingsFile& settings, UploaderConfig* config) {
  if (config == nullptr) return;
  config->maxDiskSpace = GetMaxDiskSpace(settings);
  config->retryInterval = GetRetryInterval(settings);
  config->maxRetries = GetMaxRetries(settings);
  config->serverUrl = GetServerUrl(settings);
  config->uploadUrl = config->serverUrl + "/UploadFile/";
  config->configUrl = config->serverUrl + "/GetConfig/";
  config->tarvixUrl = config->serverUrl + "/GetTarvix/";
  config->status = GetUploaderStatusName(settings);
  config->hibernatedItems.clear();
  settings.GetSectionEntries("hibernate", &config->hibernatedItems);
}

}  // namespace Uploader
