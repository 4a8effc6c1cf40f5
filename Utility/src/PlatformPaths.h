// The platform seam for "where things are": the home directory, the running
// executable, the main bundle and its identifier, the host identifier.
// Linux bindings: Posix/PlatformPathsPosix.cpp.
#ifndef LUMETRY_UTILITY_PLATFORMPATHS_H_
#define LUMETRY_UTILITY_PLATFORMPATHS_H_

#include <string>

namespace Platform {

// $HOME when set and non-empty, else the password database entry of the
// current user. No trailing "/" (except for "/" itself).
bool GetHomeDirectory(std::string* path);

// The resolved path of the running executable (/proc/self/exe).
bool GetExecutablePath(std::string* path);

// The main bundle: the directory holding the executable, or <Name>.app when
// that directory is <Name>.app/Contents/MacOS. False when it cannot be found.
bool GetMainBundlePath(std::string* path);

// CFBundleIdentifier of <bundle>/Contents/Info.plist (XML or binary). False
// for a bare executable's bundle, which has no identifier.
bool GetMainBundleIdentifier(std::string* identifier);

// The host part of current-host preference file names: /etc/machine-id, then
// /var/lib/dbus/machine-id, as an upper-case 8-4-4-4-12 UUID; else the host name.
std::string GetHostId();

// Test hook: makes GetMainBundlePath answer `path` (empty restores the real
// look-up). Used only by tests that build fake application trees.
void SetMainBundlePathForTesting(const std::string& path);

}  // namespace Platform

#endif  // LUMETRY_UTILITY_PLATFORMPATHS_H_
