// Decision lines to the diagnostic log and, when asked, to standard error.
#include "Reporter.h"

#include "Logger.h"
#include "RuntimePlaces.h"

namespace Courier {

void Reporter::Say(const std::string& text, const char* source, std::int32_t line) {
  Logger::Instance(Places::kSessionLoggerName).Info(text, source, line);
  if (verbose_ && err_ != nullptr) *err_ << "LogCourier2: " << text << '\n' << std::flush;
}

}  // namespace Courier
