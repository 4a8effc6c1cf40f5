// Session-information names: matching, decoding and the refusals
// the crash run cannot reach, called in-process under a temporary HOME.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SessionInfo.h"

using CrashProcessor::CreateCrashLogs;
using CrashProcessor::FindSessionInfoFiles;
using CrashProcessor::ParseSessionInfoName;
using CrashProcessor::SessionInfoRecord;

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

// Which names match is pinned end to end by the crash run; here the cleared
// output and the refusals it cannot reach.
TEST(SessionFiles, ClearsTheOutputAndRefusesEmptyInputs) {
  std::vector<std::string> names = {"stale"};
  EXPECT_FALSE(FindSessionInfoFiles("/nonexistent", "Prod", "1", &names));
  EXPECT_TRUE(names.empty());
  EXPECT_FALSE(CreateCrashLogs("", "Prod", {"1_F_N_S_K_x_y_Prod"}, true));
  EXPECT_FALSE(CreateCrashLogs("/nonexistent/", "Prod", {}, true));
}

}  // namespace
