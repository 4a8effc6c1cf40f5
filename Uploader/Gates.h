// The privacy gates: the user's and the machine's consent switches that must
// all allow sending before the uploader makes any network request.
#ifndef LUMETRY_UPLOADER_GATES_H_
#define LUMETRY_UPLOADER_GATES_H_

#include <string>

namespace Courier {

// "" when every switch allows sending; otherwise which switch forbids it:
// collection switched off for every user ("Enabled" 0), sending switched off
// ("send" 0), or the person opted out ("optin" 0).
std::string PrivacyGateReason();

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_GATES_H_
