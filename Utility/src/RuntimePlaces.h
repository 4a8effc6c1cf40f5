// Every place the system reads or writes at run time, and every preference
// domain and key it uses, named once. `~` is the user's home directory; the
// per-user Library directory is `~/Library` and Application Support is
// `~/Library/Application Support`. Directory texts that are joined with a
// name end in "/"; the others do not.
#ifndef LUMETRY_UTILITY_RUNTIMEPLACES_H_
#define LUMETRY_UTILITY_RUNTIMEPLACES_H_

namespace Places {

// ---- Below the user's Library directory ----
// Session-information files left by host applications.
constexpr char kSessionInfoSubdir[] = "/Logs/Quorvik/LumetryQX/SessionInfo/";
// The uploader's spool of usage logs.
constexpr char kUploaderLogSubdir[] = "/Logs/Quorvik/LogCourier2QX/";
// The diagnostic log: kDiagnosticLogPrefix + instance name + ".txt".
constexpr char kDiagnosticLogPrefix[] = "/Logs/Quorvik/LumetryQX/VxLog-";
// The privacy notice state (read only).
constexpr char kPIIPrefsSubpath[] = "/Application Support/Quorvik/PII/com.quorvik.pii.prefs";

// ---- Below Application Support ----
constexpr char kUploaderConfigSubdir[] = "/Quorvik/LogCourier2QX/";
constexpr char kUploaderConfigName[] = "LogCourier2.cfg";
// Beside the configuration: the uploader's attempt counts, kept across passes.
constexpr char kAttemptLedgerName[] = "LogCourier2.attempts";
// The time and summary of the last pass, beside the attempt ledger.
constexpr char kLastPassName[] = "LogCourier2.lastpass";
constexpr char kTarvixSubdir[] = "/Quorvik/Tarvix/TarvixQX";
constexpr char kTarvixPolicyName[] = "tarvix_policy.xml";

// ---- Inside the spool ----
// The uploader's single-instance lock file.
constexpr char kUploaderLockName[] = ".LogCourierAppLock";

// ---- Beside the executable (the main bundle) ----
// Switches the diagnostic log on.
constexpr char kDiagnosticConfigName[] = "VxLog.config";
// The diagnostic logger instance of the crash run and the launcher.
constexpr char kSessionLoggerName[] = "LogSession";

// ---- The uploader application ----
constexpr char kUploaderAppName[] = "LogCourier2.app";
constexpr char kUploaderExecutableInApp[] = "/Contents/MacOS/LogCourier2";

// ---- Preference domains ----
// Current user, current host: the identity and the privacy choices.
constexpr char kTelemetryDomain[] = "com.quorvik.lumetryqx";
// Any user, current host: the machine-wide switch.
constexpr char kSystemDomain[] = "com.quorvik.lumetry.apipqx";
// Current user, any host (read only): the default browser.
constexpr char kLaunchServicesDomain[] = "com.apple.LaunchServices";

// ---- Preference keys ----
constexpr char kMachineIdKey[] = "MachineID";
constexpr char kObfuscateKey[] = "obfuscate";
constexpr char kSendKey[] = "send";
constexpr char kUserTypeKey[] = "UserType";
constexpr char kEnabledKey[] = "Enabled";
// The signed-in person's identifier, naming the dictionary that holds
// kOptInEntry.
constexpr char kPersonKey[] = "PersonGUID";
constexpr char kOptInEntry[] = "optin";
constexpr char kLaunchServicesHandlersKey[] = "LSHandlers";

}  // namespace Places

#endif  // LUMETRY_UTILITY_RUNTIMEPLACES_H_
