// Passes of the uploader library against a real HTTPS server: the privacy
// switches and the server's status that keep it from sending, configuration
// and policy answers, and the address checks.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "CourierPassFixture.h"
#include "Mac/LogCourUtilsMac.h"
#include "UploaderConfig.h"

namespace {

using namespace courier_test;

TEST_F(PassTest, NothingIsSentWhileAnySwitchSaysNo) {
  struct Case {
    std::string what;
    std::string config;
    std::function<bool()> set;
  };
  const auto user = PrefUser::kCurrentUser;
  const auto here = PrefHost::kCurrentHost;
  const std::vector<Case> cases = {
      {"send 0", "", [&] { return SetPreferenceNumber("send", kDomain, 0, user, here); }},
      {"optin 0", "",
       [&] {
         return SetPreferenceString("PersonGUID", kDomain, "P-7", user, here) &&
                SetPreferenceDictionaryNumber("P-7", "optin", kDomain, 0, user, here);
       }},
      {"Enabled 0", "",
       [&] {
         return SetPreferenceNumber("Enabled", "com.quorvik.lumetry.apipqx", 0, PrefUser::kAnyUser,
                                    here);
       }},
      {"Kill", "[ulog]\nstatus=Kill\n", [] { return true; }},
      {"Hibernate until tomorrow", "[ulog]\nstatus=Hibernate\nwakeupdate=2999-01-01\n",
       [] { return true; }},
  };
  AddLog("ulog_A_B_k_0.rdy", "x");
  for (const Case& c : cases) {
    ts::ScopedTempDir system;  // a fresh any-user store per case
    systemPrefs_.Set(system.path());
    ::unlink(PreferenceFilePath(kDomain, user, here).c_str());  // the user's switches back on
    SetConfig(c.config);
    ASSERT_TRUE(c.set()) << c.what;
    const PassSummary summary = Run();
    EXPECT_EQ(0, summary.requests) << c.what;
    EXPECT_FALSE(summary.quietReason.empty()) << c.what;
    EXPECT_TRUE(InSpool("ulog_A_B_k_0.rdy")) << c.what;
    EXPECT_TRUE(server_.Requests().empty()) << c.what;
    systemPrefs_.Set(system_.path());
  }
}

TEST_F(PassTest, PausesEndOnTheirDateAndItemPausesHoldTheirFilesOnly) {
  // A pause that ended yesterday: the pass goes on and the file forgets it.
  SetConfig(
      "[ulog]\nstatus=Hibernate\nwakeupdate=2001-01-01\n"
      "[hibernate]\nlumetryqx_appcrash=x|2999-01-01\nold_item=x|2001-01-01\n");
  AddLog("ulog_LumetryQX_AppCrash_K_1_0.rdy", "paused item");
  AddLog("ulog_Old_Item_K_1_0.rdy", "pause over");
  AddLog("ulog_Other_Thing_K_1_0.rdy", "never paused");
  const PassSummary summary = Run();
  EXPECT_EQ(1, summary.paused);
  EXPECT_EQ((std::vector<std::string>{"ulog_Old_Item_K_1_0.rdy", "ulog_Other_Thing_K_1_0.rdy"}),
            server_.Uploaded());
  EXPECT_TRUE(InSpool("ulog_LumetryQX_AppCrash_K_1_0.rdy"));
  const std::string config = Config();
  EXPECT_NE(std::string::npos, config.find("status=Active")) << config;
  EXPECT_EQ(std::string::npos, config.find("wakeupdate")) << config;
  EXPECT_EQ(std::string::npos, config.find("old_item")) << config;
  EXPECT_NE(std::string::npos, config.find("lumetryqx_appcrash=x|2999-01-01")) << config;
}

TEST_F(PassTest, ConfigurationAnswersAreMergedReplacedOrIgnored) {
  struct Case {
    std::string answer;
    std::vector<std::string> present;  // lines expected in the saved file
    std::vector<std::string> absent;
    std::string base;  // where the pass goes on; "" for no request after the answer
  };
  const std::string big = "[settings]\\nmaxretries=4\\n#" + std::string(70000, 'p');
  const std::string on = "/lumetry/";
  const std::vector<Case> cases = {
      {R"({"status": 200, "body": "[settings]\noperation=Merge\nmaxretries=4\n"})",
       {"maxretries=4", "maxdiskspace=10", "operation=Merge"},
       {"maxretries=3"},
       on},
      {R"({"status": 200, "body": "[settings]\nurl=https://lumetry.quorvik.com/lumetry\n"})",
       {"url=https://lumetry.quorvik.com/lumetry"},
       {"maxdiskspace", "maxretries"},
       on},
      // A new server address is used in the same pass.
      {R"({"status": 200, "body": "[settings]\noperation=Merge\nurl=https://up.quorvik.com/o\n"})",
       {"url=https://up.quorvik.com/o"},
       {},
       "/o/"},
      // A Kill or Hibernate received in the pass ends every further request.
      {R"({"status": 200, "body": "[ulog]\nstatus=Kill\n"})", {"status=Kill"}, {}, ""},
      {R"({"status": 200, "body": "[ulog]\nstatus=Hibernate\nwakeupdate=2999-01-01\n"})",
       {"status=Hibernate"},
       {},
       ""},
      {"{\"status\": 200, \"body\": \"" + big + "\"}", {"maxretries=3"}, {"maxretries=4"}, on},
      {R"({"status": 500, "body": "[settings]\nmaxretries=4\n"})", {"maxretries=3"}, {}, on},
      {R"({"status": 200, "body": "\u0001\u0002[\u00ff=\n=\n[]"})", {}, {}, on},
  };
  for (const Case& c : cases) {
    SetConfig("");
    AddLog("ulog_A_B_k_0.rdy", "x");
    Script(Answers(kConfig, c.answer));
    std::vector<std::string> lines = server_.RequestLines();
    const std::size_t before = lines.size();
    EXPECT_TRUE(Run().ran);
    const std::string config = Config();
    for (const auto& line : c.present) EXPECT_NE(std::string::npos, config.find(line)) << config;
    for (const auto& line : c.absent) EXPECT_EQ(std::string::npos, config.find(line)) << config;
    EXPECT_EQ(c.base.empty(), InSpool("ulog_A_B_k_0.rdy")) << c.answer;
    std::vector<std::string> expected = {"GET " + kConfig};
    if (!c.base.empty()) {
      expected.push_back("GET " + c.base + "GetTarvix/");
      expected.push_back("POST " + c.base + "UploadFile/");
    }
    lines = server_.RequestLines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    EXPECT_EQ(expected, lines) << c.answer;
  }
}

TEST_F(PassTest, PolicyFileIsReplacedWholeOrLeftAlone) {
  const std::string path = GetTarvixPolicyPath();
  const std::string policy = "<policy>one</policy>\n";
  // The answer and the policy file afterwards.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"status": 200, "body": "<policy>one</policy>\n"})", policy},
      {R"({"status": 204})", policy},
      {R"({"status": 404})", policy},
      {R"({"status": 500, "body": "broken"})", policy},
      {R"({"status": 200, "body_size": 1048577})", policy},  // one byte over the cap
      {R"({"action": "close"})", policy},
      {R"({"status": 200, "body_size": 1048576})", std::string(1048576, 'x')},
  };
  for (const auto& [answer, expected] : cases) {
    Script(Answers(kPolicy, answer));
    Run();
    std::string stored;
    EXPECT_TRUE(ts::ReadFile(path, &stored)) << answer;
    EXPECT_TRUE(stored == expected) << answer << " gave " << stored.size() << " bytes";
    // Written through a temporary file that is renamed: none is left behind.
    EXPECT_EQ(std::vector<std::string>{"tarvix_policy.xml"},
              ts::ListNames(path.substr(0, path.rfind('/'))));
  }
}

TEST_F(PassTest, NoRequestLeavesForARefusedAddressOrAnUntrustedServer) {
  const std::string sneaky = "https://evil.example.org/x?https://a.quorvik.com/";
  ASSERT_TRUE(Uploader::IsAllowedServerUrl(sneaky));  // the unanchored patterns let it by
  SetConfig("[settings]\nurl=" + sneaky + "\n");
  AddLog("ulog_A_B_k_0.rdy", "x");
  PassSummary summary = Run();
  EXPECT_EQ(0, summary.requests);
  EXPECT_NE(std::string::npos, summary.quietReason.find("not allowed")) << summary.quietReason;

  SetConfig("");
  summary = Run(0, false, ts::SharedCertificates().otherCaFile);
  EXPECT_EQ(1, summary.requests);  // the configuration request fails its handshake: no more
  EXPECT_TRUE(server_.Requests().empty());
  EXPECT_TRUE(InSpool("ulog_A_B_k_0.rdy"));
  EXPECT_EQ(0u, Failures("ulog_A_B_k_0.rdy"));

  server_.Stop();  // the server is down: one refused connection ends the pass
  summary = Run();
  EXPECT_EQ(1, summary.requests);
  EXPECT_NE(std::string::npos, summary.stopReason.find("cannot be reached"));
  EXPECT_TRUE(InSpool("ulog_A_B_k_0.rdy"));
  EXPECT_EQ(0u, Failures("ulog_A_B_k_0.rdy"));
}

}  // namespace
