// The policies of the login with a session: which challenges they make, in which words; what the result of a step
// means.
#include <gmock/gmock.h>

#include <ctime>
#include <set>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/login/tests/cloud_auth_records.h"
#include "cloud/login/tests/cloud_auth_v1_client.h"
#include "testsupport/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* NO_CHALLENGES = "CloudException -1 Errors in parsing policy from Json: no challenges exist";

std::string missing(const std::string& key) {
  return "CloudException -1 Errors in parsing result from Json: '" + key + "' does NOT exist";
}

std::string policy(const std::string& challenges, const std::string& more = {}) {
  return R"({"success":true,"Result":{"SessionId":"s-1","TenantId":"t-1","Version":"1.0",)" + more +
         R"("Challenges":[)" + challenges + "]}}";
}

std::string challenge(const std::string& mechanisms) { return R"({"Mechanisms":[)" + mechanisms + "]}"; }

std::string mechanism(const std::string& name, const std::string& more = {}) {
  return R"({"MechanismId":"id-)" + name + R"(","Name":")" + name + "\"" + more + "}";
}

class V1Policy : public testing::Test {
 protected:
  std::string parsed(const std::string& reply) {
    client.judge(reply);
    return failureOf([this] { EXPECT_EQ(client.parsePolicy(), AUTH_NEXT_CHALLENGE); });
  }
  CloudAuthMechanism only(const std::string& mechanism) {
    EXPECT_EQ(parsed(policy(challenge(mechanism))), "nothing thrown");
    return client.challenges.at(0).mechanisms.at(0);
  }
  static std::string selectText(const std::string& name, const std::string& json) {
    return V1Client::getSelectText(name, jsonOf(json));
  }
  static std::string answerPrompt(const std::string& name, const std::string& json) {
    return V1Client::getAnswerPrompt(name, jsonOf(json));
  }

  CloudCurlPoolAccess access;
  V1Client client;
};

constexpr const char* DETAILS = R"({"PartialAddress":"ple.test","PartialDeviceAddress":"55","PartialPhoneNumber":"77",)"
                                R"("Question":"Which pet?"})";

}  // namespace

TEST_F(V1Policy, BeginsWithTheUrlsOfThePlatformAndNobodysCertificates) {
  EXPECT_EQ(client.startUrl, "https://platform.example.test/security/StartAuthentication");
  EXPECT_EQ(client.advanceUrl, "https://platform.example.test/security/AdvanceAuthentication");
  EXPECT_EQ(client.certStore, "");
  EXPECT_EQ(client.sessionId, "");
  EXPECT_EQ(client.tenantId, "");
}

TEST_F(V1Policy, UrlsFollowThePod) {
  client.podHost = "pod7.example.test";
  client.updateUrls();
  EXPECT_EQ(client.startUrl, "https://pod7.example.test/security/StartAuthentication");
  EXPECT_EQ(client.advanceUrl, "https://pod7.example.test/security/AdvanceAuthentication");
}

TEST_F(V1Policy, SelectTextIsOfTheMechanism) {
  const std::vector<std::pair<std::string, std::string>> texts{
      {"UP", "User Password"},
      {"OTP", "Morvane Mobile Authenticator"},
      {"SQ", "Answer Security Question"},
      {"EMAIL", "Email verification code is sent to address: XXXX@ple.test"},
      {"SMS", "SMS verification code is sent to mobile phone: XXXX55"},
      {"PF", "Phone call is sent to number: XXXX77"},
      {"RESET", "New Password"}};
  const testsupport::LogCapture log;
  for (const auto& [name, text] : texts) {
    EXPECT_EQ(selectText(name, DETAILS), text);
    EXPECT_EQ(selectText(name, changed(DETAILS, "/PromptSelectMech", "\"\"")), text) << "an empty text is none";
    EXPECT_EQ(selectText(name, changed(DETAILS, "/PromptSelectMech", "7")), text);
    EXPECT_EQ(selectText(name, changed(DETAILS, "/PromptSelectMech", "\"Pick me.\"")), "Pick me.");
  }
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(V1Policy, SelectTextDoesWithoutDetails) {
  for (const char* details : {"{}", R"({"PartialAddress":1,"PartialDeviceAddress":null,"PartialPhoneNumber":[]})"}) {
    EXPECT_EQ(selectText("EMAIL", details), "Email verification code is sent to address: XXXX@");
    EXPECT_EQ(selectText("SMS", details), "SMS verification code is sent to mobile phone: XXXX");
    EXPECT_EQ(selectText("PF", details), "Phone call is sent to number: XXXX");
  }
}

TEST_F(V1Policy, SelectTextOfAnUnknownMechanismIsItsName) {
  const testsupport::LogCapture log;
  EXPECT_EQ(selectText("U2F", "{}"), "U2F");
  EXPECT_EQ(selectText("up", "{}"), "up");
  EXPECT_EQ(selectText("", "{}"), "");
  EXPECT_EQ(selectText("U2F", R"({"PromptSelectMech":"Touch the key"})"), "Touch the key");
  const std::string before = "DEBUG cloud.object: No select text is available for mechanism(";
  EXPECT_THAT(log.texts(), ElementsAre(before + "U2F) in parsing mechanism select text",
                                       before + "up) in parsing mechanism select text",
                                       before + ") in parsing mechanism select text"));
}

TEST_F(V1Policy, AnswerPromptIsOfTheMechanism) {
  const std::vector<std::pair<std::string, std::string>> texts{
      {"UP", "Please enter user password: "},
      {"OTP",
       "Please press <enter> and then 'Approve' the request on your mobile device or enter your OTP code here: "},
      {"SQ", "Which pet?\nYour answer is: "},
      {"EMAIL",
       "An email has been sent to your registered email address: XXX@ple.test.\nPlease click the link in this email to "
       "do authentication.\nAfter that, press <enter> to finish authentication."},
      {"SMS",
       "A text message is sent to your phone(XXXX55).\nPlease enter the code or click on the link in the message to "
       "proceed: "},
      {"PF",
       "A call is made to your phone (XXXX77).\nPlease follow the instructions to proceed with authentication.\nAfter "
       "that, press <enter> to finish authentication."},
      {"RESET", "Please enter new user password: "}};
  const testsupport::LogCapture log;
  for (const auto& [name, text] : texts) {
    EXPECT_EQ(answerPrompt(name, DETAILS), text);
    EXPECT_EQ(answerPrompt(name, changed(DETAILS, "/PromptMechChosen", "\"\"")), text) << "an empty text is none";
    EXPECT_EQ(answerPrompt(name, changed(DETAILS, "/PromptMechChosen", "[]")), text);
    EXPECT_EQ(answerPrompt(name, changed(DETAILS, "/AnswerType", "\"Redirect\"")), text) << "not finished off";
  }
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(V1Policy, AnswerPromptDoesWithoutDetailsExceptForTheTelephone) {
  for (const char* details : {"{}", R"({"PartialAddress":1,"PartialDeviceAddress":null,"Question":{}})"}) {
    EXPECT_EQ(answerPrompt("SQ", details), "\nYour answer is: ");
    EXPECT_EQ(answerPrompt("EMAIL", details),
              "An email has been sent to your registered email address: XXX@.\nPlease click the link in this email to "
              "do authentication.\nAfter that, press <enter> to finish authentication.");
    EXPECT_EQ(answerPrompt("SMS", details),
              "A text message is sent to your phone(XXXX).\nPlease enter the code or click on the link in the message "
              "to proceed: ");
    EXPECT_EQ(failureOf([&] { answerPrompt("PF", details); }), missing("PartialPhoneNumber"));
  }
  EXPECT_EQ(failureOf([] { answerPrompt("PF", R"({"PartialPhoneNumber":77})"); }), missing("PartialPhoneNumber"));
  EXPECT_EQ(answerPrompt("PF", R"({"PromptMechChosen":"Wait"})"),
            "Wait. After that, please press <enter> to finish authentication.");
}

TEST_F(V1Policy, AnswerPromptOfAnUnknownMechanismSaysSo) {
  const testsupport::LogCapture log;
  EXPECT_EQ(answerPrompt("U2F", "{}"), "Sorry. This mechanism is not supported.");
  EXPECT_EQ(answerPrompt("PF_HOME", R"({"AnswerType":"Text"})"), "Sorry. This mechanism is not supported.");
  EXPECT_EQ(answerPrompt("U2F", R"({"PromptMechChosen":"Touch the key."})"), "Touch the key.");
  const std::string before = "DEBUG cloud.object: No answer prompt is available for mechanism(";
  EXPECT_THAT(log.texts(),
              ElementsAre(before + "U2F) in parsing answer prompt", before + "PF_HOME) in parsing answer prompt"));
}

TEST_F(V1Policy, PromptOfThePlatformIsFinishedOffByTheWayOfAnswering) {
  const std::string text = ": ";
  const std::string oob = ". After that, please press <enter> to finish authentication.";
  const std::string both = ". After that, please press <enter> to finish authentication: ";
  const std::vector<std::pair<std::string, std::string>> ends{
      {"Text", text}, {"StartOob", oob}, {"StartTextOob", both}};
  for (const auto& [answerType, end] : ends) {
    const auto prompt = [type = answerType](const std::string& words) {
      return answerPrompt("U2F", R"({"AnswerType":")" + type + R"(","PromptMechChosen":")" + words + "\"}");
    };
    EXPECT_EQ(prompt("Enter it"), "Enter it" + end);
    for (const char* mark : {",", ".", ":", ";", "!", "?"}) {
      EXPECT_EQ(prompt(std::string("Enter it") + mark), "Enter it" + end);
      EXPECT_EQ(prompt(std::string("Enter it..") + mark), "Enter it.." + end) << "one mark only";
      EXPECT_EQ(prompt(mark), end);
    }
    for (const char* other : {" ", ")", "-", "\\n", "'", "\xc2\xbf", "\\u0000"}) {
      EXPECT_NE(prompt(std::string("Enter it.") + other), "Enter it." + end) << other << " is no closing mark";
    }
    EXPECT_EQ(prompt("Enter it. "), "Enter it. " + end);
  }
  for (const char* answerType : {"Redirect", "DataEntity", "DataEntityList", "Other"}) {
    EXPECT_EQ(answerPrompt("UP", std::string(R"({"AnswerType":")") + answerType + R"(","PromptMechChosen":"Go on."})"),
              "Go on.");
  }
}

TEST_F(V1Policy, PromptOfThePlatformWithoutAnAnswerTypeGoesByTheName) {
  EXPECT_EQ(answerPrompt("UP", R"({"PromptMechChosen":"Password?"})"), "Password: ");
  EXPECT_EQ(answerPrompt("EMAIL", R"({"AnswerType":"","PromptMechChosen":"Look."})"),
            "Look. After that, please press <enter> to finish authentication.");
  EXPECT_EQ(answerPrompt("OTP", R"({"AnswerType":7,"PromptMechChosen":"Code"})"),
            "Code. After that, please press <enter> to finish authentication: ");
}

TEST_F(V1Policy, AnswerTypeIsGivenOrElseOfTheName) {
  const std::vector<std::pair<std::string, int>> given{{"Text", 0},     {"StartOob", 1},   {"StartTextOob", 2},
                                                       {"Redirect", 3}, {"DataEntity", 4}, {"DataEntityList", 5},
                                                       {"text", 6},     {"StartOOB", 6},   {"Other", 6}};
  for (const auto& [word, type] : given) {
    const CloudAuthMechanism one = only(mechanism("UP", R"(,"AnswerType":")" + word + "\""));
    EXPECT_EQ(one.answerType, type) << word;
    EXPECT_EQ(one.outOfBand, type != 0) << word;
  }
  const std::vector<std::pair<std::string, int>> named{{"UP", 0}, {"SQ", 0},    {"RESET", 0}, {"OTP", 2}, {"SMS", 2},
                                                       {"PF", 1}, {"EMAIL", 1}, {"U2F", 6},   {"up", 6},  {"", 6}};
  for (const auto& [name, type] : named) {
    for (const char* more : {"", R"(,"AnswerType":"")", R"(,"AnswerType":0)", R"(,"AnswerType":null)"}) {
      const CloudAuthMechanism one = only(mechanism(name, std::string(more) + R"(,"PartialPhoneNumber":"77")"));
      EXPECT_EQ(one.answerType, type) << name << more;
      EXPECT_EQ(one.outOfBand, type != 0) << name << more;
    }
  }
}

TEST_F(V1Policy, ChallengesAreNumbered) {
  EXPECT_EQ(parsed(policy(challenge(mechanism("UP") + "," + mechanism("OTP")) + "," +
                          challenge(mechanism("SQ", R"(,"Question":"Which pet?")")))),
            "nothing thrown");
  EXPECT_THAT(textsOf(client.challenges),
              ElementsAre("Challenge_0: required, open: UP,OTP", "Challenge_1: required, open: SQ"));
  EXPECT_EQ(textOf(client.challenges[0].mechanisms[0]),
            "UP|id-UP|User Password|Please enter user password: ||0|in band");
  EXPECT_EQ(
      textOf(client.challenges[0].mechanisms[1]),
      "OTP|id-OTP|Morvane Mobile Authenticator|Please press <enter> and then 'Approve' the request on your mobile "
      "device or enter your OTP code here: ||2|oob");
  EXPECT_EQ(textOf(client.challenges[1].mechanisms[0]),
            "SQ|id-SQ|Answer Security Question|Which pet?\nYour answer is: ||0|in band");
  EXPECT_EQ(client.sessionId, "s-1");
  EXPECT_EQ(client.tenantId, "t-1");
}

TEST_F(V1Policy, ChallengeWithoutMechanismsIsKept) {
  EXPECT_EQ(parsed(policy(R"({"Mechanisms":[]},{},{"Mechanisms":null})")), "nothing thrown");
  EXPECT_THAT(textsOf(client.challenges),
              ElementsAre("Challenge_0: required, open", "Challenge_1: required, open", "Challenge_2: required, open"));
}

TEST_F(V1Policy, NewPolicyReplacesTheOldOne) {
  EXPECT_EQ(parsed(policy(challenge(mechanism("UP")) + "," + challenge(mechanism("SMS")))), "nothing thrown");
  CloudAuthChallenge open;
  client.nextChallenge(open);
  EXPECT_EQ(client.currentChallenge, "Challenge_0");
  EXPECT_EQ(parsed(changed(policy(challenge(mechanism("OTP"))), "/Result/SessionId", "\"s-2\"")), "nothing thrown");
  EXPECT_THAT(textsOf(client.challenges), ElementsAre("Challenge_0: required, open: OTP"));
  EXPECT_EQ(client.currentChallenge, "");
  EXPECT_EQ(client.sessionId, "s-2");
}

TEST_F(V1Policy, OtherVersionsAreRefused) {
  for (const char* version : {"1.0S", "", "1", "1.00", " 1.0", "2.0", "1.0\xc3\xbc"}) {
    EXPECT_EQ(
        parsed(changed(policy(challenge(mechanism("UP"))), "/Result/Version", std::string("\"") + version + "\"")),
        std::string("CloudException -1 Errors in parsing policy from Json: 'Version' = '") + version + "' but NOT V1");
  }
  EXPECT_EQ(
      parsed(changed(policy(challenge(mechanism("UP"))), "/Result/Version", R"("2\n\u001b[2J\u202e")")),
      "CloudException -1 Errors in parsing policy from Json: 'Version' = '2\\n\\x1b[2J\\xe2\\x80\\xae' but NOT V1");
  EXPECT_THAT(client.challenges, IsEmpty());
  EXPECT_EQ(parsed(changed(policy(""), "/Result/Version", "\"" + std::string(1 << 20, 'v') + "\"")),
            ("CloudException -1 Errors in parsing policy from Json: 'Version' = '" + std::string(600, 'v'))
                .substr(0, std::string("CloudException -1 ").size() + 511));
}

TEST_F(V1Policy, RefusedPolicyLeavesTheChallengesAndTakesTheSession) {
  ASSERT_EQ(parsed(policy(challenge(mechanism("UP")))), "nothing thrown");
  CloudAuthChallenge open;
  client.nextChallenge(open);
  std::string next = changed(policy(challenge(mechanism("OTP"))), "/Result/SessionId", "\"s-2\"");
  next = changed(next, "/Result/TenantId", "\"t-2\"");
  for (const char* place : {"/Result/Version", "/Result/Challenges"}) {
    EXPECT_NE(parsed(changed(next, place, "")), "nothing thrown");
    EXPECT_THAT(textsOf(client.challenges), ElementsAre("Challenge_0: required, open: UP"));
    EXPECT_EQ(client.currentChallenge, "Challenge_0");
    EXPECT_EQ(client.sessionId + client.tenantId, "s-2t-2");
  }
  EXPECT_EQ(parsed(changed(changed(next, "/Result/TenantId", ""), "/Result/SessionId", "\"s-3\"")),
            missing("TenantId"));
  EXPECT_EQ(client.sessionId + client.tenantId, "s-3t-2") << "read in that order";
}

TEST_F(V1Policy, PolicyThatFailsMidwayKeepsTheChallengesBefore) {
  ASSERT_EQ(parsed(policy(challenge(mechanism("UP")))), "nothing thrown");
  EXPECT_EQ(parsed(policy(challenge(mechanism("OTP")) + "," + challenge(mechanism("SMS") + R"(,{"Name":"PF"})"))),
            missing("MechanismId"));
  EXPECT_THAT(textsOf(client.challenges), ElementsAre("Challenge_0: required, open: OTP"));
}

TEST_F(V1Policy, MembersThatMustBeThereAreNamed) {
  const std::string good = policy(challenge(mechanism("PF", R"(,"PartialPhoneNumber":"7")")));
  for (const char* value : {"", "null", "1", "true", "{}", "[]", "[\"x\"]"}) {
    for (const char* key : {"SessionId", "TenantId", "Version"}) {
      EXPECT_EQ(parsed(changed(good, std::string("/Result/") + key, value)), missing(key)) << value;
    }
    EXPECT_THAT(client.challenges, IsEmpty());
    for (const char* key : {"MechanismId", "Name", "PartialPhoneNumber"}) {
      EXPECT_EQ(parsed(changed(good, std::string("/Result/Challenges/0/Mechanisms/0/") + key, value)), missing(key))
          << value;
    }
  }
  for (const char* value : {"", "null", "1", "true", "\"text\"", "{}", "[]", R"({"0":{"Mechanisms":[]}})"}) {
    EXPECT_EQ(parsed(changed(good, "/Result/Challenges", value)), NO_CHALLENGES) << value;
  }
  for (const char* value : {"null", "1", "true", "\"text\"", "[]"}) {
    EXPECT_EQ(parsed(changed(good, "/Result/Challenges/0", value)), missing("Mechanisms")) << value;
    EXPECT_EQ(parsed(changed(good, "/Result/Challenges/0/Mechanisms/0", value)), missing("MechanismId")) << value;
  }
  for (const char* value : {"1", "true", "\"text\"", "{}", R"({"0":{"Name":"UP"}})"}) {
    EXPECT_EQ(parsed(changed(good, "/Result/Challenges/0/Mechanisms", value)), missing("Mechanisms")) << value;
  }
  EXPECT_EQ(parsed(policy(challenge("{}"))), missing("MechanismId")) << "read before the name";
  for (const char* value : {"", "null", "1", "true", "\"text\"", "{}", "[]"}) {
    EXPECT_EQ(parsed(changed(good, "/Result", value)), missing("SessionId")) << value;
  }
  for (const char* body : {"", "<html></html>", "[]", "7", "null", "\"text\""}) {
    EXPECT_EQ(parsed(body), missing("SessionId")) << body;
  }
}

TEST_F(V1Policy, EmptyAndHugeTextsAreTexts) {
  const std::string huge(1 << 20, 'x');
  EXPECT_EQ(parsed(R"({"Result":{"SessionId":"","TenantId":"","Version":"1.0","Challenges":[{"Mechanisms":)"
                   R"([{"MechanismId":"","Name":"","PromptSelectMech":"","PromptMechChosen":"","AnswerType":""}]}]}})"),
            "nothing thrown");
  EXPECT_EQ(textOf(client.challenges.at(0).mechanisms.at(0)), "|||Sorry. This mechanism is not supported.||6|oob");
  EXPECT_EQ(parsed(R"({"Result":{"SessionId":")" + huge + R"(","TenantId":")" + huge +
                   R"(","Version":"1.0","Challenges":[{"Mechanisms":[{"MechanismId":")" + huge + R"(","Name":")" +
                   huge + R"(","PromptSelectMech":")" + huge + R"(","PromptMechChosen":")" + huge +
                   R"(","AnswerType":")" + huge + "\"}]}]}}"),
            "nothing thrown");
  EXPECT_EQ(client.sessionId, huge);
  EXPECT_EQ(client.tenantId, huge);
  EXPECT_EQ(textOf(client.challenges.at(0).mechanisms.at(0)), huge + "|" + huge + "|" + huge + "|" + huge + "||6|oob");
}

TEST_F(V1Policy, HundredThousandChallengesAreReadWithoutASearchForEach) {
  constexpr std::size_t COUNT = 100000;
  std::string challenges = challenge(mechanism("UP"));
  for (std::size_t i = 1; i < COUNT; ++i) challenges += "," + challenge(mechanism("SQ"));
  client.judge(policy(challenges));
  const std::clock_t before = std::clock();
  EXPECT_EQ(client.parsePolicy(), AUTH_NEXT_CHALLENGE);
  EXPECT_LT((std::clock() - before) / CLOCKS_PER_SEC, 10) << "seconds of processor time";
  std::set<std::string> names;
  for (const CloudAuthChallenge& one : client.challenges) names.insert(one.name);
  EXPECT_EQ(names.size(), COUNT);
  EXPECT_EQ(client.challenges.back().name, "Challenge_99999");
}

TEST_F(V1Policy, SummarySaysWhatComesNext) {
  const std::vector<std::pair<std::string, int>> summaries{{"StartNextChallenge", AUTH_NEXT_CHALLENGE},
                                                           {"OobPending", AUTH_PENDING},
                                                           {"LoginSuccess", AUTH_DONE},
                                                           {"Success", AUTH_DONE},
                                                           {"Failure", AUTH_FAILED},
                                                           {"", AUTH_FAILED},
                                                           {"success", AUTH_FAILED},
                                                           {"OOBPending", AUTH_FAILED},
                                                           {"Success ", AUTH_FAILED},
                                                           {std::string(1 << 20, 's'), AUTH_FAILED},
                                                           {"Success\\u0000", AUTH_FAILED}};
  for (const auto& [summary, status] : summaries) {
    client.judge(R"({"success":true,"Result":{"Summary":")" + summary + "\"}}");
    EXPECT_EQ(client.parseAdvanceResult(), status) << summary.substr(0, 40);
  }
}

TEST_F(V1Policy, NewPackageIsAPolicy) {
  client.judge(policy(challenge(mechanism("OTP")), R"("Summary":"NewPackage",)"));
  EXPECT_EQ(client.parseAdvanceResult(), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(textsOf(client.challenges), ElementsAre("Challenge_0: required, open: OTP"));
  client.judge(R"({"success":true,"Result":{"Summary":"NewPackage"}})");
  EXPECT_EQ(failureOf([this] { client.parseAdvanceResult(); }), missing("SessionId"));
}

TEST_F(V1Policy, ResultWithoutASummaryIsNamed) {
  for (const char* body :
       {"", "{}", "[]", R"({"Result":null})", R"({"Result":[]})", R"({"Result":{}})", R"({"Result":{"Summary":1}})",
        R"({"Result":{"summary":"Success"}})", R"({"Summary":"Success"})"}) {
    client.judge(body);
    EXPECT_EQ(failureOf([this] { client.parseAdvanceResult(); }), missing("Summary")) << body;
  }
}
