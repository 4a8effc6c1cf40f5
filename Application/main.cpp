// Entry of the crash processor: `crash-processor <productName> <pid>`.
#include "CrashRun.h"
#include "Logger.h"
#include "RuntimePlaces.h"

namespace {
// The session writer's logger exists before the run starts, as every
// component of the process expects.
[[maybe_unused]] Logger& g_sessionLogger = Logger::Instance(Places::kSessionLoggerName);
}  // namespace

int main(int argc, char* argv[]) { return CrashProcessor::Run(argc, argv); }
