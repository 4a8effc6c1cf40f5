// One owner per libcurl handle kind used by the uploader (easy handle, MIME
// form, header list, URL handle), each freeing its handle when the scope
// ends. Only the two files that talk to libcurl include this header.
#ifndef LUMETRY_UPLOADER_CURLHANDLES_H_
#define LUMETRY_UPLOADER_CURLHANDLES_H_

#include <curl/curl.h>

#include <memory>

namespace Courier {

struct CurlEasyFree {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlMimeFree {
  void operator()(curl_mime* mime) const { curl_mime_free(mime); }
};
struct CurlSlistFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct CurlUrlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct CurlStringFree {
  void operator()(char* text) const { curl_free(text); }
};

using CurlEasy = std::unique_ptr<CURL, CurlEasyFree>;
using CurlMime = std::unique_ptr<curl_mime, CurlMimeFree>;
using CurlUrl = std::unique_ptr<CURLU, CurlUrlFree>;
using CurlString = std::unique_ptr<char, CurlStringFree>;

// A header list that grows by Append; null until the first append succeeds.
class CurlHeaderList {
 public:
  CurlHeaderList() = default;
  CurlHeaderList(const CurlHeaderList&) = delete;
  CurlHeaderList& operator=(const CurlHeaderList&) = delete;

  // False when libcurl could not copy the line (the list is kept as it was).
  bool Append(const char* line) {
    curl_slist* grown = curl_slist_append(list_.get(), line);
    if (grown == nullptr) return false;
    list_.release();  // NOLINT(bugprone-unused-return-value): `grown` now owns it
    list_.reset(grown);
    return true;
  }
  curl_slist* get() const { return list_.get(); }

 private:
  std::unique_ptr<curl_slist, CurlSlistFree> list_;
};

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_CURLHANDLES_H_
