// Session-information names: matching, decoding and the refusals
// the crash run cannot reach, called in-process under a temporary HOME.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "SessionInfo.h"
#include "TestSupport.h"

using CrashProcessor::CreateCrashLogs;
using CrashProcessor::FindSessionInfoFiles;
using CrashProcessor::ParseSessionInfoName;
using CrashProcessor::SessionInfoRecord;
using testing_support::ScopedHome;
using testing_support::WriteFile;

namespace {

struct ParseCase {
  std::string name;
  std::vector<std::string> pieces;  // empty: every field stays empty
};

std::vector<std::string> Pieces(const SessionInfoRecord& r) {
  return {r.field1, r.crashProductFamily, r.crashProductName, r.sessionId, r.logNameKey, r.field6,
          r.field7, r.processName};
}

TEST(ParseSessionInfoName, DecodesEightPiecesOrNothing) {
  const std::vector<std::string> kAccepted = {"1234", "Fam", "Name", "S1", "K1", "x", "y", "Prod"};
  const std::vector<ParseCase> cases = {
      {"1234__Fam_Name_S1_K1_x_y_Prod.info", kAccepted},
      {"_1234_Fam_Name_S1_K1_x_y_Prod_.info", kAccepted},
      {"1234_Fam_Name_S1_K1_x_y_Prod", kAccepted},
      {"", {}},
      {".info", {}},
      {"________", {}},
  };
  for (const ParseCase& c : cases) {
    SCOPED_TRACE(c.name);
    const SessionInfoRecord record = ParseSessionInfoName(c.name);
    EXPECT_EQ(record.fileName, c.name);
    EXPECT_EQ(Pieces(record), c.pieces.empty() ? std::vector<std::string>(8) : c.pieces);
  }
}

class SessionFilesTest : public ::testing::Test {
 protected:
  std::string SessionDir() const {
    return home_.Library() + "/Logs/Quorvik/LumetryQX/SessionInfo/";
  }
  std::string LogDir() const { return home_.Library() + "/Logs/Quorvik/LogCourier2QX/"; }
  void Plant(const std::string& name) { ASSERT_TRUE(WriteFile(SessionDir() + name, "")); }

  ScopedHome home_;
};

// Which pids and process names match is pinned end to end by the crash run;
// here the missing directory, case, hidden names and the cleared output.
TEST_F(SessionFilesTest, FindsNamesHoldingBothSubstrings) {
  std::vector<std::string> names = {"stale"};
  EXPECT_FALSE(FindSessionInfoFiles(home_.Library(), "Prod", "1", &names));  // no directory
  EXPECT_TRUE(names.empty());
  Plant("1234_Fam_Name_S1_K1_x_y_Prod.info");
  Plant(".hidden_Prod_1234");
  names = {"stale"};
  EXPECT_FALSE(FindSessionInfoFiles(home_.Library(), "prod", "1234", &names));  // case-sensitive
  EXPECT_TRUE(names.empty());
  names = {"stale"};
  ASSERT_TRUE(FindSessionInfoFiles(home_.Library(), "Prod", "1234", &names));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names,
            (std::vector<std::string>{".hidden_Prod_1234", "1234_Fam_Name_S1_K1_x_y_Prod.info"}));
}

TEST_F(SessionFilesTest, CreateCrashLogsRefusesEmptyInputs) {
  EXPECT_FALSE(CreateCrashLogs("", "Prod", {"1_F_N_S_K_x_y_Prod"}, true));
  EXPECT_FALSE(CreateCrashLogs(LogDir(), "Prod", {}, true));
}

}  // namespace
