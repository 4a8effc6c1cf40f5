// Linux binding of ProcessId.h.
#include <unistd.h>

#include "ProcessId.h"

namespace Platform {

long CurrentProcessId() { return static_cast<long>(::getpid()); }

}  // namespace Platform
