// Small probes that describe the machine and the user's setup for usage
// records: the processor's brand name, the hardware model, the processor's
// clock speed and the default web browser. None of them fails loudly: a
// missing source gives the documented default.
//
// The namespace SystemInfo holds the same probes over explicit sources (file
// paths, a fallback value), so each source can be replaced in tests; the
// public probes call them with the real sources of the platform.
// Portable parts: SystemInfo.cpp; Linux sources: Posix/SystemInfoPosix.cpp.
#ifndef LUMETRY_UTILITY_SYSTEMINFO_H_
#define LUMETRY_UTILITY_SYSTEMINFO_H_

#include <string>
#include <vector>

// The processor's brand text (leading and trailing blanks removed), or "".
std::string GetCPUBrandString();

// The hardware model name, else the machine architecture from uname.
std::string GetHardwareModel();

// The processor's clock speed in MHz as a decimal string, "0" when unknown.
std::string GetCPUSpeedMHz();

// The user's default web browser. `bundleId` is first set to
// "com.apple.safari" and `second` to ""; `second` is never set to anything
// else. The handler of the "http" scheme in the LaunchServices handler list
// (preference domain "com.apple.LaunchServices", key "LSHandlers", current
// user, any host) is taken first; when that list names none, the
// "x-scheme-handler/http" default of the XDG mimeapps.list files (a desktop
// file id such as "firefox.desktop"). True when either source named a
// handler, which is then in `bundleId`; false when `bundleId` keeps the
// fixed default. Null pointers are allowed.
bool GetDefaultBrowser(std::string* bundleId, std::string* second);

namespace SystemInfo {

// The default when no handler is named.
extern const char kDefaultBrowser[];

// The value of the first line of `cpuinfoText` whose key (the text before
// ":", blanks trimmed) is `key`, with blanks trimmed; false when none.
bool FindCpuinfoValue(const std::string& cpuinfoText, const std::string& key, std::string* value);

// "model name" of the cpuinfo file at `cpuinfoPath`, or "".
std::string CPUBrandFromCpuinfo(const std::string& cpuinfoPath);

// The trimmed contents of `productNamePath` when not empty, else `machine`.
std::string HardwareModelFrom(const std::string& productNamePath, const std::string& machine);

// The kHz of `maxFreqPath` divided by 1000 when positive, else the integer
// part of "cpu MHz" in `cpuinfoPath` when present, else "0".
std::string CPUSpeedMHzFrom(const std::string& maxFreqPath, const std::string& cpuinfoPath);

// The walk over the LaunchServices handler list: the role handler of the
// first entry whose "LSHandlerURLScheme" is exactly "http" and that has a
// non-empty string "LSHandlerRoleAll". False (and `handler` untouched) when
// the list is absent or names none.
bool FindLaunchServicesBrowser(std::string* handler);

// The first entry of the "x-scheme-handler/http" list in the
// [Default Applications] group of the first file in `mimeappsFiles` that
// names one; false (and `handler` untouched) when none does.
bool FindXdgBrowser(const std::vector<std::string>& mimeappsFiles, std::string* handler);

// The mimeapps.list files in lookup order: $XDG_CONFIG_HOME (default
// ~/.config), each of $XDG_CONFIG_DIRS (default /etc/xdg), then the
// "applications" directory of $XDG_DATA_HOME (default ~/.local/share) and of
// each of $XDG_DATA_DIRS (default /usr/local/share:/usr/share). Relative
// entries are ignored, as the XDG rules require.
std::vector<std::string> XdgMimeappsFiles();

}  // namespace SystemInfo

#endif  // LUMETRY_UTILITY_SYSTEMINFO_H_
