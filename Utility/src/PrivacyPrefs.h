// The user's privacy choices and the machine identity as the telemetry system
// sees them. Every answer falls back to its documented default when the
// preference is absent, of the wrong kind or unreadable; nothing throws.
// Domain "com.quorvik.lumetryqx" (current user, current host) unless noted.
#ifndef LUMETRY_UTILITY_PRIVACYPREFS_H_
#define LUMETRY_UTILITY_PRIVACYPREFS_H_

#include <cstdint>
#include <string>

// "MachineID": a random upper-case UUID made and stored on first use; a stored
// string is answered as it is, whatever its form. Processes that ask at the
// same moment on a fresh account all get the same identifier.
std::string GetMachineID();

// "obfuscate" non-zero, or absent: personal data in usage logs is obfuscated.
bool IsObfuscationOn();

// "send" non-zero, or absent: usage logs may be sent.
bool IsSendAllowed();

// The "optin" entry of the dictionary named by the signed-in person's
// identifier (the string "PersonGUID" of the domain); 1 when any of that is
// missing.
std::int32_t GetOptIn();

// "UserType", or "".
std::string GetUserType();

// True exactly when "Enabled" of "com.quorvik.lumetry.apipqx" (any user,
// current host) is a number equal to 0.
bool IsCollectionDisabled();

// A number entry of a dictionary of the domain: read (out untouched on
// failure) and write (true when stored).
bool ReadTelemetryNumber(const std::string& dictionary, const std::string& entry,
                         std::int32_t* value);
bool WriteTelemetryNumber(const std::string& dictionary, const std::string& entry,
                          std::int32_t value);

// <user Library>/Application Support/Quorvik/PII/com.quorvik.pii.prefs, or ""
// when the Library directory cannot be found.
std::string GetPIIPrefsPath();

// True when the PII preference file says, in its PIINOTICESHOWN element, "yes"
// in any case and without surrounding white space. A missing file is false.
bool IsPIINoticeShown();

#endif  // LUMETRY_UTILITY_PRIVACYPREFS_H_
