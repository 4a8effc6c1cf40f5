// The privacy gates over the preference layer; each switch keeps its
// documented default (absent means allowed).
#include "Gates.h"

#include "PrivacyPrefs.h"

namespace Courier {

std::string PrivacyGateReason() {
  if (IsCollectionDisabled()) return "collection is switched off for every user (\"Enabled\" is 0)";
  if (!IsSendAllowed()) return "sending is switched off (\"send\" is 0)";
  if (GetOptIn() == 0) return "the user has opted out (\"optin\" is 0)";
  return "";
}

}  // namespace Courier
