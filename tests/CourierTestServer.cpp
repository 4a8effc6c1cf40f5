// The uploader tests' HTTPS server; see CourierTestServer.h.
#include "CourierTestServer.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

extern char** environ;

namespace testing_support {
namespace {

bool Shell(const std::string& command) { return std::system(command.c_str()) == 0; }

bool MakeCertificates(const std::string& dir, TestCertificates* certs) {
  const std::string ssl = std::string(OPENSSL_PROGRAM);
  const std::string ec = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
  const std::string quiet = " >/dev/null 2>&1";
  certs->caFile = dir + "/ca.pem";
  certs->otherCaFile = dir + "/other-ca.pem";
  certs->certFile = dir + "/server.pem";
  certs->keyFile = dir + "/server.key";
  const std::string ca_ext =
      " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign";
  if (!WriteFile(dir + "/server.ext",
                 "subjectAltName=DNS:quorvik.com,DNS:*.quorvik.com\n"
                 "extendedKeyUsage=serverAuth\n")) {
    return false;
  }
  return Shell(ssl + " req -x509" + ec + " -keyout " + dir + "/ca.key -out " + certs->caFile +
               " -days 3 -subj /CN=Courier-Test-CA" + ca_ext + quiet) &&
         Shell(ssl + " req -x509" + ec + " -keyout " + dir + "/other-ca.key -out " +
               certs->otherCaFile + " -days 3 -subj /CN=Other-Test-CA" + ca_ext + quiet) &&
         Shell(ssl + " req" + ec + " -keyout " + certs->keyFile + " -out " + dir +
               "/server.csr -subj /CN=lumetry.quorvik.com" + quiet) &&
         Shell(ssl + " x509 -req -in " + dir + "/server.csr -CA " + certs->caFile + " -CAkey " +
               dir + "/ca.key -CAcreateserial -days 3 -out " + certs->certFile + " -extfile " +
               dir + "/server.ext" + quiet);
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
  for (int i = 0; i < 300; ++i) {  // at most 15 s
    if (ReadFile(dir_.Sub("port"), &text) && !text.empty()) {
      port_ = std::atoi(text.c_str());
      return port_ > 0;
    }
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

void CourierTestServer::Stop() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  int status = 0;
  for (int i = 0; i < 100; ++i) {  // at most 5 s
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
}

std::string CourierTestServer::ConnectTo() const { return "::127.0.0.1:" + std::to_string(port_); }

std::string CourierTestServer::ConnectToDefault() const {
  return "lumetry.quorvik.com:443:127.0.0.1:" + std::to_string(port_);
}

bool CourierTestServer::Script(const std::string& json) const {
  const std::string path = dir_.Sub("script.json");
  return WriteFile(path + ".tmp", json) && std::rename((path + ".tmp").c_str(), path.c_str()) == 0;
}

std::vector<RecordedRequest> CourierTestServer::Requests() const {
  std::vector<RecordedRequest> requests;
  for (const std::string& name : ListNames(dir_.Sub("requests"))) {
    if (name.size() < 5 || name.compare(name.size() - 5, 5, ".head") != 0) continue;
    const std::string base = dir_.Sub("requests/" + name.substr(0, name.size() - 5));
    std::string head;
    RecordedRequest request;
    if (!ReadFile(base + ".head", &head) || !ReadFile(base + ".body", &request.body)) continue;
    std::size_t start = 0;
    for (bool first = true; start < head.size(); first = false) {
      std::size_t end = head.find('\n', start);
      if (end == std::string::npos) end = head.size();
      const std::string line = head.substr(start, end - start);
      start = end + 1;
      if (first) {
        const auto space = line.find(' ');
        request.method = line.substr(0, space);
        request.path = space == std::string::npos ? "" : line.substr(space + 1);
        continue;
      }
      const auto colon = line.find(": ");
      if (colon == std::string::npos) continue;
      std::string key = line.substr(0, colon);
      std::transform(key.begin(), key.end(), key.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      request.headers[key] = line.substr(colon + 2);
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

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20) {
      char buffer[8];
      const int n = std::snprintf(buffer, sizeof buffer, "\\u%04x", byte);
      out.append(buffer, static_cast<std::size_t>(n));
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string UploadedFileName(const RecordedRequest& request) {
  const std::string key = "filename=\"";
  const auto at = request.body.find(key);
  if (at == std::string::npos) return "";
  const auto end = request.body.find('"', at + key.size());
  return end == std::string::npos ? ""
                                  : request.body.substr(at + key.size(), end - at - key.size());
}

}  // namespace testing_support
