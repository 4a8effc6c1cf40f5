// UsageDoc: attribute escaping and the UTC time stamps of usage documents.
#include <gtest/gtest.h>

#include <string>
#include <utility>

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

}  // namespace
