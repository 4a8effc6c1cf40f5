// The transport over libcurl. One easy handle serves the whole pass, so its
// requests share one connection (and one TLS session) while the server keeps
// it open: HTTP/2 when the server offers it through ALPN, HTTP/1.1 keep-alive
// otherwise. libcurl replaces a connection the server closed while it was
// idle, and repeats a request whose reused connection died before any answer
// on a fresh one, so neither counts as a failed attempt. Each request is
// set up anew (curl_easy_reset keeps the connection) with the same safety
// settings: peer and host verification on, only http and https, no
// redirects, the pass's connect and total time limits, and an answer body
// cut off at the caller's cap (the transfer is stopped there rather than
// downloading the rest). An upload is streamed from its file. Whether a failed request "went out"
// is read from the bytes libcurl reports as sent: nothing sent means the server was never reached,
// which the pass treats differently from a broken exchange.
#include "CurlTransport.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <utility>

#include "CurlHandles.h"

namespace Courier {
namespace {

constexpr std::size_t kMaxHeaderValue = 256;

bool GlobalInit() {
  static const bool ok = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return ok;
}

// Where the write and header callbacks leave what they see.
struct Exchange {
  std::string body;
  std::size_t cap = 0;
  bool tooLarge = false;
  std::string retryAfter;
};

std::size_t OnBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* exchange = static_cast<Exchange*>(user);
  const std::size_t n = size * count;
  const std::size_t room = exchange->cap - std::min(exchange->cap, exchange->body.size());
  if (n > room) {
    exchange->body.append(data, room);
    exchange->tooLarge = true;
    return 0;  // stops the transfer: the rest is never downloaded
  }
  exchange->body.append(data, n);
  return n;
}

bool StartsWithNoCase(const char* data, std::size_t n, const char* prefix) {
  const std::size_t len = std::strlen(prefix);
  if (n < len) return false;
  for (std::size_t i = 0; i < len; ++i) {
    if (std::tolower(static_cast<unsigned char>(data[i])) != prefix[i]) return false;
  }
  return true;
}

std::size_t OnHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* exchange = static_cast<Exchange*>(user);
  const std::size_t n = size * count;
  if (StartsWithNoCase(data, n, "http/")) {
    exchange->retryAfter.clear();  // a new status line: headers of an interim answer are gone
  } else if (StartsWithNoCase(data, n, "retry-after:")) {
    std::string value(data + 12, n - 12);
    const auto first = value.find_first_not_of(" \t\r\n");
    const auto last = value.find_last_not_of(" \t\r\n");
    value = first == std::string::npos ? "" : value.substr(first, last - first + 1);
    exchange->retryAfter = value.substr(0, kMaxHeaderValue);
  }
  return n;
}

class CurlTransport : public Transport {
 public:
  explicit CurlTransport(TransportSettings settings) : settings_(std::move(settings)) {}

  HttpAnswer Get(const std::string& url, std::size_t maxBody) override {
    return Perform(url, maxBody, nullptr);
  }

  HttpAnswer PostFile(const std::string& url, const std::string& fileName, const UploadBody& body,
                      std::size_t maxBody) override {
    FileForm form{fileName, &body, 0};
    return Perform(url, maxBody, &form);
  }

 private:
  struct FileForm {
    const std::string& name;
    const UploadBody* body;
    std::uint64_t offset;  // where libcurl reads next
  };

  static std::size_t ReadPart(char* into, std::size_t size, std::size_t count, void* arg) {
    auto* form = static_cast<FileForm*>(arg);
    const long got = form->body->ReadAt(form->offset, into, size * count);
    if (got < 0) return CURL_READFUNC_ABORT;
    form->offset += static_cast<std::uint64_t>(got);
    return static_cast<std::size_t>(got);
  }

  // libcurl rewinds the part when it sends the request again on a fresh
  // connection.
  static int SeekPart(void* arg, curl_off_t offset, int origin) {
    auto* form = static_cast<FileForm*>(arg);
    if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_CANTSEEK;
    form->offset = static_cast<std::uint64_t>(offset);
    return CURL_SEEKFUNC_OK;
  }

  static HttpAnswer Failed(const std::string& why) {
    HttpAnswer answer;
    answer.error = why;
    return answer;
  }

  HttpAnswer Perform(const std::string& url, std::size_t maxBody, FileForm* form) {
    if (!GlobalInit()) return Failed("libcurl could not be initialised");
    if (!easy_) easy_.reset(curl_easy_init());
    if (!easy_) return Failed("libcurl could not make a handle");
    CURL* h = easy_.get();
    curl_easy_reset(h);

    Exchange exchange;
    exchange.cap = maxBody;
    CurlHeaderList headers;
    CurlHeaderList connectTo;
    const std::string idHeader = "X-Lumetry-Machine-ID: " + settings_.machineId;
    // "Expect:" keeps libcurl from waiting for a 100 answer before the body.
    if (!headers.Append(idHeader.c_str()) || !headers.Append("Expect:")) {
      return Failed("out of memory");
    }
    if (!settings_.connectTo.empty() && !connectTo.Append(settings_.connectTo.c_str())) {
      return Failed("out of memory");
    }

    bool ok = curl_easy_setopt(h, CURLOPT_URL, url.c_str()) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https") == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_HTTP_VERSION,
                                static_cast<long>(CURL_HTTP_VERSION_2TLS)) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L) == CURLE_OK;
    ok = ok &&
         curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, settings_.connectTimeoutMs) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, settings_.totalTimeoutMs) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_USERAGENT, settings_.userAgent.c_str()) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get()) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, OnBody) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_WRITEDATA, &exchange) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, OnHeader) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_HEADERDATA, &exchange) == CURLE_OK;
    if (ok && connectTo.get() != nullptr) {
      ok = curl_easy_setopt(h, CURLOPT_CONNECT_TO, connectTo.get()) == CURLE_OK;
    }
    if (ok && !settings_.caFile.empty()) {
      ok = curl_easy_setopt(h, CURLOPT_CAINFO, settings_.caFile.c_str()) == CURLE_OK;
    }

    CurlMime mime;
    if (ok && form != nullptr) {
      mime.reset(curl_mime_init(h));
      curl_mimepart* part = mime ? curl_mime_addpart(mime.get()) : nullptr;
      ok = part != nullptr && curl_mime_name(part, "file") == CURLE_OK &&
           curl_mime_filename(part, form->name.c_str()) == CURLE_OK &&
           curl_mime_type(part, "application/octet-stream") == CURLE_OK &&
           curl_mime_data_cb(part, static_cast<curl_off_t>(form->body->Size()), ReadPart, SeekPart,
                             nullptr, form) == CURLE_OK &&
           curl_easy_setopt(h, CURLOPT_MIMEPOST, mime.get()) == CURLE_OK;
    }
    if (!ok) return Failed("libcurl refused a setting");

    const CURLcode rc = curl_easy_perform(h);
    HttpAnswer answer;
    long status = 0;
    long sent = 0;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(h, CURLINFO_REQUEST_SIZE, &sent);
    answer.status = status;
    answer.body = std::move(exchange.body);
    answer.bodyTooLarge = exchange.tooLarge;
    answer.retryAfter = std::move(exchange.retryAfter);
    if (rc == CURLE_OK || (rc == CURLE_WRITE_ERROR && exchange.tooLarge && status != 0)) {
      answer.delivery = Delivery::kAnswered;
    } else {
      answer.delivery = sent > 0 ? Delivery::kBroken : Delivery::kUnreachable;
      answer.error = curl_easy_strerror(rc);
    }
    return answer;
  }

  TransportSettings settings_;
  CurlEasy easy_;  // kept for the pass: it holds the open connection
};

}  // namespace

std::unique_ptr<Transport> MakeCurlTransport(const TransportSettings& settings) {
  return std::make_unique<CurlTransport>(settings);
}

}  // namespace Courier
