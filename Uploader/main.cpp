// Entry of LogCourier2, the uploader that sends the usage-log spool:
// `LogCourier2 [options] [reason]`; see CourierTool.h.
#include "CourierTool.h"
#include "Logger.h"
#include "RuntimePlaces.h"

namespace {
// The diagnostic logger exists before the pass starts, as in every program
// of the system.
[[maybe_unused]] Logger& g_sessionLogger = Logger::Instance(Places::kSessionLoggerName);
}  // namespace

int main(int argc, char* argv[]) { return Courier::ToolMain(argc, argv); }
