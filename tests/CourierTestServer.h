// The uploader tests' HTTPS server (courier_test_server.py) on a loopback port,
// with a certificate for the maker's hosts from a test CA; tests script its
// answers and read back what it received. Killed with the object.
#ifndef LUMETRY_TESTS_COURIERTESTSERVER_H_
#define LUMETRY_TESTS_COURIERTESTSERVER_H_

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace testing_support {

// Certificates made once per test process.
struct TestCertificates {
  std::string caFile;       // the CA that signed the server's certificate
  std::string otherCaFile;  // a CA that signed nothing the server shows
  std::string certFile;     // server certificate for quorvik.com and *.quorvik.com
  std::string keyFile;
  bool ok = false;
};
const TestCertificates& SharedCertificates();

struct RecordedRequest {
  std::string method;
  std::string path;
  std::map<std::string, std::string> headers;  // names lower-cased
  std::string body;
};

class CourierTestServer {
 public:
  CourierTestServer() = default;
  ~CourierTestServer();
  CourierTestServer(const CourierTestServer&) = delete;
  CourierTestServer& operator=(const CourierTestServer&) = delete;

  // Starts the server and waits (at most 15 s) for its port. False on failure.
  bool Start();
  // Kills the server and reaps it.
  void Stop();

  // "--connect-to" values for requests to any host, or to the default address.
  std::string ConnectTo() const { return "::127.0.0.1:" + std::to_string(port_); }
  std::string ConnectToDefault() const {
    return "lumetry.quorvik.com:443:127.0.0.1:" + std::to_string(port_);
  }
  // Replaces the answer script (see courier_test_server.py for its form).
  bool Script(const std::string& json) const;
  // Every request received so far, in order.
  std::vector<RecordedRequest> Requests() const;
  // "METHOD PATH" of each of Requests().
  std::vector<std::string> RequestLines() const;
  // The "filename" of each multipart upload received, in order.
  std::vector<std::string> Uploaded() const;

 private:
  ScopedTempDir dir_;
  pid_t pid_ = -1;
  int port_ = 0;
};

}  // namespace testing_support

#endif  // LUMETRY_TESTS_COURIERTESTSERVER_H_
