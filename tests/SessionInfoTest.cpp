// Session-information names: matching, decoding and the per-name decisions
// of the crash run, called in-process under a temporary HOME.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "SessionInfo.h"
#include "TestSupport.h"

using CrashProcessor::CreateCrashLogs;
using CrashProcessor::DeleteSessionFiles;
using CrashProcessor::FindSessionInfoFiles;
using CrashProcessor::ParseSessionInfoName;
using CrashProcessor::SessionInfoRecord;
using testing_support::ListNames;
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
      {"1234_Fam_Name_S1_K1_x_y_Prod.info", kAccepted},
      {"1234__Fam_Name_S1_K1_x_y_Prod.info", kAccepted},
      {"_1234_Fam_Name_S1_K1_x_y_Prod_.info", kAccepted},
      {"1234_Fam_Name_S1_K1_x_y_Prod", kAccepted},
      // Only the last "." starts the extension.
      {"a_b_c_d_e_f_g_Prod.1234.info", {"a", "b", "c", "d", "e", "f", "g", "Prod.1234"}},
      {"a_b_c_d_e_f_g.info", {}},
      {"a_b_c_d_e_f_g_h_i.info", {}},
      {"", {}},
      {".info", {}},
      {"________", {}},
  };
  for (const ParseCase& c : cases) {
    SCOPED_TRACE(c.name);
    const SessionInfoRecord record = ParseSessionInfoName(c.name);
    EXPECT_EQ(record.fileName, c.name);
    if (c.pieces.empty()) {
      EXPECT_EQ(Pieces(record), std::vector<std::string>(8));
    } else {
      EXPECT_EQ(Pieces(record), c.pieces);
    }
  }
}

TEST(ParseSessionInfoName, KeepsBytesThatAreNotUtf8) {
  const std::string name = "1_F\xff_N\xc3_S\x80_K_x_y_P\xfe.info";
  const SessionInfoRecord record = ParseSessionInfoName(name);
  EXPECT_EQ(record.crashProductFamily, "F\xff");
  EXPECT_EQ(record.sessionId, "S\x80");
  EXPECT_EQ(record.processName, "P\xfe");
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

TEST_F(SessionFilesTest, MatchesByBothSubstrings) {
  Plant("1234_Fam_Name_S1_K1_x_y_Prod.info");
  Plant("a_b_c_d_e_f_g_Prod.info");         // no process id
  Plant("9_b_c_d_e_f_g_Other.12345.info");  // no product name
  Plant("x_12345_Prod");                    // "1234" occurs inside "12345"
  Plant(".hidden_Prod_1234");

  std::vector<std::string> names = {"stale"};
  ASSERT_TRUE(FindSessionInfoFiles(home_.Library(), "Prod", "1234", &names));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{".hidden_Prod_1234",
                                             "1234_Fam_Name_S1_K1_x_y_Prod.info", "x_12345_Prod"}));
}

TEST_F(SessionFilesTest, NothingToFind) {
  std::vector<std::string> names = {"stale"};
  // Directory missing.
  EXPECT_FALSE(FindSessionInfoFiles(home_.Library(), "Prod", "1", &names));
  EXPECT_TRUE(names.empty());

  Plant("1_F_N_S_K_x_y_Prod.info");
  EXPECT_FALSE(FindSessionInfoFiles(home_.Library(), "", "1", &names));
  EXPECT_FALSE(FindSessionInfoFiles(home_.Library(), "Prod", "", &names));
  EXPECT_FALSE(FindSessionInfoFiles(home_.Library(), "prod", "1", &names));  // case-sensitive
  EXPECT_TRUE(names.empty());
}

TEST_F(SessionFilesTest, CreateCrashLogsRefusesEmptyInputs) {
  EXPECT_FALSE(CreateCrashLogs("", "Prod", {"1_F_N_S_K_x_y_Prod"}, true));
  EXPECT_FALSE(CreateCrashLogs(LogDir(), "Prod", {}, true));
}

TEST_F(SessionFilesTest, DeleteSessionFilesNeedsADirectory) {
  Plant("a");
  Plant("keep");
  EXPECT_FALSE(DeleteSessionFiles("", {"a"}));
  EXPECT_TRUE(DeleteSessionFiles(SessionDir(), {"a", "missing"}));
  EXPECT_EQ(ListNames(SessionDir()), std::vector<std::string>{"keep"});
}

}  // namespace
