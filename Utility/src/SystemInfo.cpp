// The portable part of the system probes: parsing of the probe sources, the
// LaunchServices handler walk over the preference store and the XDG
// mimeapps.list lookup. The platform's own sources are named in
// Posix/SystemInfoPosix.cpp.
#include "SystemInfo.h"

#include <cstdint>
#include <limits>

#include "FileIO.h"
#include "FileUtil.h"
#include "Preferences.h"
#include "RuntimePlaces.h"
#include "StringUtil.h"

namespace SystemInfo {

const char kDefaultBrowser[] = "com.apple.safari";

namespace {

// Probe sources are small text files; anything larger is not one of them.
constexpr std::size_t kMaxSourceBytes = 1 << 20;

bool ReadSmallFile(const std::string& path, std::string* text) {
  return FileIO::ReadFile(path, kMaxSourceBytes, text) == FileIO::ReadStatus::kOk;
}

std::string TrimBlanks(const std::string& text) { return StringUtil::Trim(text, " \t\r\n"); }

// The leading decimal digits of `text` as a number; false without any digit,
// when the number does not fit, or when `whole` asks for digits only and
// something else follows.
bool ParseUnsigned(const std::string& text, bool whole, std::uint64_t* value) {
  std::uint64_t number = 0;
  std::size_t i = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    std::uint64_t digit = static_cast<std::uint64_t>(text[i] - '0');
    if (number > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) return false;
    number = number * 10 + digit;
  }
  if (i == 0 || (whole && i != text.size())) return false;
  *value = number;
  return true;
}

// Splits text into lines at "\n"; a trailing "\r" stays on the line (callers
// trim).
template <typename Visit>
void ForEachLine(const std::string& text, Visit visit) {
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (!visit(text.substr(start, end - start))) return;
    start = end + 1;
  }
}

// The first handler named for the http scheme in one mimeapps.list text.
bool FindHttpDefaultIn(const std::string& text, std::string* handler) {
  bool inDefaults = false;
  bool found = false;
  ForEachLine(text, [&](const std::string& raw) {
    std::string line = TrimBlanks(raw);
    if (line.empty() || line[0] == '#') return true;
    if (line[0] == '[') {
      inDefaults = line == "[Default Applications]";
      return true;
    }
    if (!inDefaults) return true;
    std::size_t eq = line.find('=');
    if (eq == std::string::npos || TrimBlanks(line.substr(0, eq)) != "x-scheme-handler/http") {
      return true;
    }
    std::vector<std::string> entries;
    StringUtil::Split(line.substr(eq + 1), &entries, ";");
    for (const std::string& entry : entries) {
      std::string id = TrimBlanks(entry);
      if (!id.empty()) {
        *handler = id;
        found = true;
        return false;
      }
    }
    return true;
  });
  return found;
}

}  // namespace

bool FindCpuinfoValue(const std::string& cpuinfoText, const std::string& key, std::string* value) {
  bool found = false;
  ForEachLine(cpuinfoText, [&](const std::string& line) {
    std::size_t colon = line.find(':');
    if (colon == std::string::npos || TrimBlanks(line.substr(0, colon)) != key) return true;
    *value = TrimBlanks(line.substr(colon + 1));
    found = true;
    return false;
  });
  return found;
}

std::string CPUBrandFromCpuinfo(const std::string& cpuinfoPath) {
  std::string text;
  std::string brand;
  if (!ReadSmallFile(cpuinfoPath, &text)) return std::string();
  if (!FindCpuinfoValue(text, "model name", &brand)) return std::string();
  return brand;
}

std::string HardwareModelFrom(const std::string& productNamePath, const std::string& machine) {
  std::string text;
  if (ReadSmallFile(productNamePath, &text)) {
    std::string model = TrimBlanks(text);
    if (!model.empty()) return model;
  }
  return machine;
}

std::string CPUSpeedMHzFrom(const std::string& maxFreqPath, const std::string& cpuinfoPath) {
  std::string text;
  std::uint64_t number = 0;
  if (ReadSmallFile(maxFreqPath, &text)) {
    if (ParseUnsigned(TrimBlanks(text), true, &number) && number / 1000 > 0) {
      return std::to_string(number / 1000);
    }
  }
  std::string mhz;
  if (ReadSmallFile(cpuinfoPath, &text) && FindCpuinfoValue(text, "cpu MHz", &mhz) &&
      ParseUnsigned(mhz, false, &number)) {
    return std::to_string(number);
  }
  return "0";
}

bool FindLaunchServicesBrowser(std::string* handler) {
  PrefValue list =
      CopyPreferenceValue(Places::kLaunchServicesHandlersKey, Places::kLaunchServicesDomain,
                          PrefUser::kCurrentUser, PrefHost::kAnyHost);
  if (list.Kind() != kPrefArray) return false;
  for (std::size_t i = 0; i < list.Count(); ++i) {
    // Entries that are not dictionaries, or lack either key, have no string
    // items and are passed over.
    PrefValue entry = list.ArrayItem(i);
    std::string scheme;
    std::string candidate;
    // The scheme is compared exactly: "HTTP" is not "http".
    if (!entry.Item("LSHandlerURLScheme").GetString(&scheme) || scheme != "http") continue;
    if (entry.Item("LSHandlerRoleAll").GetString(&candidate) && !candidate.empty()) {
      *handler = candidate;
      return true;
    }
  }
  return false;
}

bool FindXdgBrowser(const std::vector<std::string>& mimeappsFiles, std::string* handler) {
  for (const std::string& path : mimeappsFiles) {
    std::string text;
    if (ReadSmallFile(path, &text) && FindHttpDefaultIn(text, handler)) return true;
  }
  return false;
}

}  // namespace SystemInfo

bool GetDefaultBrowser(std::string* bundleId, std::string* second) {
  if (bundleId != nullptr) *bundleId = SystemInfo::kDefaultBrowser;
  if (second != nullptr) second->clear();
  std::string handler;
  if (SystemInfo::FindLaunchServicesBrowser(&handler) ||
      SystemInfo::FindXdgBrowser(SystemInfo::XdgMimeappsFiles(), &handler)) {
    if (bundleId != nullptr) *bundleId = handler;
    return true;
  }
  return false;
}
