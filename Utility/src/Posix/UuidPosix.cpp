// Linux binding of Uuid.h: libuuid's random generator.
#include <uuid/uuid.h>

#include "Uuid.h"

namespace Platform {

std::string NewRandomUuid() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37] = {};
  uuid_unparse_upper(uuid, text);
  return text;
}

}  // namespace Platform
