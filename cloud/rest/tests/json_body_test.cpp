// The bodies of requests: their members' order, their text.
#include "cloud/rest/json_body.h"

#include <gtest/gtest.h>

#include <string>

TEST(JsonBody, IsAnEmptyObjectAtFirst) { EXPECT_EQ(JsonBody().text(), "{}"); }

TEST(JsonBody, HoldsItsMembersInTheOrderOfTheirNamesFirstComing) {
  JsonBody body;
  body.set("Version", "1.0").set("Action", "Answer").set("Empty", "");
  EXPECT_EQ(body.text(), R"({"Version":"1.0","Action":"Answer","Empty":""})");
  body.set("Version", "2.0");
  EXPECT_EQ(body.text(), R"({"Version":"2.0","Action":"Answer","Empty":""})");
  body.remove("Version");
  body.remove("none");
  EXPECT_EQ(body.text(), R"({"Action":"Answer","Empty":""})");
  body.set("Version", lumo::Shredder2("1.0"));
  EXPECT_EQ(body.text(), R"({"Action":"Answer","Empty":"","Version":"1.0"})");
}

TEST(JsonBody, EscapesWhatJsonWantsEscaped) {
  JsonBody body;
  body.set("a\"b", std::string("\"\\/\b\f\n\r\t\0\x1f\x7f", 11) + "ü€😀");
  EXPECT_EQ(body.text(), "{\"a\\\"b\":\"\\\"\\\\/\\b\\f\\n\\r\\t\\u0000\\u001F\x7fü€😀\"}");
}

TEST(JsonBody, HoldsALongText) {
  const std::string text(1 << 20, 'x');
  EXPECT_EQ(JsonBody().set("long", text).text(), "{\"long\":\"" + text + "\"}");
}
