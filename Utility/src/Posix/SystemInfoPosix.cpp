// Linux sources of the system probes: the CPU's own brand string (cpuid on
// x86), /proc/cpuinfo, the DMI product name, cpufreq in sysfs, uname, and the
// XDG directories of mimeapps.list.
#include <sys/utsname.h>

#include <cstdlib>
#include <cstring>

#include "PlatformPaths.h"
#include "StringUtil.h"
#include "SystemInfo.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace {

const char kCpuinfoPath[] = "/proc/cpuinfo";
const char kProductNamePath[] = "/sys/class/dmi/id/product_name";
const char kMaxFreqPath[] = "/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq";

// The 48-byte brand string of cpuid leaves 0x80000002-0x80000004, cut at its
// first NUL and without the blanks some vendors pad it with; "" when the CPU
// has no brand leaves.
std::string CpuidBrand() {
#if defined(__x86_64__) || defined(__i386__)
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(0x80000000u, &eax, &ebx, &ecx, &edx) == 0 || eax < 0x80000004u) {
    return std::string();
  }
  char brand[49] = {};
  for (unsigned int leaf = 0; leaf < 3; ++leaf) {
    unsigned int regs[4] = {};
    __get_cpuid(0x80000002u + leaf, &regs[0], &regs[1], &regs[2], &regs[3]);
    std::memcpy(brand + sizeof regs * leaf, regs, sizeof regs);
  }
  return StringUtil::Trim(std::string(brand), " \t");
#else
  return std::string();
#endif
}

std::string UnameMachine() {
  struct utsname names;
  if (::uname(&names) != 0) return std::string();
  return names.machine;
}

// An absolute path from the environment, or "" when unset, empty or relative.
std::string AbsoluteEnv(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || value[0] != '/') return std::string();
  return value;
}

// The absolute entries of a ":"-separated list.
std::vector<std::string> AbsoluteEntries(const std::string& list) {
  std::vector<std::string> parts;
  std::vector<std::string> absolute;
  StringUtil::Split(list, &parts, ":");
  for (const std::string& part : parts) {
    if (part[0] == '/') absolute.push_back(part);
  }
  return absolute;
}

// The entries of an XDG directory list variable, or of `fallback` when the
// variable names no absolute directory.
std::vector<std::string> DirList(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  std::vector<std::string> dirs = AbsoluteEntries(value != nullptr ? value : "");
  if (dirs.empty()) dirs = AbsoluteEntries(fallback);
  return dirs;
}

}  // namespace

std::string GetCPUBrandString() {
  std::string brand = CpuidBrand();
  if (!brand.empty()) return brand;
  return SystemInfo::CPUBrandFromCpuinfo(kCpuinfoPath);
}

std::string GetHardwareModel() {
  return SystemInfo::HardwareModelFrom(kProductNamePath, UnameMachine());
}

std::string GetCPUSpeedMHz() { return SystemInfo::CPUSpeedMHzFrom(kMaxFreqPath, kCpuinfoPath); }

namespace SystemInfo {

std::vector<std::string> XdgMimeappsFiles() {
  std::string home;
  if (!Platform::GetHomeDirectory(&home)) home.clear();
  std::vector<std::string> files;

  std::string configHome = AbsoluteEnv("XDG_CONFIG_HOME");
  if (configHome.empty() && !home.empty()) configHome = home + "/.config";
  if (!configHome.empty()) files.push_back(configHome + "/mimeapps.list");
  for (const std::string& dir : DirList("XDG_CONFIG_DIRS", "/etc/xdg")) {
    files.push_back(dir + "/mimeapps.list");
  }

  std::string dataHome = AbsoluteEnv("XDG_DATA_HOME");
  if (dataHome.empty() && !home.empty()) dataHome = home + "/.local/share";
  if (!dataHome.empty()) files.push_back(dataHome + "/applications/mimeapps.list");
  for (const std::string& dir : DirList("XDG_DATA_DIRS", "/usr/local/share:/usr/share")) {
    files.push_back(dir + "/applications/mimeapps.list");
  }
  return files;
}

}  // namespace SystemInfo
