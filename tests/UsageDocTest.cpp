#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "TestSupport.h"
#include "UsageDoc.h"

namespace {

TEST(UsageDocTest, EscapesInOrderAndNeverWritesAnEmptyValue) {
  const std::pair<std::string, std::string> cases[] = {
      {"a<b & \"c\"", "a&#60;b &#38; &#34;c&#34;"},
      {"C:\\x", "C:&#92;x"},
      {"'>'", "&#39;&#62;&#39;"},
      {"&#38;", "&#38;#38;"},
      {"", "NOVALUE"},
      {"bad\xC3(", "NOVALUE"},
      {std::string("\0tail", 5), "NOVALUE"},
      {"\xC3\xA9t\xC3\xA9", "\xC3\xA9t\xC3\xA9"},
  };
  for (const auto& [value, expected] : cases)
    EXPECT_EQ(UsageDoc::EscapeAttributeValue(value), expected);
}

TEST(UsageDocTest, FormatsTimeInUtc) {
  EXPECT_EQ(UsageDoc::FormatTime(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(UsageDoc::FormatTime(1794711069), "2026-11-15T02:51:09Z");
  EXPECT_EQ(UsageDoc::CurrentTime().size(), 20u);
}

// The crash document: a session, two groups and their records, in order.
TEST(UsageDocTest, TenElementDocumentIsExact) {
  const std::string id = "K\"1";  // written unescaped, even when that breaks the XML
  UsageDoc::Counters counters;
  std::string doc = UsageDoc::StartFragment(id, "T", counters.NextSeq());
  const auto group = [&](const char* category, const char* name) {
    const std::int32_t g = counters.NextGroup();
    doc += UsageDoc::NewGroupFragment(category, "Crash", name, "T", g, "", counters.NextSeq());
    return g;
  };
  const auto record = [&](std::int32_t g, const char* name, const char* data) {
    doc += UsageDoc::DataRecFragment("T", g, name, data, counters.NextSeq());
  };
  const std::int32_t a = group("Lumetry", "Session");
  record(a, "ProductFamily", "LumetryQX");
  record(a, "ProductName", "AppCrash");
  const std::int32_t b = group("AppExit", "ExitInfo");
  record(b, "ExitType", "Crash");
  record(b, "CrashProductName", "Tom & Jerry's");
  record(b, "CrashProductFamily", "");
  record(b, "MachineID", "0A1B");
  doc += UsageDoc::EndFragment(id, "T", counters.NextSeq());

  EXPECT_EQ(doc,
            testing_support::CrashDocument("K\"1", "NOVALUE", "Tom &#38; Jerry&#39;s", "0A1B"));
}

}  // namespace
