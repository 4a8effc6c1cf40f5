// The orphan rule and the pid of a session-file name.
#include "SessionLiveness.h"

#include <cctype>

namespace Courier {

bool IsOrphaned(const SessionFacts& facts) {
  if (facts.bootTime > 0 && facts.fileMade < facts.bootTime) return true;
  if (!facts.hasPid || !facts.processAlive) return facts.hasPid;
  return facts.processStart > facts.fileMade;
}

long SessionPid(const std::string& name) {
  const std::string::size_type start = name.find_first_not_of('_');
  if (start == std::string::npos) return 0;
  long pid = 0;
  std::string::size_type i = start;
  for (; i < name.size() && std::isdigit(static_cast<unsigned char>(name[i])) != 0; ++i) {
    if (pid > 99999999) return 0;  // longer than any pid
    pid = pid * 10 + (name[i] - '0');
  }
  const bool pieceEnds = i == name.size() || name[i] == '_' || name[i] == '.';
  return i > start && pieceEnds ? pid : 0;
}

}  // namespace Courier
