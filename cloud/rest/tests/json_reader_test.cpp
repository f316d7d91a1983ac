// Texts of the peer's choice: numbers of every length, depth and breadth.
#include "cloud/rest/json_reader.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cmath>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "cloud/rest/json_reply.h"

namespace {

std::string textOf(const rapidjson::Document& document) {
  std::string text;
  lumo::jsonToString(text, document);
  return text;
}

constexpr double LARGEST = std::numeric_limits<double>::max();
constexpr double SMALLEST = std::numeric_limits<double>::denorm_min();

struct Number {
  std::string text;
  double value;
};

}  // namespace

TEST(ReadJson, NumberIsTheNearestDouble) {
  const std::string zeros(1000, '0');
  const Number numbers[] = {
      {"44444444444440444444444444444444444444444444444",
       4.4444444444440447e+46},                                          // an ulp off in the library's usual way
      {"1.00000000000000011102230246251565404236316680908203125", 1.0},  // half way: the even one
      {"1.00000000000000011102230246251565404236316680908203126", 1.0000000000000002},
      {"9007199254740993.0", 9007199254740992.0},
      {"0." + zeros + "1", 0.0},
      {"0." + zeros + "1e1001", 1.0},
      {"-1e-400", -0.0},
      {"4.9e-324", SMALLEST},
      {"1.7976931348623157e308", LARGEST},
      {"-1.79769313486231580e+308", -LARGEST},
      {"0." + std::string(100000, '3'), 1.0 / 3},
  };
  for (const auto& [text, value] : numbers) {
    const rapidjson::Document document = readJson(text);
    ASSERT_TRUE(document.IsDouble()) << text;
    EXPECT_EQ(document.GetDouble(), value) << text;
    EXPECT_EQ(std::signbit(document.GetDouble()), std::signbit(value)) << text;
    const std::string once = textOf(document);
    EXPECT_EQ(textOf(readJson(once)), once);
  }
}

TEST(ReadJson, WholeNumberStaysWholeAsFarAsItFits) {
  EXPECT_EQ(readJson("-9223372036854775808").GetInt64(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(readJson("18446744073709551615").GetUint64(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_TRUE(readJson("2147483647").IsInt());
  EXPECT_TRUE(readJson("-0").IsInt());
  EXPECT_TRUE(readJson("18446744073709551616").IsDouble());
  EXPECT_TRUE(readJson("-9223372036854775809").IsDouble());
  EXPECT_TRUE(readJson("1e2").IsDouble());
  for (const char* text : {"-9223372036854775808", "18446744073709551615", "0", "-1"}) {
    EXPECT_EQ(textOf(readJson(text)), text);
  }
}

TEST(ReadJson, NumberTooLargeIsNoJson) {
  for (const std::string& text : {std::string("1e309"), std::string("-1.7976931348623159e308"), std::string(400, '9'),
                                  std::string("[1e99999999999]"), std::string("[1,1e400]")}) {
    EXPECT_TRUE(readJson(text).IsNull()) << text;
  }
}

TEST(ReadJson, NumberEndsWhereTheTextSaysSo) {
  // As C reads numbers, some of these would go on.
  const std::pair<const char*, double> first[] = {
      {"[1.5,2]", 1.5}, {"[1.5 ]", 1.5}, {"[-0.0\n,0]", 0.0}, {"[1e2]", 100}, {"[25e-1,1]", 2.5}};
  for (const auto& [text, value] : first) EXPECT_EQ(readJson(text)[0].GetDouble(), value) << text;
  for (const char* text : {"[0x1.8p1]", "[0.5p1]", "[1.5f]", "[0.5 5]", "[1e2e3]", "[1.5.5]", "1.5x", "[1.]", "[.5]"}) {
    EXPECT_TRUE(readJson(text).IsNull()) << text;
  }
}

TEST(ReadJson, StringOfEveryLengthIsReadWithItsEscapes) {
  const std::pair<std::string, std::string> escapes[] = {
      {"", ""},         {"\\\\", "\\"},
      {"\\\"", "\""},   {"\\/\\n\\t", "/\n\t"},
      {"\\u00e9", "é"}, {"\\ud83d\\ude00", "\xF0\x9F\x98\x80"},
      {"é", "é"},       {"\\u0000", std::string(1, '\0')},
  };
  for (std::size_t before = 0; before <= 40; ++before) {
    for (const auto& [written, meant] : escapes) {
      for (const std::size_t behind : {std::size_t{0}, std::size_t{1}, std::size_t{17}}) {
        const std::string text = "[\"" + std::string(before, 'b') + written + std::string(behind, 'e') + "\",7]";
        const rapidjson::Document document = readJson(text);
        ASSERT_TRUE(document.IsArray()) << text;
        EXPECT_EQ(std::string(document[0].GetString(), document[0].GetStringLength()),
                  std::string(before, 'b') + meant + std::string(behind, 'e'));
        EXPECT_EQ(document[1].GetInt(), 7) << text;
      }
    }
  }
}

TEST(ReadJson, OpenStringAndControlCharacterAreNoJson) {
  for (std::size_t before = 0; before <= 40; ++before) {
    const std::string start = "[\"" + std::string(before, 'b');
    for (const std::string& end : {std::string(), std::string("\n\"]"), std::string(1, '\0') + "\"]", std::string("\\"),
                                   std::string("\\x\"]"), std::string("\\ud83d\"]"), std::string("\\u12")}) {
      EXPECT_TRUE(readJson(start + end).IsNull()) << before << end;
    }
    for (char control = 1; control < ' '; ++control) {
      EXPECT_TRUE(readJson(start + control + "\"]").IsNull()) << before << " " << int{control};
    }
  }
}

TEST(ReadJson, TextMayBeAPieceOfALongerOneAndGo) {
  std::string whole = "xx{\"a\":\"value\",\"b\":12}34";
  const rapidjson::Document document = readJson(std::string_view(whole).substr(2, whole.size() - 4));
  whole.assign(whole.size(), 'x');
  EXPECT_EQ(textOf(document), "{\"a\":\"value\",\"b\":12}");
  EXPECT_TRUE(readJson(std::string_view("12", 1)) == 1);
  EXPECT_TRUE(readJson({}).IsNull());
}

TEST(ReadJson, LongTextOfEveryLengthIsReadToItsEnd) {
  for (std::size_t length = 70000; length < 70020; ++length) {
    const std::string text = "\"" + std::string(length, 'x') + "\"";
    EXPECT_EQ(readJson(text).GetStringLength(), length);
    EXPECT_TRUE(readJson(text.substr(0, text.size() - 1)).IsNull());
  }
}

TEST(ReadJson, ByteOrderMarkIsPassedOver) {
  EXPECT_TRUE(readJson("\xEF\xBB\xBF[]").IsArray());
  EXPECT_TRUE(readJson("\xEF\xBB\xBF").IsNull());
  EXPECT_TRUE(readJson("\xEF\xBB[]").IsNull());
}

TEST(ReadJson, DepthHasALimit) {
  const JsonLimits limits{3, 100};
  for (const char* text : {"[[[0]]]", "[{\"a\":[]}]", "[[[]],[[]],{\"a\":{}},[[1]],[],{}]"}) {
    EXPECT_TRUE(readJson(text, limits).IsArray()) << text;
  }
  for (const char* text : {"[[[[]]]]", "[[[{}]]]", "{\"a\":{\"a\":{\"a\":{}}}}", "[[],[[[]]]]"}) {
    EXPECT_TRUE(readJson(text, limits).IsNull()) << text;
  }
}

TEST(ReadJson, NumberOfValuesHasALimit) {
  const JsonLimits limits{100, 6};
  const std::string_view most[] = {"[null,true,\"\",-1.5,0]", "{\"a\":{\"b\":[]},\"c\":[1],\"d\":{}}", "[[[[[[]]]]]]"};
  for (const std::string_view text : most) {
    EXPECT_FALSE(readJson(std::string(text), limits).IsNull()) << text;
    EXPECT_TRUE(readJson("[" + std::string(text) + "]", limits).IsNull()) << text;
  }
}

TEST(ReadJson, BracketsAloneTakeLittleMemory) {
  const std::string text(64U << 20U, '[');
  rusage before{};
  rusage after{};
  getrusage(RUSAGE_SELF, &before);
  EXPECT_TRUE(readJson(text).IsNull());
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 256 * 1024) << "KiB; 1,500,000 without limits";
}
