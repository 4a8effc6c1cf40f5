// Pieces of the Linux path seam that are pure functions of their input,
// exposed so that they can be exercised without the real system files.
#ifndef LUMETRY_UTILITY_POSIX_PLATFORMPATHSINTERNAL_H_
#define LUMETRY_UTILITY_POSIX_PLATFORMPATHSINTERNAL_H_

#include <string>
#include <vector>

namespace Platform {
namespace internal {

// Machine-id file contents (exactly 32 hexadecimal digits, optionally
// followed by one newline) as an upper-case 8-4-4-4-12 identifier.
bool FormatMachineId(const std::string& contents, std::string* host_id);

// The first well-formed machine-id among `files`; else the host name.
std::string HostIdFromFiles(const std::vector<std::string>& files);

// The bundle of an executable that lives in `executable_dir`: the <Name>.app
// directory when executable_dir is <Name>.app/Contents/MacOS, else the
// directory itself.
std::string BundlePathForExecutableDirectory(const std::string& executable_dir);

}  // namespace internal
}  // namespace Platform

#endif  // LUMETRY_UTILITY_POSIX_PLATFORMPATHSINTERNAL_H_
