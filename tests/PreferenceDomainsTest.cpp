// Whole-domain operations below the lumetry-defaults tool: listings that skip
// the store's own temporary files, replacement that keeps foreign value
// kinds, property-list parsing of any bytes, and the readable dump.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "PreferenceDomains.h"
#include "Preferences.h"
#include "TestSupport.h"

namespace {

namespace pd = PreferenceDomains;
namespace ts = testing_support;

constexpr PrefUser kMe = PrefUser::kCurrentUser;
constexpr PrefHost kAny = PrefHost::kAnyHost;

class PreferenceDomainsTest : public ::testing::Test {
 protected:
  static PrefValue Parse(const std::string& xml_body) {
    PrefValue value;
    const std::string doc =
        "<?xml version=\"1.0\"?><plist version=\"1.0\">" + xml_body + "</plist>";
    EXPECT_TRUE(pd::FromPropertyList(doc, &value)) << xml_body;
    return value;
  }

  ts::ScopedHome home_;
  ts::ScopedTempDir system_;
  const ts::ScopedOverride system_dir_{&SetSystemPreferencesDirForTesting, system_.path()};
};

TEST_F(PreferenceDomainsTest, ListsOnlyDomainFilesOfTheScope) {
  ASSERT_TRUE(SetPreferenceNumber("n", "com.b", 1, kMe, kAny));
  ASSERT_TRUE(SetPreferenceNumber("n", "com.a", 1, kMe, kAny));
  ASSERT_TRUE(SetPreferenceNumber("n", "com.host", 1, kMe, PrefHost::kCurrentHost));
  ASSERT_TRUE(SetPreferenceNumber("n", "com.system", 1, PrefUser::kAnyUser, kAny));
  const std::string dir = home_.Library() + "/Preferences/";
  // What else lies there: a writer's leftover temporary, a directory named
  // like a domain, a file of another kind.
  ASSERT_TRUE(ts::WriteFile(dir + ".com.a.plist.Xy12ab", "partial"));
  ASSERT_TRUE(ts::WriteFile(dir + ".hidden.plist", "dot files are not domains"));
  ASSERT_TRUE(ts::MakeDirs(dir + "folder.plist"));
  ASSERT_TRUE(ts::WriteFile(dir + "notes.txt", "x"));

  const struct {
    PrefUser user;
    PrefHost host;
    std::vector<std::string> expected;
  } cases[] = {
      {kMe, kAny, {"com.a", "com.b"}},
      {kMe, PrefHost::kCurrentHost, {"com.host"}},
      {PrefUser::kAnyUser, kAny, {"com.system"}},
      {PrefUser::kAnyUser, PrefHost::kCurrentHost, {}},  // no ByHost directory there
  };
  for (const auto& c : cases) {
    std::vector<std::string> names = {"stale"};
    ASSERT_TRUE(pd::ListDomains(c.user, c.host, &names));
    EXPECT_EQ(names, c.expected);
  }
  std::vector<std::string> untouched = {"kept"};
  EXPECT_FALSE(pd::ListDomains(kMe, static_cast<PrefHost>(7), &untouched));
  EXPECT_EQ(untouched, std::vector<std::string>{"kept"});
}

TEST_F(PreferenceDomainsTest, ReplaceKeepsEveryKindAndRefusesNonDictionaries) {
  const PrefValue foreign = Parse(
      "<dict><key>t</key><true/><key>r</key><real>1.5</real>"
      "<key>data</key><data>AAH/</data><key>s</key><string>x</string></dict>");
  ASSERT_TRUE(pd::ReplaceDomain("com.r", kMe, kAny, foreign));
  PrefValue stored;
  ASSERT_TRUE(pd::CopyDomain("com.r", kMe, kAny, &stored));
  EXPECT_EQ(pd::Describe(stored),
            "{\n    t = 1;\n    r = 1.5;\n    data = <0001ff>;\n    s = \"x\";\n}");
  EXPECT_EQ(pd::KindName(stored.Item("t")), "boolean");
  EXPECT_EQ(pd::KindName(stored.Item("data")), "data");

  EXPECT_FALSE(pd::ReplaceDomain("com.r", kMe, kAny, Parse("<array/>")));
  EXPECT_FALSE(pd::ReplaceDomain("com.r", kMe, kAny, PrefValue()));
  ASSERT_TRUE(pd::CopyDomain("com.r", kMe, kAny, &stored));
  EXPECT_EQ(stored.Count(), 4u);  // the refused calls left the domain alone
}

TEST_F(PreferenceDomainsTest, DescribesEscapesNestingAndEmptyContainers) {
  const std::pair<std::string, std::string> cases[] = {
      // property list, dump
      {"<string>a\"b\\c\nd\te\x01</string>", "\"a\\\"b\\\\c\\nd\\te\\001\""},
      {"<integer>-2147483648</integer>", "-2147483648"},
      {"<dict/>", "{\n}"},
      {"<array/>", "(\n)"},
      {"<dict><key>odd key</key><array><dict/></array></dict>",
       "{\n    \"odd key\" = (\n        {\n        }\n    );\n}"},
      {"<date>2001-01-02T00:00:00Z</date>", "2001-01-02 00:00:00 +0000"},
  };
  for (const auto& [xml, text] : cases) EXPECT_EQ(pd::Describe(Parse(xml)), text) << xml;
  EXPECT_EQ(pd::Describe(PrefValue()), "");

  // Deep nesting from a hostile file is cut short, not walked to a crash;
  // nesting past the store's bound is refused before the library parses it.
  const auto nested = [](int depth) {
    std::string text;
    for (int i = 0; i < depth; ++i) text += "<array>";
    for (int i = 0; i < depth; ++i) text += "</array>";
    return text;
  };
  EXPECT_NE(pd::Describe(Parse(nested(100))).find("..."), std::string::npos);
  PrefValue refused;
  EXPECT_FALSE(pd::FromPropertyList(nested(200), &refused));
}

TEST_F(PreferenceDomainsTest, RefusesBytesThatAreNoPropertyList) {
  for (const std::string& bytes : {std::string(), std::string("plain text"),
                                   std::string("bplist00\xff\xff", 10), std::string(64, '\0')}) {
    PrefValue untouched = PrefValue::Number(1);
    EXPECT_FALSE(pd::FromPropertyList(bytes, &untouched)) << bytes;
    EXPECT_EQ(untouched.Kind(), kPrefNumber);
  }
  std::string xml;
  EXPECT_FALSE(pd::ToXml(PrefValue(), &xml));
}

}  // namespace
