// Drives the built lumetry-defaults as an operator would, under a temporary
// HOME and a temporary any-user directory: every verb in every scope, and
// round trips of every value kind with property lists written and read by
// Python's plistlib (an independent implementation of the file format).
#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <tuple>
#include <vector>

#include "TestSupport.h"

namespace {

namespace ts = testing_support;

const std::string kTool = std::string(TOOLS_DIR) + "/lumetry-defaults";
const std::string kPython = "/usr/bin/python3";
const std::string kDomain = "com.quorvik.test";

// The values every round trip carries, as JSON in the form Stored() gives.
const std::string kSample =
    R"({"arr": [1, "two", {"k": "v"}], "d": {"a": 1, "b": "x"}, "i": -7, "max": 2147483647, )"
    R"("s": "caf\u00e9 \"quoted\""})";

class DefaultsTool : public ::testing::Test {
 protected:
  ts::RunResult Tool(std::vector<std::string> args) {
    args.insert(args.begin(), kTool);
    return ts::RunProgram(args, {"LUMETRY_SYSTEM_PREFS_DIR=" + SystemDir()});
  }
  // The stored file as canonical JSON, read by plistlib.
  std::string Stored(const std::string& path) {
    const auto run =
        ts::RunProgram({kPython, "-c",
                        "import json,plistlib,sys\n"
                        "print(json.dumps(plistlib.load(open(sys.argv[1],'rb')),sort_keys=True))",
                        path});
    EXPECT_EQ(run.status, 0) << run.err;
    return run.out;
  }
  std::string HostId() {
    const auto run = Tool({"paths"});
    const std::string first = run.out.substr(0, run.out.find('\n'));
    return first.rfind("HOST-ID: ", 0) == 0 ? first.substr(9) : "";
  }
  std::string home_path() const { return home_.path(); }
  std::string UserDir() const { return home_.Library() + "/Preferences"; }
  std::string SystemDir() const { return home_.path() + "/system"; }

 private:
  ts::ScopedHome home_;
};

TEST_F(DefaultsTool, HostIdIsTheMachineIdAsAUuid) {
  std::string machine_id;
  const std::string host_id = HostId();
  if (!ts::ReadFile("/etc/machine-id", &machine_id) || machine_id.size() < 32) {
    EXPECT_FALSE(host_id.empty());  // the host name stands in
    return;
  }
  std::string expected = machine_id.substr(0, 32);
  for (char& c : expected) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (const unsigned at : {20u, 16u, 12u, 8u}) expected.insert(at, 1, '-');
  EXPECT_EQ(host_id, expected);
}

TEST_F(DefaultsTool, EveryVerbInEveryScope) {
  const std::string host = HostId();
  ASSERT_FALSE(host.empty());
  const struct {
    std::vector<std::string> flags;
    std::string file;
  } scopes[] = {
      {{}, UserDir() + "/" + kDomain + ".plist"},
      {{"-currentHost"}, UserDir() + "/ByHost/" + kDomain + "." + host + ".plist"},
      {{"-anyUser"}, SystemDir() + "/" + kDomain + ".plist"},
      {{"-anyUser", "-currentHost"}, SystemDir() + "/ByHost/" + kDomain + "." + host + ".plist"},
  };
  for (const auto& scope : scopes) {
    SCOPED_TRACE(scope.file);
    auto tool = [&](std::vector<std::string> args) {
      args.insert(args.begin(), scope.flags.begin(), scope.flags.end());
      return Tool(args);
    };
    EXPECT_EQ(tool({"write", kDomain, "name", "-string", "a \"b\""}).status, 0);
    EXPECT_EQ(tool({"write", kDomain, "count", "-int", "-12"}).status, 0);
    EXPECT_EQ(tool({"write", kDomain, "plain", "word"}).status, 0);
    EXPECT_EQ(tool({"write", kDomain, "map", "-dict-add", "n", "-int", "3"}).status, 0);
    EXPECT_EQ(tool({"write", kDomain, "map", "-dict-add", "t", "-string", "x"}).status, 0);
    EXPECT_EQ(Stored(scope.file),
              "{\"count\": -12, \"map\": {\"n\": 3, \"t\": \"x\"}, \"name\": \"a \\\"b\\\"\", "
              "\"plain\": \"word\"}\n");

    EXPECT_EQ(tool({"read", kDomain}).out,
              "{\n    name = \"a \\\"b\\\"\";\n    count = -12;\n    plain = \"word\";\n"
              "    map = {\n        n = 3;\n        t = \"x\";\n    };\n}\n");
    EXPECT_EQ(tool({"read", kDomain, "count"}).out, "-12\n");
    EXPECT_EQ(tool({"read-type", kDomain, "map"}).out, "Type is dictionary\n");
    EXPECT_EQ(tool({"domains"}).out, kDomain + "\n");
    EXPECT_EQ(tool({"read"}).out.rfind("{\n    " + kDomain + " = {\n", 0), 0u);

    auto fails = [&](std::vector<std::string> args, const std::string& why) {
      const auto run = tool(std::move(args));
      EXPECT_EQ(run.status, 1) << why;
      EXPECT_EQ(run.err, "lumetry-defaults: " + scope.file + ": " + why + "\n");
    };
    // A dictionary entry cannot go into a string.
    fails({"write", kDomain, "name", "-dict-add", "e", "-int", "1"},
          "'name' holds a string, not a dictionary");
    EXPECT_EQ(tool({"delete", kDomain, "count"}).status, 0);
    fails({"read", kDomain, "count"}, "no key 'count'");
    fails({"delete", kDomain, "count"}, "no key 'count'");
    EXPECT_EQ(tool({"delete", kDomain}).status, 0);
    EXPECT_FALSE(ts::PathExists(scope.file));
    fails({"read", kDomain}, "No such file or directory");
    fails({"delete", kDomain}, "No such file or directory");
    EXPECT_EQ(tool({"domains"}).out, "");
  }
}

TEST_F(DefaultsTool, RoundTripsFilesOfAnotherPropertyListTool) {
  for (const bool binary : {false, true}) {
    SCOPED_TRACE(binary);
    const std::string file = UserDir() + "/" + kDomain + ".plist";
    ASSERT_TRUE(ts::WritePlist(file, kSample, binary));

    const std::tuple<std::string, std::string, std::string> reads[] = {
        // key, type, value
        {"s", "string", "\"caf\xC3\xA9 \\\"quoted\\\"\""},
        {"i", "integer", "-7"},
        {"max", "integer", "2147483647"},
        {"d", "dictionary", "{\n    a = 1;\n    b = \"x\";\n}"},
        {"arr", "array", "(\n    1,\n    \"two\",\n    {\n        k = \"v\";\n    }\n)"},
    };
    for (const auto& [key, type, value] : reads) {
      EXPECT_EQ(Tool({"read", kDomain, key}).out, value + "\n");
      EXPECT_EQ(Tool({"read-type", kDomain, key}).out, "Type is " + type + "\n");
    }

    // export -> plistlib, import <- plistlib's file, and the store's own file.
    const std::string exported = home_path() + "/exported.plist";
    ASSERT_EQ(Tool({"export", kDomain, exported}).status, 0);
    EXPECT_EQ(Stored(exported), kSample + "\n");
    EXPECT_EQ(Tool({"import", "com.quorvik.copy", file}).status, 0);
    EXPECT_EQ(Stored(UserDir() + "/com.quorvik.copy.plist"), kSample + "\n");
    EXPECT_EQ(Tool({"export", "com.quorvik.copy", "-"}).out.rfind("<?xml", 0), 0u);
    EXPECT_EQ(Tool({"write", kDomain, "i", "-int", "8"}).status, 0);
    EXPECT_NE(Stored(file).find("\"i\": 8"), std::string::npos);
  }
}

TEST_F(DefaultsTool, RefusesBadCommandsAndBadImports) {
  ASSERT_TRUE(ts::WritePlist(home_path() + "/list.plist", "[]", false));
  ASSERT_TRUE(ts::WriteFile(home_path() + "/junk.plist", "not a property list"));
  const struct {
    std::vector<std::string> args;
    int status;
    std::string err;
  } cases[] = {
      {{}, 2, "no verb given"},
      {{"frob"}, 2, "unknown verb 'frob'"},
      {{"read", "a", "b", "c"}, 2, "wrong number of arguments for 'read'"},
      {{"write", kDomain, "k"},
       2,
       "usage: write DOMAIN KEY (-string S | -int N | -dict-add "
       "ENTRY (-string S | -int N))"},
      {{"write", kDomain, "k", "-int", "2147483648"},
       2,
       "-int needs a signed 32-bit integer, not '2147483648'"},
      {{"write", kDomain, "k", "-int", "1", "-string", "s"}, 2, "give -string or -int, not both"},
      {{"read", kDomain, "-string", "s"}, 2, "-string, -int and -dict-add belong to 'write'"},
      {{"read", "a/b"}, 1, "'a/b' is not a valid domain name"},
      {{"delete", "a/b", "k"}, 1, "'a/b' is not a valid domain name"},
      {{"import", kDomain, home_path() + "/list.plist"},
       1,
       home_path() + "/list.plist: not a property list holding a dictionary"},
      {{"import", kDomain, home_path() + "/junk.plist"},
       1,
       home_path() + "/junk.plist: not a property list holding a dictionary"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    const auto run = Tool(c.args);
    EXPECT_EQ(run.status, c.status);
    const std::string hint = c.status == 2 ? "Try 'lumetry-defaults --help'.\n" : "";
    EXPECT_EQ(run.err, "lumetry-defaults: " + c.err + "\n" + hint);
  }
  EXPECT_EQ(ts::ListNames(UserDir()).size(), 0u);  // nothing was stored
}

}  // namespace
