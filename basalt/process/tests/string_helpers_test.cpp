#include "base/include/string_helpers.h"

#include <gtest/gtest.h>

#include <climits>
#include <clocale>

namespace {

using Strings = std::vector<std::string>;

TEST(StringHelpers, FillsAnyLength) {
  EXPECT_EQ(VS("%s=%d", "a", 7), "a=7");
  EXPECT_EQ(VS("%s", ""), "");
  const std::string longText(100000, 'x');
  EXPECT_EQ(VS("<%s>", longText.c_str()), "<" + longText + ">");
  EXPECT_EQ(VS("a%cb", '\0'), std::string("a\0b", 3));
}

TEST(StringHelpers, CaseOfAsciiLettersOnly) {
  EXPECT_EQ(lower("AbZ-09[\xC3\x84]"), "abz-09[\xC3\x84]");
  EXPECT_EQ(upper("aBz-09{\xC3\xA4}"), "ABZ-09{\xC3\xA4}");
  EXPECT_EQ(lower(std::string("A\0B", 3)), std::string("a\0b", 3));
}

TEST(StringHelpers, CaseDoesNotFollowTheLocale) {
  // Where the locale is not installed, the call does nothing and the test still holds.
  std::setlocale(LC_ALL, "tr_TR.ISO-8859-9");
  EXPECT_EQ(upper("i"), "I");
  EXPECT_EQ(lower("I"), "i");
  EXPECT_EQ(lower("\xC4"), "\xC4");
  std::setlocale(LC_ALL, "C");
}

TEST(StringHelpers, StartsWith) {
  EXPECT_TRUE(startsWith("https://host", "https://", true, false));
  EXPECT_TRUE(startsWith("HTTPS://host", "https://", true, false));
  EXPECT_FALSE(startsWith("HTTPS://host", "https://", false, false));
  EXPECT_FALSE(startsWith(" https://host", "https://", true, false));
  EXPECT_TRUE(startsWith(" \thttps://host", "https://", true, true));
  EXPECT_FALSE(startsWith("http", "https://", true, false));
  EXPECT_TRUE(startsWith("", "", false, false));
  EXPECT_TRUE(startsWith("  ", "", false, true));
  EXPECT_FALSE(startsWith("  ", "a", true, true));
}

TEST(StringHelpers, Contains) {
  EXPECT_TRUE(contains("abc", std::string("bc")));
  EXPECT_TRUE(contains("abc", "b"));
  EXPECT_TRUE(contains("abc", ""));
  EXPECT_FALSE(contains("abc", "B"));
  EXPECT_FALSE(contains("", std::string("a")));
}

TEST(StringHelpers, TrimsBothEnds) {
  EXPECT_EQ(trimWhiteSpace(" \t\n\v\f\ra b\r\n "), "a b");
  EXPECT_EQ(trimWhiteSpace(" \t "), "");
  EXPECT_EQ(trimWhiteSpace(""), "");
  EXPECT_EQ(trimWhiteSpace("a"), "a");
}

TEST(StringHelpers, SplitKeepsEmptyPieces) {
  Strings parts{"left over"};
  StringSplit('|', "a||b|", parts);
  EXPECT_EQ(parts, (Strings{"a", "", "b", ""}));
  StringSplit('|', "", parts);
  EXPECT_EQ(parts, (Strings{""}));
  StringSplit('|', "abc", parts);
  EXPECT_EQ(parts, (Strings{"abc"}));
  StringSplit('|', "|", parts);
  EXPECT_EQ(parts, (Strings{"", ""}));
}

TEST(StringHelpers, NumbersInEveryBase) {
  EXPECT_EQ(itoa(0, 10), "0");
  EXPECT_EQ(itoa(-42, 10), "-42");
  EXPECT_EQ(itoa(LLONG_MIN, 10), "-9223372036854775808");
  EXPECT_EQ(itoa(LLONG_MAX, 10), "9223372036854775807");
  EXPECT_EQ(uitoa(ULLONG_MAX, 10), "18446744073709551615");
  EXPECT_EQ(uitoa(255, 16), "ff");
  EXPECT_EQ(uitoa(5, 2), "101");
  EXPECT_EQ(uitoa(35, 36), "z");
  EXPECT_EQ(itoa(-35, 36), "-z");
}

TEST(StringHelpers, BaseOutOfRangeGivesNothing) {
  for (const int base : {-1, 0, 1, 37}) {
    EXPECT_EQ(uitoa(5, base), "") << base;
    EXPECT_EQ(itoa(-5, base), "") << base;
  }
}

TEST(StringHelpers, Concat) {
  EXPECT_EQ(concat({"a", "", "b"}, ", "), "a, , b");
  EXPECT_EQ(concat({"a"}, ", "), "a");
  EXPECT_EQ(concat({}, ", "), "");
}

}  // namespace
