// StringUtil: trimming, lower-casing, splitting, strict UTF-8 and hex digits.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "StringUtil.h"

namespace {

using Tokens = std::vector<std::string>;

TEST(StringUtilTest, TrimCutsOnlyTheOuterRunsOfTheSet) {
  EXPECT_EQ(StringUtil::Trim(" \t a b \r\n", StringUtil::kWhitespace), "a b");
  EXPECT_EQ(StringUtil::Trim("\r\n", StringUtil::kWhitespace), "");
  EXPECT_EQ(StringUtil::Trim("xxaxbxx", "x"), "axb");
  EXPECT_EQ(StringUtil::Trim("a\tb", " "), "a\tb");
  EXPECT_EQ(StringUtil::Trim("  keep  ", nullptr), "  keep  ");
}

TEST(StringUtilTest, ToLowerChangesTheArgumentToo) {
  std::string text = "Section \xC3\x84Z";
  EXPECT_EQ(StringUtil::ToLower(text), "section \xC3\x84z");
  EXPECT_EQ(text, "section \xC3\x84z");
}

TEST(StringUtilTest, SplitDropsEmptyTokens) {
  const std::pair<std::string, Tokens> cases[] = {
      {",a,,b,", {"a", "b"}},
      {"a;b,c", {"a", "b", "c"}},
      {",;,", {}},
      {"whole", {"whole"}},
      {std::string("a,b\0,c", 6), {"a", "b"}},
  };
  for (const auto& [text, expected] : cases) {
    Tokens tokens{"stale"};
    StringUtil::Split(text, &tokens, ",;");
    EXPECT_EQ(tokens, expected) << text;
  }
  Tokens kept{"x", "y"};
  StringUtil::Split("", &kept, ",");
  StringUtil::Split("a,b", &kept, "");
  StringUtil::Split("a,b", nullptr, ",");
  EXPECT_EQ(kept, (Tokens{"x", "y"}));
}

// Overlong forms, a surrogate, a value above U+10FFFF, a cut sequence and
// bytes that never start one are refused.
TEST(StringUtilTest, Utf8ValidationIsStrict) {
  for (const char* valid : {"plain", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF"})
    EXPECT_TRUE(StringUtil::IsValidUTF8(valid)) << valid;
  for (const char* invalid : {"\xC0\xAF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF", "\xED\xA0\x80",
                              "\xF4\x90\x80\x80", "\xE2\x82", "\x80", "\xFF"})
    EXPECT_FALSE(StringUtil::IsValidUTF8(invalid)) << invalid;
  EXPECT_TRUE(StringUtil::IsValidUTF8(nullptr, 0));
  EXPECT_FALSE(StringUtil::IsValidUTF8(nullptr, 3));
}

TEST(StringUtilTest, CFStringToUTF8LeavesOutputAloneOnFailure) {
  std::string out = "default";
  EXPECT_FALSE(StringUtil::CFStringToUTF8(nullptr, &out));
  const std::string invalid = "ab\xC3";
  EXPECT_FALSE(StringUtil::CFStringToUTF8(&invalid, &out));
  EXPECT_EQ(out, "default");
  EXPECT_FALSE(StringUtil::CFStringToUTF8(&invalid, nullptr));

  const std::string embedded("na\0me", 5);
  EXPECT_TRUE(StringUtil::CFStringToUTF8(&embedded, &out));
  EXPECT_EQ(out, "na");
}

TEST(StringUtilTest, ToHexPadsButNeverCuts) {
  EXPECT_EQ(StringUtil::ToHex(0, 0), "");
  EXPECT_EQ(StringUtil::ToHex(0, 2), "00");
  EXPECT_EQ(StringUtil::ToHex(0xAB, 4), "00AB");
  EXPECT_EQ(StringUtil::ToHex(0x1234F, 2), "1234F");
  EXPECT_EQ(StringUtil::ToHex(UINT64_MAX, 0), "FFFFFFFFFFFFFFFF");
}

}  // namespace
