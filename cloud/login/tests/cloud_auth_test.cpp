// How replies are read: success, the platform's words, members of every type.
#include "cloud/include/cloud_auth.h"

#include <gmock/gmock.h>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/login/tests/cloud_auth_client.h"
#include "cloud/rest/json_reader.h"
#include "testsupport/log_capture.h"

namespace {

using testing::ElementsAre;

using Client = AuthClient;

std::string textOf(const rapidjson::Value& value) {
  std::string text;
  CloudAuth::jsonToString(text, value);
  return text;
}

rapidjson::Document parsed(const std::string& text) { return readJson(text); }

std::string words(const std::string& code, const std::string& id, const std::string& message,
                  const std::string& messageId) {
  return "DEBUG cloud.object: processResult returns false, error information from cloud errorCode = " + code +
         ", errorId = " + id + ", message = " + message + ", messageId = " + messageId + ".";
}

struct Judged {
  std::string name;
  long status;
  std::string body;
  int verdict;
};

class ProcessResult : public testing::TestWithParam<Judged> {};

}  // namespace

TEST_P(ProcessResult, SaysWhetherTheReplyReportsSuccess) {
  Client client;
  EXPECT_EQ(client.judge(GetParam().status, GetParam().body), GetParam().verdict);
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ProcessResult,
    testing::Values(Judged{"True", 200, R"({"success":true})", 1}, Judged{"False", 200, R"({"success":false})", 0},
                    Judged{"Text", 200, R"({"success":"True"})", 0}, Judged{"Number", 200, R"({"success":1})", 0},
                    Judged{"Null", 200, R"({"success":null})", 0}, Judged{"Object", 200, R"({"success":{}})", 0},
                    Judged{"OtherCase", 200, R"({"Success":true})", 0}, Judged{"Missing", 200, "{}", 0},
                    Judged{"LongerName", 200, R"({"success\u0000":true})", 0},
                    Judged{"Inside", 200, R"({"Result":{"success":true}})", 0},
                    Judged{"FirstOfTwoCounts", 200, R"({"success":true,"success":false})", 1},
                    Judged{"SecondOfTwoDoesNot", 200, R"({"success":false,"success":true})", 0},
                    Judged{"Array", 200, R"([{"success":true}])", 0}, Judged{"BareTrue", 200, "true", 0},
                    Judged{"BareText", 200, "\"success\"", 0}, Judged{"NoJson", 200, "<html></html>", 0},
                    Judged{"Cut", 200, R"({"success":true)", 0}, Judged{"Behind", 200, R"({"success":true} x)", 0},
                    Judged{"Empty", 200, "", 0}, Judged{"OtherStatus", 201, R"({"success":true})", 0},
                    Judged{"NoStatus", 0, R"({"success":true})", 0}, Judged{"Server", 500, R"({"success":true})", 0}),
    [](const auto& test) { return test.param.name; });

TEST(CloudAuth, WordsOfThePlatformAreLogged) {
  Client client;
  const testsupport::LogCapture log;
  EXPECT_EQ(client.judge(200, R"({"success":false,"ErrorCode":"c","ErrorID":"i","Exception":"e",)"
                              R"("InnerException":"n","Message":"m","MessageID":"d"})"),
            0);
  EXPECT_THAT(log.texts(), ElementsAre("DEBUG cloud.object: HTTP code = 200",
                                       "DEBUG cloud.object: Dumping X-MRV-* headers:", words("c", "i", "m", "d")));
}

TEST(CloudAuth, WordsThatAreNoTextAreEmpty) {
  Client client;
  const testsupport::LogCapture log;
  client.judge(200, R"({"ErrorCode":5,"ErrorID":null,"Message":["m"],"MessageID":{"a":"b"}})");
  EXPECT_EQ(log.texts().back(), words("", "", "", ""));
  client.judge(200, "no json");
  EXPECT_EQ(log.texts().back(), words("", "", "", ""));
}

TEST(CloudAuth, BodyIsLoggedAtTheLowestLevelOnly) {
  Client client;
  const testsupport::LogCapture log("TRACE");
  client.judge(200, R"({"success":true})");
  client.judge(401, "other");
  EXPECT_THAT(log.texts(),
              ElementsAre("DEBUG cloud.object: HTTP code = 200", "DEBUG cloud.object: Dumping X-MRV-* headers:",
                          "TRACE cloud.object: HTTP response: {\"success\":true}",
                          "DEBUG cloud.object: HTTP code = 401", "DEBUG cloud.object: Dumping X-MRV-* headers:"));
}

TEST(CloudAuth, DocumentIsOfTheLastReplyWithStatus200) {
  Client client;
  client.judge(200, R"({"success":true,"Result":"first"})");
  client.judge(401, R"({"success":true,"Result":"second"})");
  EXPECT_EQ(textOf(client.document), R"({"success":true,"Result":"first"})");
  client.judge(200, R"({"Result":"third"})");
  EXPECT_EQ(textOf(client.document), R"({"Result":"third"})");
  client.judge(200, R"({"Result":"cut)");
  EXPECT_TRUE(client.document.IsNull());
}

TEST(CloudAuthJson, StringIsReadByItsExactName) {
  const auto document = parsed(R"({"a":"1","A":"2","ab":"3","b":"with\u0000zero","b":"later","n":4,"":"nameless"})");
  std::string out;
  CloudAuth::getJsonString(document, "a", out);
  EXPECT_EQ(out, "1");
  CloudAuth::getJsonString(document, "A", out);
  EXPECT_EQ(out, "2");
  CloudAuth::getJsonString(document, "b", out);
  EXPECT_EQ(out, std::string("with\0zero", 9));
  CloudAuth::getJsonString(document, "", out);
  EXPECT_EQ(out, "nameless");
}

TEST(CloudAuthJson, StrictReadNamesWhatIsMissing) {
  const auto document = parsed(R"({"n":4,"o":{},"l":[],"t":true,"z":null})");
  const rapidjson::Value null;
  const rapidjson::Value text("text");
  for (const char* key : {"n", "o", "l", "t", "z", "missing"}) {
    std::string out = "untouched";
    const std::string wanted =
        std::string("CloudException -1 Errors in parsing result from Json: '") + key + "' does NOT exist";
    EXPECT_EQ(failureOf([&] { CloudAuth::getJsonString(document, key, out); }), wanted);
    EXPECT_EQ(failureOf([&] { CloudAuth::getJsonString(null, key, out); }), wanted);
    EXPECT_EQ(failureOf([&] { CloudAuth::getJsonString(text, key, out); }), wanted);
    EXPECT_EQ(out, "untouched");
  }
}

TEST(CloudAuthJson, LongNameIsCutInTheMessage) {
  const std::string failure = failureOf([] {
    std::string out;
    CloudAuth::getJsonString(rapidjson::Value(), std::string(1000, 'k'), out);
  });
  EXPECT_EQ(failure, ("CloudException -1 Errors in parsing result from Json: '" + std::string(1000, 'k'))
                         .substr(0, std::string("CloudException -1 ").size() + 511));
}

TEST(CloudAuthJson, OptionalReadIsEmptyWhereThereIsNoText) {
  const auto document = parsed(R"({"a":"1","n":4,"z":null})");
  std::string out;
  CloudAuth::getJsonStringOptional(document, "a", out);
  EXPECT_EQ(out, "1");
  for (const char* key : {"n", "z", "missing"}) {
    out = "before";
    CloudAuth::getJsonStringOptional(document, key, out);
    EXPECT_EQ(out, "") << key;
  }
  out = "before";
  CloudAuth::getJsonStringOptional(rapidjson::Value(), "a", out);
  EXPECT_EQ(out, "");
}

TEST(CloudAuthJson, TextIsCompactAndInOrder) {
  for (const char* text : {R"({"z":1,"a":[true,false,null],"m":{"":"\u0001\"\\"},"d":-1.5,"u":"ü"})", "[]", "{}",
                           "[[],{}]", "\"text\"", "null", "12345678901234567890"}) {
    EXPECT_EQ(textOf(parsed(text)), text);
  }
  EXPECT_EQ(textOf(parsed(" { \"b\" : 1 ,\n \"a\" : [ 1 , 2 ] } ")), R"({"b":1,"a":[1,2]})");
}

TEST(CloudAuthJson, TextTakesThePlaceOfTheFormerOne) {
  std::string out = "before";
  CloudAuth::jsonToString(out, parsed("[1]"));
  EXPECT_EQ(out, "[1]");
}

TEST(CloudAuthJson, BodyIsWrittenInTheOrderInWhichItsMembersWereAdded) {
  rapidjson::Document body(rapidjson::kObjectType);
  const std::string user = "alice";
  body.AddMember("User", rapidjson::StringRef(user.data(), user.size()), body.GetAllocator());
  body.AddMember("Version", "1.0", body.GetAllocator());
  body.AddMember("Action", "Start", body.GetAllocator());
  EXPECT_EQ(textOf(body), R"({"User":"alice","Version":"1.0","Action":"Start"})");
  body.RemoveMember("User");
  std::string out;
  CloudAuth::getJsonStringOptional(body, "Action", out);
  EXPECT_EQ(out, "Start");
}

TEST(CloudAuthJson, DepthThatThePeerChoseNeitherCrashesNorHangs) {
  constexpr std::size_t DEPTH = 100000;
  std::string objects;
  for (std::size_t i = 0; i < DEPTH; ++i) objects += "{\"a\":";
  objects += "\"x\"" + std::string(DEPTH, '}');
  for (const std::string& text : {std::string(DEPTH, '[') + std::string(DEPTH, ']'), objects}) {
    Client client;
    EXPECT_EQ(client.judge(200, R"({"success":true,"deep":)" + text + "}"), 1);
    EXPECT_EQ(textOf(CloudAuth::member(client.document, "deep")), text);
    EXPECT_EQ(client.judge(200, text.substr(0, DEPTH)), 0) << "cut within";
    EXPECT_TRUE(client.document.IsNull());
  }
}
