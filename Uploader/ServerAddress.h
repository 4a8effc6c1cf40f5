// The address check made before any request, on top of the configuration's
// own unanchored patterns: the address is parsed as a URL and must be https
// on the maker's domain (or a host inside it), or http on "localhost", with
// no user information. Parsing is libcurl's URL parser.
#ifndef LUMETRY_UPLOADER_SERVERADDRESS_H_
#define LUMETRY_UPLOADER_SERVERADDRESS_H_

#include <string>

namespace Courier {

// The maker's domain, as the configuration's address patterns name it.
extern const char* const kMakerDomain;

// True when `url` passes Uploader::IsAllowedServerUrl and the strict check
// above. False for anything that does not parse as a URL.
bool IsStrictServerUrl(const std::string& url);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_SERVERADDRESS_H_
