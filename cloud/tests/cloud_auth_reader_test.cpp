// Texts of the peer's choice: numbers of every length, depth and breadth.
#include "cloud/cloud_auth_reader.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cmath>
#include <limits>
#include <string_view>

#include "cloud/include/cloud_auth.h"

namespace {

std::string textOf(const rapidjson::Document& document) {
  std::string text;
  CloudAuth::jsonToString(text, document);
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

TEST(ReadJson, ByteOrderMarkIsPassedOver) { EXPECT_TRUE(readJson("\xEF\xBB\xBF[]").IsArray()); }

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
