// Fresh identifiers for the machine identity. Linux binding (libuuid):
// Posix/UuidPosix.cpp.
#ifndef LUMETRY_UTILITY_UUID_H_
#define LUMETRY_UTILITY_UUID_H_

#include <string>

namespace Platform {

// A random (version 4) UUID in its upper-case 36-character form.
std::string NewRandomUuid();

}  // namespace Platform

#endif  // LUMETRY_UTILITY_UUID_H_
