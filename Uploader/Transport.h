// The uploader's view of HTTP: two requests (a capped GET and a one-file
// multipart POST) and what came back. The interface carries no HTTP library
// types, so the pass and its tests do not depend on how requests are made;
// CurlTransport.h makes the real one.
#ifndef LUMETRY_UPLOADER_TRANSPORT_H_
#define LUMETRY_UPLOADER_TRANSPORT_H_

#include <cstddef>
#include <cstdint>
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

// The bytes of one upload, read on demand, so that a file is streamed from
// disk into the request and never held whole (and can be read again when a
// request must be repeated on a fresh connection).
class UploadBody {
 public:
  UploadBody() = default;
  UploadBody(const UploadBody&) = delete;
  UploadBody& operator=(const UploadBody&) = delete;
  virtual ~UploadBody() = default;
  virtual std::uint64_t Size() const = 0;
  // Up to `n` bytes from `offset` into `into`: the count read, 0 at the end,
  // -1 on a read error.
  virtual long ReadAt(std::uint64_t offset, char* into, std::size_t n) const = 0;
};

// One transport serves a whole pass: its requests share one connection while
// the server keeps it open.
class Transport {
 public:
  Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  virtual ~Transport() = default;

  // GET `url`; at most `maxBody` bytes of the answer's body are kept.
  virtual HttpAnswer Get(const std::string& url, std::size_t maxBody) = 0;

  // POST `url` as multipart/form-data with one part named "file", file name
  // `fileName`, type application/octet-stream, content `body`.
  virtual HttpAnswer PostFile(const std::string& url, const std::string& fileName,
                              const UploadBody& body, std::size_t maxBody) = 0;
};

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_TRANSPORT_H_
