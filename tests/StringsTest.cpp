// String helpers, and bounded copies that refuse or truncate instead of overrunning.
#include <gtest/gtest.h>

#include <cstdio>

#include "SafeStr.h"
#include "StringUtil.h"
#include "TestSupport.h"

namespace {

using Tokens = std::vector<std::string>;

TEST(StringUtilTest, TrimLowerHexAndSplitDroppingEmptyTokens) {
  EXPECT_EQ(StringUtil::Trim(" \t a b \r\n", StringUtil::kWhitespace) + "|" +
                StringUtil::Trim("\r\n", StringUtil::kWhitespace),
            "a b|");
  EXPECT_EQ(StringUtil::Trim("xxaxbxx", "x") + StringUtil::Trim("  keep  ", nullptr),
            "axb  keep  ");
  std::string mixed = "Section \xC3\x84Z";  // changed in place too
  EXPECT_EQ(StringUtil::ToLower(mixed) + "|" + mixed, "section \xC3\x84z|section \xC3\x84z");
  using StringUtil::ToHex;  // pads but never cuts
  EXPECT_EQ(ToHex(0, 0) + "|" + ToHex(0, 2) + "|" + ToHex(0xAB, 4) + "|" + ToHex(0x1234F, 2) + "|" +
                ToHex(UINT64_MAX, 0),
            "|00|00AB|1234F|FFFFFFFFFFFFFFFF");
  const std::pair<std::string, Tokens> cases[] = {
      {",a,,b,", {"a", "b"}},
      {"a;b,c", {"a", "b", "c"}},
      {",;,", {}},
      {std::string("a,b\0,c", 6), {"a", "b"}},
  };
  for (const auto& [text, expected] : cases) {
    Tokens tokens{"stale"};
    StringUtil::Split(text, &tokens, ",;");
    EXPECT_EQ(tokens, expected) << text;
  }
  Tokens kept{"x", "y"};
  StringUtil::Split("", &kept, ","), StringUtil::Split("a,b", &kept, "");
  StringUtil::Split("a,b", nullptr, ",");
  EXPECT_EQ(kept, (Tokens{"x", "y"}));
}

// Overlong forms, surrogates, values past U+10FFFF and cut sequences are refused.
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

std::string Result(int status, const char* dst) { return std::to_string(status) + ":" + dst; }

TEST(SafeStrTest, CopiesFormatsAndConversionsRefuseOrTruncateInBounds) {
  char dst[4] = {'a', 'b', 'c', 'd'};
  EXPECT_TRUE(SafeStr::MemCpy(dst, 3, "wxyz", 4) == -2 &&
              SafeStr::MemMove(dst, 3, "wxyz", 4) == -2 && SafeStr::MemSet(dst, 3, 'q', 4) == -2 &&
              std::string(dst, 4) == "abcd");
  EXPECT_EQ(SafeStr::MemCpy(nullptr, 4, "x", 1) + SafeStr::MemSet(nullptr, 4, 0, 1), -2);
  EXPECT_TRUE(SafeStr::MemMove(dst + 1, 3, dst, 3) == 0 && std::string(dst, 4) == "aabc");
  // StrTok stops inside an unterminated buffer.
  char buffer[] = {'a', ',', 'b', 'c', 'X', 'Y'};
  char* context = nullptr;
  EXPECT_STREQ(SafeStr::StrTok(buffer, 5, ",", &context), "a");
  EXPECT_STREQ(SafeStr::StrTok(nullptr, 1, ",", &context), "bc");
  EXPECT_EQ(SafeStr::StrTok(nullptr, 1, ",", &context), nullptr);
  EXPECT_EQ(buffer[5], 'Y');
  char* fresh = nullptr;
  EXPECT_FALSE(SafeStr::StrTok(nullptr, 1, ",", &fresh) || SafeStr::StrTok(buffer, 0, ",", &fresh));
  EXPECT_EQ("-2:abc", Result(SafeStr::StrCpy(dst, sizeof dst, "abcdef"), dst));
  EXPECT_EQ("0:ab", Result(SafeStr::StrNCpy(dst, sizeof dst, "abcdef", 2), dst));
  EXPECT_EQ("0:abx", Result(SafeStr::StrNCat(dst, sizeof dst, "xyz", 1), dst));
  EXPECT_EQ("-2:abc", Result(SafeStr::StrNCpy(dst, sizeof dst, "abcd", 4), dst));
  EXPECT_EQ("0:", Result(SafeStr::StrNCpy(dst, sizeof dst, "abc", 0), dst));
  EXPECT_EQ("0:ab", Result(SafeStr::StrCat(dst, sizeof dst, "ab"), dst));
  EXPECT_EQ("-2:abc", Result(SafeStr::StrCat(dst, sizeof dst, "cd"), dst));
  EXPECT_EQ("-1:", Result(SafeStr::StrCpy(dst, sizeof dst, nullptr), dst));
  char unterminated[4] = {'x', 'y', 'z', 'w'};
  EXPECT_EQ("-1:", Result(SafeStr::StrCat(unterminated, sizeof unterminated, "a"), unterminated));
  EXPECT_EQ(SafeStr::StrNCpy(nullptr, 0, "a", 0) + SafeStr::StrCat(nullptr, 0, "a"), 0);

  const char abc[] = "abc";
  EXPECT_TRUE(SafeStr::StrNChr(abc, 4, 'c') == abc + 2 && !SafeStr::StrNChr(abc, 2, 'c') &&
              SafeStr::StrNChr(abc, 4, 0) == abc + 3);
  EXPECT_TRUE(SafeStr::StrNLen(abc, 2) == 2 && SafeStr::StrNLen(abc, 10) == 3 &&
              SafeStr::StrNLen(nullptr, 10) == 0);
  // Formatting and number conversion report truncation.
  EXPECT_EQ("3:123", Result(SafeStr::SPrintf(dst, sizeof dst, "%d", 123), dst));
  EXPECT_EQ("-2:123", Result(SafeStr::SPrintf(dst, sizeof dst, "%d", 1234), dst));
  EXPECT_EQ("-2:abc", Result(SafeStr::SNPrintf(dst, sizeof dst, 10, "%s", "abcdef"), dst));
  EXPECT_EQ("6:ab", Result(SafeStr::SNPrintf(dst, sizeof dst, 2, "%s", "abcdef"), dst));
  EXPECT_EQ("0:", Result(SafeStr::SNPrintf(dst, sizeof dst, 0, "%s", "abc"), dst));
  EXPECT_EQ("2:ab", Result(SafeStr::SNPrintf(dst, sizeof dst, SIZE_MAX, "%s", "ab"), dst));
  EXPECT_EQ(SafeStr::SNPrintf(nullptr, 0, 0, "%s", "abc") + SafeStr::SPrintf(dst, 0, "%s", "abc") +
                SafeStr::WPrintf(nullptr),
            -2);
  const std::tuple<std::int32_t, int, int, std::size_t, const char*> cases[] = {
      {-5, 10, -2, 2, ""},         {-5, 10, 0, 3, "-5"},
      {5, 10, -2, 2, ""},          {0, 10, 0, 3, "0"},
      {255, 16, 0, 4, "ff"},       {35, 36, 0, 3, "z"},
      {-1, 16, 0, 10, "ffffffff"}, {INT32_MIN, 10, 0, 12, "-2147483648"},
      {7, 1, -1, 10, ""},          {7, 37, -1, 10, ""},
  };
  for (const auto& [value, radix, status, size, text] : cases) {
    char out[16] = "junk";
    EXPECT_EQ(Result(status, text), Result(SafeStr::IToA(value, out, size, radix), out))
        << value << " radix " << radix;
  }
  char wide[24];
  EXPECT_EQ("0:-4294967295", Result(SafeStr::I64ToA(-4294967295, wide, sizeof wide, 10), wide));
  EXPECT_EQ("0:8000000000000000", Result(SafeStr::I64ToA(INT64_MIN, wide, sizeof wide, 16), wide));
  // Digits come from the low 32 bits, so 2^32 in radix 10 ends in 0, not 6.
  EXPECT_EQ("0:4294967290", Result(SafeStr::UI64ToA(4294967296u, wide, sizeof wide, 10), wide));
  EXPECT_EQ(SafeStr::UI64ToA(1, nullptr, 8, 10), -1);
}

// A line of standard input at most: too long a line leaves the empty string, 0xFF ends it.
TEST(SafeStrTest, GetSReadsOneLineOrNothing) {
  testing_support::ScopedTempDir dir;
  ASSERT_TRUE(testing_support::WriteFile(dir.Sub("in"), "abc\nabcd\nx\xFFyz\nok"));
  ASSERT_NE(std::freopen(dir.Sub("in").c_str(), "r", stdin), nullptr);
  char dst[4];
  for (const char* line : {"abc", "", "x", "yz", "ok", ""})
    EXPECT_TRUE(SafeStr::GetS(dst, sizeof dst) == dst && std::string(dst) == line) << line;
  EXPECT_TRUE(SafeStr::GetS(nullptr, 4) == nullptr && SafeStr::Printf("%s", "") == 0);
  EXPECT_NE(std::freopen("/dev/null", "r", stdin), nullptr);
}

}  // namespace
