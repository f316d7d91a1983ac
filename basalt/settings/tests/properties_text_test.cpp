#include "basalt/settings/properties_text.h"

#include <gtest/gtest.h>

#include <random>

#include "base/include/exceptions.h"

using lumo::mergeProperties;
using lumo::parseProperties;
using lumo::PropertyChanges;
using lumo::PropertyMap;

namespace {

PropertyMap valuesOf(const std::string& text) { return parseProperties(text).values; }

TEST(PropertiesText, KeysAndValuesWithoutTheirWhiteSpace) {
  EXPECT_EQ(valuesOf("a:1\n  b \t:\t two words \nserver: host:3128\nempty:\n"),
            (PropertyMap{{"a", "1"}, {"b", "two words"}, {"server", "host:3128"}, {"empty", ""}}));
}

TEST(PropertiesText, CommentsAndEmptyLinesSayNothing) {
  const auto parsed = parseProperties("# a: 1\n   # b: 2\n\n  \t \n");
  EXPECT_TRUE(parsed.values.empty());
  EXPECT_EQ(parsed.badLineCount, 0U);
}

TEST(PropertiesText, HashBehindTheStartIsPartOfTheLine) {
  EXPECT_EQ(valuesOf("a: 1 # one\nb#: 2\n"), (PropertyMap{{"a", "1 # one"}, {"b#", "2"}}));
}

TEST(PropertiesText, LastOfTwoHoldsInTheSpellingOfTheFirst) {
  const auto values = valuesOf("Key: 1\nother: 2\nKEY: 3\n");
  ASSERT_EQ(values.size(), 2U);
  EXPECT_EQ(values.begin()->first, "Key");
  EXPECT_EQ(values.at("key"), "3");
}

TEST(PropertiesText, NoFinalNewline) { EXPECT_EQ(valuesOf("a: 1\nb: 2"), (PropertyMap{{"a", "1"}, {"b", "2"}})); }

TEST(PropertiesText, LinesOfAnotherSystem) {
  EXPECT_EQ(valuesOf("a: 1\r\nb: 2\r\n"), (PropertyMap{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(parseProperties("\r\n \r\n").badLineCount, 0U);
}

TEST(PropertiesText, ByteOrderMarkIsNoPartOfTheFirstKey) {
  EXPECT_EQ(valuesOf("\xEF\xBB\xBF"
                     "a: 1\n"),
            (PropertyMap{{"a", "1"}}));
}

TEST(PropertiesText, BadLinesAreNumbered) {
  const std::string text = std::string("good: 1\nno colon here\n: no key\n  \nzero") + '\0' + ": 1\nlast";
  const auto parsed = parseProperties(text);
  EXPECT_EQ(parsed.values, (PropertyMap{{"good", "1"}}));
  EXPECT_EQ(parsed.badLines, (std::vector<std::size_t>{2, 3, 5, 6}));
  EXPECT_EQ(parsed.badLineCount, 4U);
}

TEST(PropertiesText, ListOfBadLinesIsBounded) {
  std::string text;
  for (int i = 0; i < 5000; ++i) text += "noise\n";
  const auto parsed = parseProperties(text);
  EXPECT_EQ(parsed.badLines.size(), 20U);
  EXPECT_EQ(parsed.badLines.back(), 20U);
  EXPECT_EQ(parsed.badLineCount, 5000U);
}

struct MergeCase {
  const char* what;
  std::string before;
  PropertyChanges changes;
  std::string after;
};

void PrintTo(const MergeCase& c, std::ostream* out) { *out << c.what; }

class PropertiesMerge : public testing::TestWithParam<MergeCase> {};

TEST_P(PropertiesMerge, GivesTheWholeText) {
  EXPECT_EQ(mergeProperties(GetParam().before, GetParam().changes), GetParam().after);
}

const std::optional<std::string> gone;

INSTANTIATE_TEST_SUITE_P(
    Texts, PropertiesMerge,
    testing::Values(
        MergeCase{"nothing to change", "# c\r\nx\n a : 1", {}, "# c\r\nx\n a : 1"},
        MergeCase{"value alone changes",
                  "# first\n  Key \t:  old value  \nother: 1\n",
                  {{"key", "new"}},
                  "# first\n  Key \t:  new  \nother: 1\n"},
        MergeCase{
            "last of two is changed", "a: 1\n# between\nA: 2\nb: 3\n", {{"a", "4"}}, "a: 1\n# between\nA: 4\nb: 3\n"},
        MergeCase{"all of a key go", "a: 1\n# between\nA: 2\nb: 3\na:", {{"a", gone}}, "# between\nb: 3\n"},
        MergeCase{"key to go is not there", "b: 3\n", {{"a", gone}}, "b: 3\n"},
        MergeCase{"new keys at the end", "a: 1\n", {{"c", "3"}, {"b", "2"}}, "a: 1\nb: 2\nc: 3\n"},
        MergeCase{"new key behind an open line", "a: 1", {{"b", "2"}}, "a: 1\nb: 2\n"},
        MergeCase{"new file", "", {{"b", "2"}}, "b: 2\n"},
        MergeCase{"open last line stays open", "a: 1", {{"a", "2"}}, "a: 2"},
        MergeCase{"value with colons", "a: x:y\n", {{"a", "h:3128"}}, "a: h:3128\n"},
        MergeCase{"empty becomes filled", "a:\nb: 1\n", {{"a", "2"}}, "a: 2\nb: 1\n"},
        MergeCase{"empty with blanks becomes filled", "a:  \r\nb: 1\r\n", {{"a", "2"}}, "a: 2\r\nb: 1\r\n"},
        MergeCase{"filled becomes empty", "a: 1\nb: 1\n", {{"a", ""}}, "a: \nb: 1\n"},
        MergeCase{"new empty value", "", {{"a", ""}}, "a:\n"},
        MergeCase{"line ends of the file", "a: 1\r\nb: 2\r\n", {{"a", "3"}, {"c", "4"}}, "a: 3\r\nb: 2\r\nc: 4\r\n"},
        MergeCase{"comment that looks like the key", "#a: 1\na: 2\n", {{"a", "3"}}, "#a: 1\na: 3\n"},
        MergeCase{
            "unknown lines stay", "what is this\n: nor this\na: 1\n", {{"a", "2"}}, "what is this\n: nor this\na: 2\n"},
        MergeCase{
            "zero bytes stay", std::string("x\0y: 1\na: 1\n", 12), {{"a", "2"}}, std::string("x\0y: 1\na: 2\n", 12)},
        MergeCase{"value like the key", "a: a\n", {{"a", "b"}}, "a: b\n"},
        MergeCase{"byte order mark stays",
                  "\xEF\xBB\xBF"
                  "a: 1\n",
                  {{"a", "2"}},
                  "\xEF\xBB\xBF"
                  "a: 2\n"},
        MergeCase{"no empty line is added", "a: 1\n\n", {{"b", "2"}}, "a: 1\n\nb: 2\n"}));

TEST(PropertiesText, RefusesWhatWouldBecomeAnotherLine) {
  for (const std::string& value : {std::string("1\nb: 2"), std::string("1\r"), std::string("1\0", 2)}) {
    try {
      mergeProperties("a: 1\n", {{"a", value}});
      FAIL() << value;
    } catch (const lumo::BadDataException& failure) {
      EXPECT_STREQ(failure.what(), "The value of 'a' has a line break or a zero byte in it");
    }
  }
}

TEST(PropertiesText, RefusesAKeyThatWouldNotComeBack) {
  for (const char* key : {"", "#a", "a:b", " a", "a ", "a\nb", "\ra"}) {
    EXPECT_THROW(mergeProperties("", {{key, "1"}}), lumo::BadDataException) << key;
  }
}

// Whatever the file holds: what was changed reads back, what was not changed reads as before, and no other byte moves.
TEST(PropertiesText, AnyTextKeepsAllButTheChanges) {
  std::mt19937 random(7);
  const std::string alphabet = std::string("ab:#\n\r \t=\xEF\xBB\xBF\xFF") + '\0';
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    for (auto left = random() % 40; left > 0; --left) text += alphabet[random() % alphabet.size()];
    const PropertyMap before = valuesOf(text);
    const PropertyChanges changes = {{"a", random() % 2 == 0 ? std::optional<std::string>("new") : std::nullopt},
                                     {"ab", "x:y"}};
    const std::string merged = mergeProperties(text, changes);
    PropertyMap expected = before;
    for (const auto& [key, value] : changes) {
      if (value) {
        expected[key] = *value;
      } else {
        expected.erase(key);
      }
    }
    ASSERT_EQ(valuesOf(merged), expected) << testing::PrintToString(text) << " -> " << testing::PrintToString(merged);
    ASSERT_EQ(mergeProperties(merged, changes), merged);
  }
}

}  // namespace

TEST(PropertiesText, ByteOrderMarkBeginsNoKey) {
  const std::string mark = "\xEF\xBB\xBF";
  const std::string text = "a: 1\n" + mark + "b: 2\n";
  EXPECT_EQ(lumo::parseProperties(text).values.at("b"), "2");
  const std::string merged = lumo::mergeProperties(text, {{"a", std::nullopt}});
  EXPECT_EQ(merged, mark + "b: 2\n");
  EXPECT_EQ(lumo::parseProperties(merged).values.at("b"), "2");
  EXPECT_THROW(lumo::mergeProperties("", {{mark + "c", "3"}}), lumo::BadDataException);
}
