#include "base/include/printable.h"

#include <gtest/gtest.h>

using lumo::printable;
using lumo::printableLines;

TEST(Printable, OrdinaryTextStaysAsItIs) {
  EXPECT_EQ(printable(""), "");
  EXPECT_EQ(printable("CORP\\alice 'x' \"y\""), "CORP\\alice 'x' \"y\"");
  EXPECT_EQ(printable("M\xC3\xBCller \xE2\x82\xAC \xF0\x9F\x94\x92"), "M\xC3\xBCller \xE2\x82\xAC \xF0\x9F\x94\x92");
}

TEST(Printable, ControlCharactersAreEscaped) {
  EXPECT_EQ(printable("a\nb\rc\td"), "a\\nb\\rc\\td");
  EXPECT_EQ(printable("\x1b]0;title\x07\x7f"), "\\x1b]0;title\\x07\\x7f");
  EXPECT_EQ(printable(std::string_view("a\0b", 3)), "a\\x00b");
  EXPECT_EQ(printable("\xC2\x9B"), "\\xc2\\x9b");
}

TEST(Printable, CharactersThatReorderOrSplitLinesAreEscaped) {
  EXPECT_EQ(printable("\xE2\x80\xAE"), "\\xe2\\x80\\xae");  // right-to-left override
  EXPECT_EQ(printable("\xE2\x81\xA6"), "\\xe2\\x81\\xa6");  // left-to-right isolate
  EXPECT_EQ(printable("\xE2\x80\x8F"), "\\xe2\\x80\\x8f");  // right-to-left mark
  EXPECT_EQ(printable("\xD8\x9C"), "\\xd8\\x9c");           // Arabic letter mark
  EXPECT_EQ(printable("\xE2\x80\xA8"), "\\xe2\\x80\\xa8");  // line separator
  EXPECT_EQ(printable("\xEF\xBB\xBF"), "\\xef\\xbb\\xbf");  // byte order mark
  EXPECT_EQ(printable("\xE2\x80\xA7\xE2\x80\xAF\xE2\x81\xAA"), "\xE2\x80\xA7\xE2\x80\xAF\xE2\x81\xAA");
}

TEST(Printable, BytesThatAreNotUtf8AreEscaped) {
  EXPECT_EQ(printable("\xFC"), "\\xfc");
  EXPECT_EQ(printable("\xC3"), "\\xc3");
  EXPECT_EQ(printable("\xE2\x82"), "\\xe2\\x82");
  EXPECT_EQ(printable("\xC0\x8A"), "\\xc0\\x8a");
  EXPECT_EQ(printable("\xE0\x80\x8A"), "\\xe0\\x80\\x8a");
  EXPECT_EQ(printable("\xF0\x80\x80\x8A"), "\\xf0\\x80\\x80\\x8a");
  EXPECT_EQ(printable("\xED\xA0\x80"), "\\xed\\xa0\\x80");
  EXPECT_EQ(printable("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
}

TEST(Printable, OurOwnLineEndsStayAndAllElseIsEscaped) {
  EXPECT_EQ(printableLines(""), "");
  EXPECT_EQ(printableLines("one\ntwo\n\n"), "one\ntwo\n\n");
  EXPECT_EQ(printableLines("one\r\n\x1b[2Jtwo\rthree\r\r\n"), "one\r\n\\x1b[2Jtwo\\rthree\\r\r\n");
}

TEST(Printable, WhatIsEscapedStaysAsItIsWhenItIsEscapedAgain) {
  const std::string once = printable("a\n\x1b\xff\\");
  EXPECT_EQ(printable(once), once);
  EXPECT_EQ(printableLines(once), once);
}

TEST(Printable, ALimitCutsBetweenCharacters) {
  EXPECT_EQ(printable("abc", 3), "abc");
  EXPECT_EQ(printable("abcd", 3), "abc...");
  EXPECT_EQ(printable("a\xE2\x82\xAC", 3), "a...");
  EXPECT_EQ(printable("\n\n", 1), "\\n...");
  EXPECT_EQ(printable("abc", 0), "...");
}
