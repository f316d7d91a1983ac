// Refusals, bad replies and cut connections in the oldest login; what the log tells of it.
#include <gmock/gmock.h>

#include <stdexcept>

#include "cloud/login/tests/cloud_auth_v0_login.h"

namespace {

using testing::AllOf;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

}  // namespace

TEST_F(V0Login, RefusedStepsOfThePasswordAreNamed) {
  const std::string first = "CloudException -1 Failed to authenticate password using REST API MultiAuthLogin";
  const std::string second = "CloudException -1 Failed to authenticate password using REST API MoveToNextLoginPage";
  for (const auto& reply : {refusal(), json(""), testsupport::httpReply("401 Unauthorized")}) {
    begin(passwordAlone());
    script({reply});
    EXPECT_EQ(advanceFailure("UP", ACTION_ANSWER, PASSWORD), first);
    EXPECT_EQ(asked().size(), 1U);
    script({success(), reply});
    EXPECT_EQ(advanceFailure("UP", ACTION_ANSWER, PASSWORD), second);
    EXPECT_EQ(asked().size(), 2U);
    beginWithPasswordHeld();
    script({reply});
    EXPECT_EQ(advanceFailure("SMS", ACTION_START_OOB), first);
    script({success(), reply});
    EXPECT_EQ(advanceFailure("SMS", ACTION_START_OOB), second);
    EXPECT_FALSE(client->passwordSent);
  }
}

TEST_F(V0Login, FailedPollsAreNamed) {
  beginWithPasswordSent();
  for (const auto& reply : {refusal(), json("[]"), testsupport::httpReply("404 Not Found")}) {
    script({reply});
    EXPECT_EQ(advanceFailure("SMS", ACTION_POLL), "CloudException -1 REST API for polling returns failure");
  }
  for (const char* result :
       {"{}", "null", "[]", "7", R"({"status":7})", R"({"status":null})", R"({"Status":"Move"})"}) {
    script({success(result)});
    EXPECT_EQ(advanceFailure("SMS", ACTION_POLL),
              "CloudException -1 Errors in parsing result from Json: 'status' does NOT exist")
        << result;
  }
  script({success(R"({"status":"Wait"})")});
  EXPECT_EQ(advance("SMS", ACTION_POLL), AUTH_PENDING) << "the login goes on";
}

TEST_F(V0Login, CutConnectionIsATransferFailureAndTheConnectionIsGivenBack) {
  const auto cutOff = AllOf(StartsWith("CurlException -1 curl error occurred in curl_easy_perform: "),
                            Not(HasSubstr("battery")), Not(HasSubstr("123456")));
  script({cut()});
  EXPECT_THAT(failureOf([this] { client->startAuthentication(); }), cutOff);
  beginWithPasswordHeld();
  for (int good = 0; good < 3; ++good) {
    script({success(), success(), cut()});
    if (good == 0) script({cut()});
    if (good == 1) script({success(), cut()});
    EXPECT_THAT(advanceFailure("SMS", ACTION_ANSWER, "123456"), cutOff);
    EXPECT_FALSE(client->passwordSent);
  }
  beginWithPasswordSent();
  script({cut()});
  EXPECT_THAT(advanceFailure("SMS", ACTION_POLL), cutOff);
  script({cut()});
  EXPECT_THAT(advanceFailure("SMS", ACTION_ANSWER, "123456"), cutOff);
  EXPECT_EQ(access.occupiedCount, 1U);
  client.reset();
  EXPECT_EQ(access.occupiedCount, 0U);
  EXPECT_THAT(log.text(), Not(HasSubstr("battery")));
}

TEST_F(V0Login, PolicyThatCannotBeReadGivesTheConnectionBack) {
  script({success(R"({"recId":"r-1","mechs":[]})"), policy(R"({"mechId":"OTP","required":"True"})")});
  EXPECT_EQ(failureOf([this] { client->startAuthentication(); }),
            "CloudException -1 Errors in parsing policy from Json: no mechanisms exist");
  EXPECT_THROW(client->startAuthentication(), std::out_of_range);
  client.reset();
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(V0Login, LogTellsTheStepsAndNoSecret) {
  log.newTexts("cloud.object");
  script({policy(mechanism("UP", "True") + "," + mechanism("SMS", "False")), success(), success(), success(),
          success(R"({"status":"Wait"})"), refusal()});
  ASSERT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  ASSERT_EQ(advance("UP", ACTION_ANSWER, PASSWORD), AUTH_NEXT_CHALLENGE);
  ASSERT_EQ(advance("SMS", ACTION_POLL), AUTH_PENDING);
  ASSERT_EQ(advance("SMS", ACTION_ANSWER, "code-of-the-user"), AUTH_FAILED);
  EXPECT_TRUE(scriptIsOver());
  std::vector<std::string> wanted;
  const auto exchange = [&wanted](const std::string& call, const std::string& reply) {
    for (const std::string& record : recordsOfExchange(call, reply)) wanted.push_back(record);
  };
  const std::string loginPost = "post with params URL = https://localhost/security/MultiAuthLogin. content: (hidden)";
  const std::string movePost =
      "post with params URL = https://localhost/security/MoveToNextLoginPage. content: (hidden)";
  const std::string fine = R"({"success":true,"Result":{}})";
  exchange("get with params URL = https://localhost/security/GetAuthPolicy",
           R"({"success":true,"Result":{"recId":"r-1","mechs":[)" + mechanism("UP", "True") + "," +
               mechanism("SMS", "False") + "]}}");
  exchange(loginPost, fine);
  exchange(movePost, fine);
  exchange(loginPost, fine);
  exchange(movePost, R"({"success":true,"Result":{"status":"Wait"}})");
  exchange(loginPost, R"({"success":false,"Message":"refused"})");
  wanted.emplace_back(
      "DEBUG processResult returns false, error information from cloud errorCode = , errorId = , message = refused, "
      "messageId = .");
  EXPECT_THAT(log.newTexts("cloud.object"), ElementsAreArray(wanted));
  EXPECT_THAT(log.text(), Not(HasSubstr("battery")));
  EXPECT_THAT(log.text(), Not(HasSubstr("code-of-the-user")));
}
