// The uploader's pieces on their own: the strict address check, Retry-After,
// what an upload answer means, usage-log names and the attempt ledger's file.
// The command line is driven through the built program in UploaderCliTest.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "AttemptLedger.h"
#include "RetryAfter.h"
#include "ServerAddress.h"
#include "SpoolScan.h"
#include "TestSupport.h"
#include "Uploads.h"

namespace {

namespace ts = testing_support;
using namespace Courier;

TEST(ServerAddressTest, OnlyTheMakersHttpsHostsAndLocalHttp) {
  const std::vector<std::pair<std::string, bool>> cases = {
      {"https://lumetry.quorvik.com/lumetry", true},
      {"https://a.b.quorvik.com/x/", true},
      {"https://a.quorvik.com:8443/x/", false},  // the patterns want the path after the domain
      {"https://LUMETRY.Quorvik.COM/lumetry?https://a.quorvik.com/", true},
      {"http://localhost/lumetry", true},
      {"http://lumetry.quorvik.com/lumetry", false},  // plain http only to localhost
      {"https://localhost/lumetry?https://a.quorvik.com/", false},
      {"https://evil.org/x?https://a.quorvik.com/", false},
      {"https://quorvik.com.evil.org/?https://a.quorvik.com/", false},
      {"https://evilquorvik.com/?https://a.quorvik.com/", false},
      {"https://user@a.quorvik.com/", false},
      {"https://user:pw@a.quorvik.com/", false},
      {"ftp://a.quorvik.com/?https://a.quorvik.com/", false},
      {"xhttps://a.quorvik.com/", false},
      {"https://a.quorvik.com", false},  // the configuration's patterns want a path
      {"", false},
      {"https://[::1]/?https://a.quorvik.com/", false},
  };
  for (const auto& [url, allowed] : cases) EXPECT_EQ(allowed, IsStrictServerUrl(url)) << url;
}

TEST(RetryAfterTest, SecondsOrHttpDateCapped) {
  const std::int64_t now = 1700000000;  // Tue, 14 Nov 2023 22:13:20 GMT
  // "120" and an IMF date are taken across passes in UploaderPassTest.
  const std::vector<std::tuple<std::string, bool, std::int64_t>> cases = {
      {"0", true, now},
      {"99999999999999999999999", true, now + kMaxRetryAfterSeconds},
      {"Tuesday, 14-Nov-23 22:15:20 GMT", true, now + 120},
      {"Tue, 14 Nov 2023 22:00:00 GMT", true, now},  // already past
      {"Tue, 14 Nov 2033 22:00:00 GMT", true, now + kMaxRetryAfterSeconds},
      {"", false, -1},
      {"-5", false, -1},
      {"soon", false, -1},
  };
  for (const auto& [value, ok, expected] : cases) {
    std::int64_t until = -1;
    EXPECT_EQ(ok, RetryAfterUntil(value, now, &until)) << value;
    EXPECT_EQ(expected, until) << value;
  }
}

TEST(UploadRulesTest, StatusVerdictsAndItemNames) {
  // The common answers go through a real server in UploaderPassTest.
  const std::vector<std::pair<long, UploadVerdict>> verdicts = {
      {201, UploadVerdict::kAccepted}, {204, UploadVerdict::kAccepted},
      {299, UploadVerdict::kAccepted}, {304, UploadVerdict::kRetry},
      {503, UploadVerdict::kRetry},    {599, UploadVerdict::kRetry},
      {100, UploadVerdict::kRetry},    {0, UploadVerdict::kRetry},
      {700, UploadVerdict::kRetry},    {401, UploadVerdict::kRefused},
      {404, UploadVerdict::kRefused},  {413, UploadVerdict::kRefused},
      {499, UploadVerdict::kRefused},
  };
  for (const auto& [status, verdict] : verdicts) {
    EXPECT_EQ(verdict, VerdictForStatus(status)) << status;
  }

  const std::vector<std::tuple<std::string, bool, std::string, std::string>> items = {
      {"ulog_LumetryQX_AppCrash_K7F3_S1_0.rdy", true, "LumetryQX", "AppCrash"},
      {"ulog_A__x.xml", true, "A", ""},
      {"ulog_A_B.xml", false, "", ""},
      {"ulog.xml", false, "", ""},
  };
  for (const auto& [name, ok, family, item] : items) {
    std::string f;
    std::string i;
    EXPECT_EQ(ok, ItemOfName(name, &f, &i)) << name;
    EXPECT_EQ(family, f) << name;
    EXPECT_EQ(item, i) << name;
  }

  const std::vector<std::pair<std::string, bool>> names = {
      {"ulog_a.rdy", true},   {"ulog_LumetryQX_AppCrash_k_1_0.xml", true},
      {"ulog_.rdy", false},   {"ulog_a.rdy.tmp", false},
      {"ulog_a.txt", false},  {"xulog_a.rdy", false},
      {"Ulog_a.rdy", false},  {"ulog_a\nb.rdy", false},
      {".ulog_a.rdy", false}, {"ulog_a.RDY", false},
  };
  for (const auto& [name, ok] : names) EXPECT_EQ(ok, IsUsageLogName(name)) << name;
}

// Counting across passes and reading the file back are pinned by the pass
// tests; here, what the file holds.
TEST(AttemptLedgerTest, WritesOnlyWhenChangedAndKeepsOnlyWhatIsAsked) {
  ts::ScopedTempDir dir;
  const std::string path = dir.Sub("ledger");
  AttemptLedger ledger = AttemptLedger::Load(path);  // no file yet
  EXPECT_TRUE(ledger.SaveIfChanged());
  EXPECT_FALSE(ts::PathExists(path));  // nothing changed, nothing written
  EXPECT_EQ(1u, ledger.RecordFailure("ulog_a_b_1.rdy", 100));
  EXPECT_EQ(2u, ledger.RecordFailure("ulog_a_b_1.rdy", 200));
  ledger.RecordFailure("ulog_c d_e.xml", 300);  // blanks in a name are fine
  ledger.RecordFailure("ulog_gone.xml", 50);
  ledger.SetNotBefore(12345);
  ledger.KeepOnly({"ulog_a_b_1.rdy", "ulog_c d_e.xml"});
  ASSERT_TRUE(ledger.SaveIfChanged());
  EXPECT_EQ("notbefore 12345\n2 200 ulog_a_b_1.rdy\n1 300 ulog_c d_e.xml\n", ts::Contents(path));
  const AttemptLedger again = AttemptLedger::Load(path);
  ASSERT_NE(nullptr, again.Find("ulog_c d_e.xml"));
  EXPECT_EQ(300, again.Find("ulog_c d_e.xml")->lastFailure);
  EXPECT_FALSE(again.changed());
}

TEST(AttemptLedgerTest, DamagedOrHugeFilesReadAsWhatIsUsable) {
  ts::ScopedTempDir dir;
  const std::vector<std::pair<std::string, std::size_t>> cases = {
      {"3 10 ulog_a.rdy", 1},      // no final line feed
      {"3 10 ulog_a.rdy\r\n", 0},  // "ulog_a.rdy\r" is no usage-log name
      {"x 10 ulog_a.rdy\n-1 10 ulog_b.rdy\n", 0},
      {"3 x ulog_a.rdy\n3  ulog_b.rdy\n", 0},
      {"4294967296 1 ulog_a.rdy\n", 0},  // beyond 32 bits
      {"3 10 not_a_log\n3 10\n3\n\n", 0},
      {std::string(std::size_t{2} * 1024 * 1024, '\n') + "3 10 ulog_a.rdy\n",
       0},  // over the size cap
  };
  for (const auto& [text, records] : cases) {  // other damage: UploaderPassTest
    ASSERT_TRUE(ts::WriteFile(dir.Sub("ledger"), text));
    const AttemptLedger ledger = AttemptLedger::Load(dir.Sub("ledger"));
    const std::string saved = ledger.Serialize();
    EXPECT_EQ(records, static_cast<std::size_t>(std::count(saved.begin(), saved.end(), '\n')))
        << saved;
  }
  // Too many records: the most recent failures are kept, within the cap.
  std::string many;
  for (std::size_t i = 0; i < AttemptLedger::kMaxEntries + 10; ++i) {
    many += "1 " + std::to_string(1000 + i) + " ulog_" + std::to_string(100000 + i) + ".rdy\n";
  }
  ASSERT_TRUE(ts::WriteFile(dir.Sub("ledger"), many));
  AttemptLedger ledger = AttemptLedger::Load(dir.Sub("ledger"));
  ledger.RecordFailure("ulog_fresh.rdy", 999999);
  const std::string saved = ledger.Serialize();
  EXPECT_EQ(AttemptLedger::kMaxEntries,
            static_cast<std::size_t>(std::count(saved.begin(), saved.end(), '\n')));
  EXPECT_NE(std::string::npos, saved.find("ulog_fresh.rdy"));
  EXPECT_EQ(std::string::npos, saved.find("ulog_100000.rdy"));
}

}  // namespace
