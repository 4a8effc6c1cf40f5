// The two things the server hands the uploader before the uploads: its
// configuration (a settings text merged into the user's LogCourier2.cfg, which
// may stop, pause or re-address the uploader at once) and the policy file of
// the sibling component (stored as it comes, never read here).
#ifndef LUMETRY_UPLOADER_SERVERSETTINGS_H_
#define LUMETRY_UPLOADER_SERVERSETTINGS_H_

#include <cstddef>

namespace Courier {

struct PassContext;

constexpr std::size_t kMaxConfigBytes = 64 * 1024;
constexpr std::size_t kMaxPolicyBytes = 1024 * 1024;

// GET <configUrl>. A complete 200 answer within the cap is merged into the
// configuration file (saved atomically) and the configuration is read again;
// a Kill or Hibernate received so ends every further request. 204, 404, any
// other answer or a network error change nothing; an unreachable server
// closes the network for the pass.
void FetchConfiguration(PassContext& context);

// GET <tarvixUrl>. A complete 200 answer within the cap replaces the policy
// file atomically; anything else leaves it as it is.
void FetchPolicy(PassContext& context);

// The uploader's own status from the configuration file (expired pauses are
// ended and the file saved, unless in a dry run). Closes the network, saying
// why, on Kill or Hibernate. True when the uploader is Active.
bool CheckUploaderStatus(PassContext& context);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_SERVERSETTINGS_H_
