// The uploader tests' HTTPS server; see CourierTestServer.h.
#include "CourierTestServer.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

extern char** environ;

namespace testing_support {
namespace {

bool MakeCertificates(const std::string& dir, TestCertificates* certs) {
  certs->caFile = dir + "/ca.pem";
  certs->otherCaFile = dir + "/other-ca.pem";
  certs->certFile = dir + "/server.pem";
  certs->keyFile = dir + "/server.key";
  const std::string req = std::string(OPENSSL_PROGRAM) +
                          " req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout ";
  const std::string ca =
      " -days 3 -addext basicConstraints=critical,CA:TRUE"
      " -addext keyUsage=critical,keyCertSign";
  const std::string commands[] = {
      req + dir + "/ca.key -x509 -out " + certs->caFile + " -subj /CN=Courier-Test-CA" + ca,
      req + dir + "/other-ca.key -x509 -out " + certs->otherCaFile + " -subj /CN=Other-CA" + ca,
      req + certs->keyFile + " -out " + dir + "/server.csr -subj /CN=lumetry.quorvik.com",
      std::string(OPENSSL_PROGRAM) + " x509 -req -in " + dir + "/server.csr -CA " + certs->caFile +
          " -CAkey " + dir + "/ca.key -CAcreateserial -days 3 -out " + certs->certFile +
          " -extfile " + dir + "/server.ext"};
  if (!WriteFile(dir + "/server.ext",
                 "subjectAltName=DNS:quorvik.com,DNS:*.quorvik.com\n"
                 "extendedKeyUsage=serverAuth\n")) {
    return false;
  }
  for (const std::string& command : commands) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0) return false;
  }
  return true;
}

}  // namespace

const TestCertificates& SharedCertificates() {
  static ScopedTempDir* dir = new ScopedTempDir();  // lives as long as the process
  static const TestCertificates certs = [] {
    TestCertificates made;
    made.ok = MakeCertificates(dir->path(), &made);
    return made;
  }();
  return certs;
}

CourierTestServer::~CourierTestServer() { Stop(); }

bool CourierTestServer::Start() {
  const TestCertificates& certs = SharedCertificates();
  if (!certs.ok || pid_ > 0) return false;
  std::vector<std::string> args = {
      PYTHON_PROGRAM, COURIER_SERVER_SCRIPT, "--cert",     certs.certFile, "--key", certs.keyFile,
      "--dir",        dir_.path(),           "--lifetime", "120"};
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  if (::posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
    pid_ = -1;
    return false;
  }
  std::string text;
  int status = 0;
  for (int i = 0; i < 300 && ::waitpid(pid_, &status, WNOHANG) == 0; ++i) {  // at most 15 s
    if (ReadFile(dir_.Sub("port"), &text) && !text.empty()) {
      port_ = std::atoi(text.c_str());
      return port_ > 0;
    }
    ::usleep(50000);
  }
  return false;
}

void CourierTestServer::Stop() {
  if (pid_ <= 0) return;
  // Each request is on disk before it is answered: nothing is lost.
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

bool CourierTestServer::Script(const std::string& json) const {
  const std::string path = dir_.Sub("script.json");
  return WriteFile(path + ".tmp", json) && std::rename((path + ".tmp").c_str(), path.c_str()) == 0;
}

std::vector<RecordedRequest> CourierTestServer::Requests() const {
  std::vector<RecordedRequest> requests;
  for (const std::string& name : ListNames(dir_.Sub("requests"))) {
    const std::string base = dir_.Sub("requests/" + name.substr(0, name.find('.')));
    std::string head;
    RecordedRequest request;
    if (name.find(".head") == std::string::npos || !ReadFile(base + ".head", &head) ||
        !ReadFile(base + ".body", &request.body)) {
      continue;
    }
    std::istringstream lines(head);
    std::getline(lines, request.method, ' ');
    std::getline(lines, request.path);
    for (std::string line; std::getline(lines, line);) {
      const auto colon = line.find(": ");
      if (colon != std::string::npos)
        request.headers[line.substr(0, colon)] = line.substr(colon + 2);
    }
    requests.push_back(std::move(request));
  }
  return requests;
}

std::vector<std::string> CourierTestServer::RequestLines() const {
  std::vector<std::string> lines;
  for (const RecordedRequest& r : Requests()) lines.push_back(r.method + " " + r.path);
  return lines;
}

std::vector<std::string> CourierTestServer::Uploaded() const {
  std::vector<std::string> names;
  const std::string key = "filename=\"";
  for (const RecordedRequest& r : Requests()) {
    const auto at = r.body.find(key);
    if (r.method == "POST" && at != std::string::npos) {
      names.push_back(
          r.body.substr(at + key.size(), r.body.find('"', at + key.size()) - at - key.size()));
    }
  }
  return names;
}

}  // namespace testing_support
