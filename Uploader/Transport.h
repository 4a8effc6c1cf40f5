// The uploader's view of HTTP: two requests (a capped GET and a one-file
// multipart POST) and what came back. The interface carries no HTTP library
// types, so the pass and its tests do not depend on how requests are made;
// CurlTransport.h makes the real one.
#ifndef LUMETRY_UPLOADER_TRANSPORT_H_
#define LUMETRY_UPLOADER_TRANSPORT_H_

#include <cstddef>
#include <string>

namespace Courier {

// How far a request got.
enum class Delivery {
  kAnswered,     // a status line arrived (status and headers are valid)
  kUnreachable,  // nothing was sent: refused, unresolved, connect timeout, TLS failure
  kBroken,       // the request went out but no complete answer came back
};

struct HttpAnswer {
  Delivery delivery = Delivery::kUnreachable;
  long status = 0;            // HTTP status when answered
  std::string body;           // at most the cap given with the request
  bool bodyTooLarge = false;  // the answer's body went beyond the cap (body cut)
  std::string retryAfter;     // the Retry-After header's value, or ""
  std::string error;          // a short reason when not answered, for the log
};

class Transport {
 public:
  Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  virtual ~Transport() = default;

  // GET `url`; at most `maxBody` bytes of the answer's body are kept.
  virtual HttpAnswer Get(const std::string& url, std::size_t maxBody) = 0;

  // POST `url` as multipart/form-data with one part named "file", file name
  // `fileName`, type application/octet-stream, content `bytes`.
  virtual HttpAnswer PostFile(const std::string& url, const std::string& fileName,
                              const std::string& bytes, std::size_t maxBody) = 0;
};

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_TRANSPORT_H_
