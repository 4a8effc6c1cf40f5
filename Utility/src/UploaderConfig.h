// The uploader's configuration file "LogCourier2.cfg": where the user's copy
// lives and how it is created or refreshed from the copy shipped in the
// application bundle, its keys with their defaults and accepted ranges, the
// check of the server address, and the UploaderConfig record read from it.
//
// Keys (section "settings" unless noted) and defaults:
//   maxdiskspace  "10"  accepted 5..100
//   retryinterval "10"  accepted 1..60
//   maxretries    "3"   accepted 1..5
//   url           kDefaultServerUrl, must pass IsAllowedServerUrl
//   ulog/status   "Active" (see UploaderStatus.h)
// Out-of-range or unparsable values fall back to the default silently, in
// memory only. Nothing here throws or reports errors.
#ifndef LUMETRY_UTILITY_UPLOADERCONFIG_H_
#define LUMETRY_UTILITY_UPLOADERCONFIG_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

class SettingsFile;

// What the uploader needs from its configuration file.
struct UploaderConfig {
  using ItemList = std::vector<std::pair<std::string, std::string>>;

  std::uint32_t maxDiskSpace = 0;
  std::uint32_t retryInterval = 0;
  std::uint32_t maxRetries = 0;
  std::string serverUrl;
  std::string uploadUrl;  // serverUrl + "/UploadFile/"
  std::string configUrl;  // serverUrl + "/GetConfig/"
  std::string status;     // "Active", "Kill" or "Hibernate"
  std::string tarvixUrl;  // serverUrl + "/GetTarvix/"
  // Entries of section "hibernate": (item key, "<text>|<wake date>").
  ItemList hibernatedItems;
};

namespace Uploader {

extern const char* const kConfigFileName;    // "LogCourier2.cfg"
extern const char* const kUploaderBundleId;  // the uploader application's identifier
extern const char* const kDefaultServerUrl;  // no trailing "/"

// The resources directory (ending in "/") that holds the shipped copy: the
// main bundle's own resources when running inside the uploader application,
// else those of the uploader bundled inside the host application's bundle.
// "" when there is no main bundle.
std::string GetBundledConfigDir();

// The path of the user's copy, under Application Support in
// "Quorvik/LogCourier2QX/" (created when missing). The copy is refreshed from
// the shipped one when the installation is newer (and then reactivated),
// copied from it when the user has none, or written with defaults when
// neither exists. "" when the user directory cannot be found or made.
std::string GetUploaderConfigPath();

// Saves a file with the default settings and status "Active" to `target`.
// An empty path does nothing.
void WriteDefaultUploaderConfig(const std::string& target);

// Loads `source` (a missing file reads as empty), sets "ulog"/"status" to
// "Active", drops "ulog"/"wakeupdate" and saves the result to `target`.
// Does nothing unless both paths are non-empty.
void ReactivateUploaderConfig(const std::string& source, const std::string& target);

// The numeric settings, read like the C library's atoi (leading blanks and a
// sign allowed, digits up to the first other byte; no digits gives 0; a
// number beyond the int range counts as out of range). A value outside the
// accepted range is replaced in memory by the default, which is returned.
std::uint32_t GetMaxDiskSpace(SettingsFile& settings);
std::uint32_t GetRetryInterval(SettingsFile& settings);
std::uint32_t GetMaxRetries(SettingsFile& settings);

// "settings"/"url" when IsAllowedServerUrl accepts it; otherwise the default
// address, which is also stored in memory.
std::string GetServerUrl(SettingsFile& settings);

// True for the local test server "http://localhost/lumetry" and for HTTP or
// HTTPS addresses on hosts inside the maker's domain. The patterns are not
// anchored: an allowed address anywhere inside the text is accepted.
bool IsAllowedServerUrl(const std::string& url);

// True when the POSIX extended regular expression `pattern` matches anywhere
// in `text` (case-sensitive). A pattern that does not compile, or that
// PatternBounds::IsAcceptable refuses (too long, too deeply repeated), never
// matches.
bool MatchesPattern(const std::string& text, const std::string& pattern);

// Fills `config` from `settings` (defaults applied and the "ulog" status
// evaluated in memory; nothing is saved). A null `config` does nothing.
void ReadUploaderConfig(SettingsFile& settings, UploaderConfig* config);

}  // namespace Uploader

#endif  // LUMETRY_UTILITY_UPLOADERCONFIG_H_
