// The strict address check; see ServerAddress.h.
#include "ServerAddress.h"

#include <cctype>

#include "CurlHandles.h"
#include "UploaderConfig.h"

namespace Courier {

const char* const kMakerDomain = "quorvik.com";

namespace {

// The part of `url` as a string, or false when it is absent or unreadable.
bool GetPart(CURLU* url, CURLUPart which, std::string* out) {
  char* raw = nullptr;
  if (curl_url_get(url, which, &raw, 0) != CURLUE_OK || raw == nullptr) return false;
  const CurlString owned(raw);
  *out = owned.get();
  return true;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool IsMakerHost(const std::string& host) {
  const std::string domain = kMakerDomain;
  if (host == domain) return true;
  const std::string suffix = "." + domain;
  return host.size() > suffix.size() &&
         host.compare(host.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

bool IsStrictServerUrl(const std::string& url) {
  if (!Uploader::IsAllowedServerUrl(url)) return false;
  const CurlUrl parsed(curl_url());
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
    return false;  // also refuses addresses without a scheme
  }
  std::string scheme;
  std::string host;
  std::string ignored;
  if (!GetPart(parsed.get(), CURLUPART_SCHEME, &scheme) ||
      !GetPart(parsed.get(), CURLUPART_HOST, &host)) {
    return false;
  }
  if (GetPart(parsed.get(), CURLUPART_USER, &ignored) ||
      GetPart(parsed.get(), CURLUPART_PASSWORD, &ignored) ||
      GetPart(parsed.get(), CURLUPART_OPTIONS, &ignored)) {
    return false;
  }
  scheme = Lower(scheme);
  host = Lower(host);
  if (scheme == "https") return IsMakerHost(host);
  return scheme == "http" && host == "localhost";
}

}  // namespace Courier
