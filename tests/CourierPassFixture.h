// The fixture of the uploader's pass tests: a temporary home with a spool and
// a configuration file, the HTTPS test server, and passes of the library
// pointed at that server with a fixed clock when asked.
#ifndef LUMETRY_TESTS_COURIERPASSFIXTURE_H_
#define LUMETRY_TESTS_COURIERPASSFIXTURE_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <string>

#include "AttemptLedger.h"
#include "CourierTestServer.h"
#include "CurlTransport.h"
#include "Pass.h"
#include "Preferences.h"
#include "Reporter.h"
#include "TestSupport.h"

namespace courier_test {

namespace ts = testing_support;
using Courier::PassSummary;

inline const std::string kDomain = "com.quorvik.lumetryqx";
inline const std::string kDefaults =
    "[settings]\nmaxdiskspace=10\nmaxretries=3\nretryinterval=10\n"
    "url=https://lumetry.quorvik.com/lumetry\n[ulog]\nstatus=Active\n";
inline const std::string kUpload = "/lumetry/UploadFile/";
inline const std::string kConfig = "/lumetry/GetConfig/";
inline const std::string kPolicy = "/lumetry/GetTarvix/";

inline std::string Answers(const std::string& path, const std::string& answers) {
  return "\"" + path + "\": [" + answers + "]";
}

class PassTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.Start());
    spool_ = home_.Library() + "/Logs/Quorvik/LogCourier2QX";
    ASSERT_TRUE(ts::MakeDirs(spool_));
    configDir_ = home_.Library() + "/Application Support/Quorvik/LogCourier2QX";
    SetConfig("");
  }

  void SetConfig(const std::string& extra) {
    ASSERT_TRUE(ts::WriteFile(configDir_ + "/LogCourier2.cfg", kDefaults + extra));
  }
  std::string Config() const { return ts::Contents(configDir_ + "/LogCourier2.cfg"); }
  void Script(const std::string& body) { ASSERT_TRUE(server_.Script("{" + body + "}")); }

  // A usage log `age` seconds old (by modification time).
  std::string AddLog(const std::string& name, const std::string& bytes, int age = 600) {
    std::string path = spool_ + "/" + name;
    EXPECT_TRUE(ts::WriteFile(path, bytes));
    struct timespec times[2];
    times[0].tv_sec = times[1].tv_sec = std::time(nullptr) - age;
    times[0].tv_nsec = times[1].tv_nsec = 0;
    EXPECT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0));
    return path;
  }
  bool InSpool(const std::string& name) const { return ts::PathExists(spool_ + "/" + name); }

  PassSummary Run(std::int64_t now = 0, bool dryRun = false, std::string caFile = "",
                  long totalMs = 20000) {
    Courier::PassSettings settings;
    settings.dryRun = dryRun;
    if (now != 0) settings.clock = [now] { return now; };
    if (caFile.empty()) caFile = ts::SharedCertificates().caFile;
    settings.makeTransport = [this, caFile, totalMs] {
      Courier::TransportSettings transport;
      transport.userAgent = "LogCourier2/test (Linux)";
      transport.machineId = "TEST-MACHINE";
      transport.connectTo = server_.ConnectTo();
      transport.caFile = caFile;
      transport.connectTimeoutMs = 5000;
      transport.totalTimeoutMs = totalMs;
      return Courier::MakeCurlTransport(transport);
    };
    Courier::Reporter report(false, nullptr);
    return Courier::RunPass(settings, report);
  }

  // The failed attempts counted for `name` (0 when it has no record).
  std::uint32_t Failures(const std::string& name) const {
    const auto ledger = Courier::AttemptLedger::Load(configDir_ + "/LogCourier2.attempts");
    const Courier::Attempts* attempts = ledger.Find(name);
    return attempts == nullptr ? 0 : attempts->failures;
  }

  ts::ScopedHome home_;
  ts::ScopedTempDir system_;
  const ts::ScopedOverride systemPrefs_{&SetSystemPreferencesDirForTesting, system_.path()};
  ts::CourierTestServer server_;
  std::string spool_;
  std::string configDir_;
};

}  // namespace courier_test

#endif  // LUMETRY_TESTS_COURIERPASSFIXTURE_H_
