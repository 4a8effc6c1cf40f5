// The real transport, over libcurl: TLS verification always on, redirects
// never followed, bounded connect and total times, capped answer bodies.
// The libcurl calls live in CurlTransport.cpp; this header names none.
#ifndef LUMETRY_UPLOADER_CURLTRANSPORT_H_
#define LUMETRY_UPLOADER_CURLTRANSPORT_H_

#include <memory>
#include <string>

#include "Transport.h"

namespace Courier {

struct TransportSettings {
  std::string userAgent;  // sent as User-Agent
  std::string machineId;  // sent as X-Lumetry-Machine-ID
  std::string connectTo;  // "HOST:PORT:HOST2:PORT2" or "" (curl's --connect-to)
  std::string caFile;     // trusted certificates instead of the system store, or ""
  long connectTimeoutMs = 10000;
  long totalTimeoutMs = 60000;
};

// A transport for the whole pass. Never null; when libcurl cannot be set up
// every request answers kUnreachable.
std::unique_ptr<Transport> MakeCurlTransport(const TransportSettings& settings);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_CURLTRANSPORT_H_
