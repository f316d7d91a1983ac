// What the login with a session asks, in which order, and what comes of it.
#include <gmock/gmock.h>

#include "cloud/login/tests/cloud_auth_records.h"
#include "cloud/login/tests/cloud_auth_v1_login.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr const char* ANSWER = "correct \"horse\" battery";

}  // namespace

TEST_F(V1Login, StartPostsTheUserAndReadsThePolicy) {
  script({policy()});
  EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(asked(), ElementsAre(start()));
  EXPECT_THAT(textsOf(client->challenges),
              ElementsAre("Challenge_0: required, open: UP,OTP", "Challenge_1: required, open: SMS"));
}

TEST_F(V1Login, StartWithAPayloadIsTheSameWithout) {
  const CloudAuth::Payload payload{{"command", "shell"}};
  for (const CloudAuth::Payload* one : {&payload, static_cast<const CloudAuth::Payload*>(nullptr)}) {
    script({policy()});
    EXPECT_EQ(client->startAuthentication(one), AUTH_NEXT_CHALLENGE);
    EXPECT_THAT(asked(), ElementsAre(start()));
  }
}

TEST_F(V1Login, RefusedStartIsNamed) {
  for (const auto& reply : {refusal(), json("<html>"), json(""), testsupport::httpReply("403 Forbidden"),
                            testsupport::httpReply("500 Internal Server Error", {}, R"({"success":true})")}) {
    script({reply});
    EXPECT_EQ(failureOf([this] { client->startAuthentication(); }), "CloudException -1 Failed to startAuthentication");
    EXPECT_THAT(asked(), ElementsAre(start()));
  }
}

TEST_F(V1Login, RedirectIsFollowedOnce) {
  script({success(R"({"PodFqdn":"127.0.0.1"})"), policy(R"("PodFqdn":"127.0.0.2",)"), summary("Success")});
  EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(asked(), ElementsAre(start(), start("127.0.0.1")));
  EXPECT_EQ(client->podHost, "127.0.0.1");
  EXPECT_EQ(advance("m-up", ACTION_POLL), AUTH_DONE);
  EXPECT_THAT(asked(), ElementsAre(advanced(withSession(R"("Action":"Poll","MechanismId":"m-up")"), "127.0.0.1")));
}

TEST_F(V1Login, PolicyBesideARedirectIsNotRead) {
  script({policy(R"("PodFqdn":"127.0.0.1",)"), refusal()});
  EXPECT_EQ(client->startAuthentication(), AUTH_REQUEST_FAILED);
  EXPECT_THAT(asked(), ElementsAre(start(), start("127.0.0.1")));
  EXPECT_THAT(client->challenges, IsEmpty());
  EXPECT_EQ(client->sessionId, "");
}

TEST_F(V1Login, PodThatIsNoTextIsNoRedirect) {
  for (const char* pod :
       {R"("PodFqdn":null,)", R"("PodFqdn":7,)", R"("PodFqdn":["127.0.0.1"],)", R"("podfqdn":"127.0.0.1",)"}) {
    script({policy(pod)});
    EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
    EXPECT_THAT(asked(), ElementsAre(start())) << pod;
  }
}

TEST_F(V1Login, ActionsHaveTheirWordsAndOnlyAnAnswerIsSent) {
  const std::string answered =
      withSession(R"("Action":"Answer","Answer":"correct \"horse\" battery","MechanismId":"m-up")");
  const std::vector<std::pair<int, std::string>> bodies{
      {ACTION_ANSWER, answered},
      {ACTION_POLL, withSession(R"("Action":"Poll","MechanismId":"m-up")")},
      {ACTION_START_OOB, withSession(R"("Action":"StartOOB","MechanismId":"m-up")")},
      {3, answered},
      {-1, answered}};
  beginWithChallenge();
  for (const auto& [action, body] : bodies) {
    script({summary("OobPending")});
    EXPECT_EQ(advance("m-up", action, ANSWER), AUTH_PENDING);
    EXPECT_THAT(asked(), ElementsAre(advanced(body)));
  }
}

TEST_F(V1Login, EmptyAnswerIsSentToo) {
  beginWithChallenge();
  script({summary("Success")});
  EXPECT_EQ(advance("m-up", ACTION_ANSWER), AUTH_DONE);
  EXPECT_THAT(asked(), ElementsAre(advanced(withSession(R"("Action":"Answer","Answer":"","MechanismId":"m-up")"))));
}

TEST_F(V1Login, StepThatEndsAChallengeMarksIt) {
  const std::vector<std::pair<std::string, int>> ends{{"StartNextChallenge", AUTH_NEXT_CHALLENGE},
                                                      {"LoginSuccess", AUTH_DONE},
                                                      {"Success", AUTH_DONE},
                                                      {"Failure", AUTH_FAILED},
                                                      {"Something", AUTH_FAILED}};
  for (const auto& [word, status] : ends) {
    beginWithChallenge();
    script({summary(word)});
    EXPECT_EQ(advance("m-otp", ACTION_ANSWER, "123456"), status);
    EXPECT_THAT(marks(), ElementsAre("done by m-otp", "open")) << word;
    EXPECT_EQ(client->currentChallenge, "Challenge_0");
  }
}

TEST_F(V1Login, StepThatIsPendingMarksNothing) {
  beginWithChallenge();
  script({summary("OobPending"), summary("OobPending"), summary("StartNextChallenge")});
  EXPECT_EQ(advance("m-otp", ACTION_START_OOB), AUTH_PENDING);
  EXPECT_EQ(advance("m-otp", ACTION_POLL), AUTH_PENDING);
  EXPECT_THAT(marks(), ElementsAre("open", "open"));
  EXPECT_EQ(client->currentChallenge, "Challenge_0");
  EXPECT_EQ(advance("m-otp", ACTION_POLL), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(marks(), ElementsAre("done by m-otp", "open"));
}

TEST_F(V1Login, WithoutAnOpenChallengeNothingIsMarked) {
  script({policy(), summary("StartNextChallenge")});
  ASSERT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  EXPECT_EQ(advance("m-up", ACTION_ANSWER, ANSWER), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(marks(), ElementsAre("open", "open"));
}

TEST_F(V1Login, NewPackageOpensNewChallengesWithNoneDone) {
  beginWithChallenge();
  script({success(policyText(R"("Summary":"NewPackage",)", "s-2")), summary("Success")});
  EXPECT_EQ(advance("m-up", ACTION_ANSWER, ANSWER), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(marks(), ElementsAre("open", "open"));
  EXPECT_EQ(client->currentChallenge, "");
  asked();
  EXPECT_EQ(advance("m-up", ACTION_POLL), AUTH_DONE);
  EXPECT_THAT(asked(),
              ElementsAre(advanced(R"({"Action":"Poll","MechanismId":"m-up","SessionId":"s-2","TenantId":"t-1"})")));
}

TEST_F(V1Login, RefusedStepFailsAndLeavesTheSessionAsItWas) {
  beginWithChallenge();
  for (const auto& reply : {refusal(), json("[]"), testsupport::httpReply("401 Unauthorized"),
                            json(R"({"success":false,"Result":{"Summary":"Success"}})")}) {
    script({reply});
    EXPECT_EQ(advance("m-up", ACTION_ANSWER, ANSWER), AUTH_FAILED);
    EXPECT_THAT(marks(), ElementsAre("open", "open"));
    EXPECT_EQ(client->currentChallenge, "Challenge_0");
  }
  asked();
  script({summary("Success")});
  EXPECT_EQ(advance("m-up", ACTION_POLL), AUTH_DONE);
  EXPECT_THAT(asked(), ElementsAre(advanced(withSession(R"("Action":"Poll","MechanismId":"m-up")"))));
}

TEST_F(V1Login, WholeLoginOverTwoChallenges) {
  script(
      {policy(), summary("StartNextChallenge"), summary("OobPending"), summary("OobPending"), summary("LoginSuccess")});
  ASSERT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  ASSERT_EQ(client->nextChallenge(open), 1);
  EXPECT_EQ(advance(open.mechanisms.at(0).mechanismId, ACTION_ANSWER, ANSWER), AUTH_NEXT_CHALLENGE);
  ASSERT_EQ(client->nextChallenge(open), 1);
  EXPECT_EQ(open.name, "Challenge_1");
  EXPECT_EQ(advance(open.mechanisms.at(0).mechanismId, ACTION_START_OOB), AUTH_PENDING);
  EXPECT_EQ(advance(open.mechanisms.at(0).mechanismId, ACTION_POLL), AUTH_PENDING);
  EXPECT_EQ(advance(open.mechanisms.at(0).mechanismId, ACTION_ANSWER, "123456"), AUTH_DONE);
  EXPECT_THAT(marks(), ElementsAre("done by m-up", "done by m-sms"));
  EXPECT_EQ(client->nextChallenge(open), 0);
  EXPECT_EQ(client->currentChallenge, "");
  EXPECT_EQ(server.connections(), 1) << "one connection from the first step to the last";
}

TEST_F(V1Login, StepWithoutASummaryIsNamedAndMarksNothing) {
  beginWithChallenge();
  for (const char* result : {"{}", "null", "[]", "7", R"({"Summary":7})", R"({"Summary":null})"}) {
    script({success(result)});
    EXPECT_EQ(failureOf([this] { advance("m-up", ACTION_ANSWER, ANSWER); }),
              "CloudException -1 Errors in parsing result from Json: 'Summary' does NOT exist")
        << result;
    EXPECT_THAT(marks(), ElementsAre("open", "open"));
  }
}

TEST_F(V1Login, CutConnectionIsATransferFailureAndTheConnectionIsGivenBack) {
  const auto cutOff = AllOf(StartsWith("CurlException -1 curl error occurred in curl_easy_perform: "),
                            Not(HasSubstr("battery")), Not(HasSubstr("123456")));
  script({cut()});
  EXPECT_THAT(failureOf([this] { client->startAuthentication(); }), cutOff);
  script({success(R"({"PodFqdn":"127.0.0.1"})"), cut()});
  EXPECT_THAT(failureOf([this] { client->startAuthentication(); }), cutOff);
  beginWithChallenge();
  script({cut()});
  EXPECT_THAT(failureOf([this] { advance("m-up", ACTION_ANSWER, ANSWER); }), cutOff);
  EXPECT_THAT(marks(), ElementsAre("open", "open"));
  script({summary("Success")});
  EXPECT_EQ(advance("m-up", ACTION_ANSWER, ANSWER), AUTH_DONE) << "the login goes on over a new connection";
  EXPECT_EQ(access.occupiedCount, 1U);
  client.reset();
  EXPECT_EQ(access.occupiedCount, 0U);
  EXPECT_THAT(log.text(), Not(HasSubstr("battery")));
}

TEST_F(V1Login, PolicyThatCannotBeReadGivesTheConnectionBack) {
  script({success(R"({"SessionId":"s-1","TenantId":"t-1","Version":"1.0","Challenges":[]})")});
  EXPECT_EQ(failureOf([this] { client->startAuthentication(); }),
            "CloudException -1 Errors in parsing policy from Json: no challenges exist");
  client.reset();
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(V1Login, LogTellsTheStepsAndNoSecret) {
  log.newTexts("cloud.object");
  script({policy(), summary("StartNextChallenge"), refusal()});
  ASSERT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  ASSERT_EQ(advance("m-up", ACTION_ANSWER, ANSWER), AUTH_NEXT_CHALLENGE);
  ASSERT_EQ(advance("m-sms", ACTION_ANSWER, "code-of-the-user"), AUTH_FAILED);
  std::vector<std::string> wanted;
  const auto exchange = [&wanted](const std::string& url, const std::string& reply) {
    const std::string call = "post URL = https://localhost/security/" + url + ". with content";
    for (const std::string& record : recordsOfExchange(call, reply)) wanted.push_back(record);
  };
  exchange("StartAuthentication", R"({"success":true,"Result":)" + policyText() + "}");
  exchange("AdvanceAuthentication", R"({"success":true,"Result":{"Summary":"StartNextChallenge"}})");
  exchange("AdvanceAuthentication", R"({"success":false,"Message":"refused"})");
  wanted.emplace_back(
      "DEBUG processResult returns false, error information from cloud errorCode = , errorId = , message = refused, "
      "messageId = .");
  EXPECT_THAT(log.newTexts("cloud.object"), ElementsAreArray(wanted));
  EXPECT_THAT(log.text(), Not(HasSubstr("battery")));
  EXPECT_THAT(log.text(), Not(HasSubstr("code-of-the-user")));
}

TEST_F(V1Login, VersionIsAskedFor) {
  script({success(), refusal()});
  EXPECT_EQ(client->getVersion(), 1);
  EXPECT_EQ(client->getVersion(), 0);
  EXPECT_THAT(asked(), ElementsAre("GET localhost /sysinfo/version", "GET localhost /sysinfo/version"));
}
