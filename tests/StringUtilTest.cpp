// StringUtil: trimming, lower-casing, splitting, strict UTF-8 and hex digits.
#include <gtest/gtest.h>

#include "StringUtil.h"

namespace {

using Tokens = std::vector<std::string>;

TEST(StringUtilTest, TrimLowerAndHex) {
  EXPECT_EQ(StringUtil::Trim(" \t a b \r\n", StringUtil::kWhitespace), "a b");
  EXPECT_EQ(StringUtil::Trim("\r\n", StringUtil::kWhitespace), "");
  EXPECT_EQ(StringUtil::Trim("xxaxbxx", "x") + StringUtil::Trim("  keep  ", nullptr),
            "axb  keep  ");
  std::string text = "Section \xC3\x84Z";  // changed in place too
  EXPECT_EQ(StringUtil::ToLower(text) + "|" + text, "section \xC3\x84z|section \xC3\x84z");
  const std::tuple<std::uint64_t, std::size_t, const char*> hex[] = {
      {0, 0, ""},
      {0, 2, "00"},
      {0xAB, 4, "00AB"},
      {0x1234F, 2, "1234F"},
      {UINT64_MAX, 0, "FFFFFFFFFFFFFFFF"}};
  for (const auto& [value, width, out] : hex) EXPECT_EQ(StringUtil::ToHex(value, width), out);
}

TEST(StringUtilTest, SplitDropsEmptyTokens) {
  const std::pair<std::string, Tokens> cases[] = {{",a,,b,", {"a", "b"}},
                                                  {"a;b,c", {"a", "b", "c"}},
                                                  {",;,", {}},
                                                  {std::string("a,b\0,c", 6), {"a", "b"}}};
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
// bytes that never start one are refused; a failed conversion keeps the output.
TEST(StringUtilTest, Utf8ValidationIsStrict) {
  for (const char* valid : {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF"})
    EXPECT_TRUE(StringUtil::IsValidUTF8(valid)) << valid;
  for (const char* invalid : {"\xC0\xAF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF", "\xED\xA0\x80",
                              "\xF4\x90\x80\x80", "\xE2\x82", "\x80", "\xFF"})
    EXPECT_FALSE(StringUtil::IsValidUTF8(invalid)) << invalid;
  EXPECT_TRUE(StringUtil::IsValidUTF8(nullptr, 0) && !StringUtil::IsValidUTF8(nullptr, 3));
  std::string out = "default";
  const std::string invalid = "ab\xC3", embedded("na\0me", 5);
  EXPECT_FALSE(StringUtil::CFStringToUTF8(nullptr, &out) ||
               StringUtil::CFStringToUTF8(&invalid, &out) ||
               StringUtil::CFStringToUTF8(&invalid, nullptr));
  EXPECT_EQ(out, "default");
  EXPECT_TRUE(StringUtil::CFStringToUTF8(&embedded, &out) && out == "na");
}

}  // namespace
