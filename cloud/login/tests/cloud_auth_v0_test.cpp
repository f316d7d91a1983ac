// The policies of the oldest login: which challenges they make, in which words.
#include <gmock/gmock.h>

#include <stdexcept>
#include <type_traits>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/login/tests/cloud_auth_records.h"
#include "cloud/login/tests/cloud_auth_v0_client.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

static_assert(std::is_same_v<decltype(V0Client::password), lumo::Shredder2>);

constexpr const char* NO_MECHANISMS = "CloudException -1 Errors in parsing policy from Json: no mechanisms exist";

std::string missing(const std::string& key) {
  return "CloudException -1 Errors in parsing result from Json: '" + key + "' does NOT exist";
}

std::string policy(const std::string& mechanisms, const std::string& more = {}) {
  return R"({"success":true,"Result":{"recId":"r-1",)" + more + R"("mechs":[)" + mechanisms + "]}}";
}

std::string mechanism(const std::string& name, const std::string& required = "False", const std::string& more = {}) {
  return R"({"mechId":")" + name + R"(","required":")" + required + R"(","msg":"First. Second. Third.")" + more + "}";
}

struct Known {
  std::string name;
  std::string record;
};

class V0Policy : public testing::Test {
 protected:
  std::string parsed(const std::string& reply) {
    client.judge(reply);
    return failureOf([this] { EXPECT_EQ(client.parsePolicy(), AUTH_NEXT_CHALLENGE); });
  }
  CloudAuthMechanism only(const std::string& mechanism) {
    client.challenges.clear();
    EXPECT_EQ(parsed(policy(mechanism)), "nothing thrown");
    return client.challenges.at(0).mechanisms.at(0);
  }

  CloudCurlPoolAccess access;
  V0Client client;
};

}  // namespace

TEST_F(V0Policy, BeginsWithTheUrlsOfThePlatform) {
  EXPECT_EQ(client.multiAuthLoginUrl, "https://platform.example.test/security/MultiAuthLogin");
  EXPECT_EQ(client.moveToNextLoginPageUrl, "https://platform.example.test/security/MoveToNextLoginPage");
  EXPECT_EQ(client.getAuthPolicyUrl, "https://platform.example.test/security/GetAuthPolicy");
  EXPECT_FALSE(client.passwordSent);
  EXPECT_TRUE(client.password.empty());
}

TEST_F(V0Policy, UrlsFollowThePod) {
  client.podHost = "pod7.example.test";
  client.updateUrls();
  EXPECT_EQ(client.multiAuthLoginUrl, "https://pod7.example.test/security/MultiAuthLogin");
  EXPECT_EQ(client.moveToNextLoginPageUrl, "https://pod7.example.test/security/MoveToNextLoginPage");
  EXPECT_EQ(client.getAuthPolicyUrl, "https://pod7.example.test/security/GetAuthPolicy");
}

TEST_F(V0Policy, EachMechanismHasItsTextsAndItsWayOfAnswering) {
  const std::vector<Known> known{
      {"UP", "UP|UP|UP|Please enter user password||0|in band"},
      {"OTP",
       "OTP|OTP|OTP|Please enter RETURN and then 'Approve' the request on your mobile device or enter your OTP code "
       "here|First.\nSecond. Third.|2|in band"},
      {"SMS",
       "SMS|SMS|SMS|Please enter RETURN to finish authentication by clicking the link in your message or enter your "
       "code here|First.\nSecond. Third.|2|oob"},
      {"SQ", "SQ|SQ|SQ|Which pet?\nYour answer is||0|in band"},
      {"EMAIL",
       "EMAIL|EMAIL|EMAIL||An email has been sent to your registered email address.\nPlease click the link in this "
       "email to finish authentication.|1|oob"},
      {"PF", "PF|PF|PF||First.\nSecond. Third.|1|oob"},
      {"RESET", "RESET|RESET|RESET|||0|in band"},
      {"PF_HOME", "PF_HOME|PF_HOME|PF_HOME|||6|oob"},
      {"up", "up|up|up|||6|oob"},
      {"U2F", "U2F|U2F|U2F|||6|oob"},
      {"", "|||||6|oob"},
  };
  for (const Known& one : known) {
    client.challenges.clear();
    ASSERT_EQ(parsed(policy(mechanism(one.name), R"("securityquestion":"Which pet?",)")), "nothing thrown");
    EXPECT_EQ(textOf(client.challenges.at(0).mechanisms.at(0)), one.record);
  }
  EXPECT_EQ(client.recId, "r-1");
  EXPECT_EQ(client.securityQuestion, "Which pet?");
}

TEST_F(V0Policy, QuestionThatIsMissingIsEmpty) { EXPECT_EQ(only(mechanism("SQ")).answerPrompt, "\nYour answer is"); }

TEST_F(V0Policy, FieldLabelNamesTheLine) {
  const std::vector<std::pair<std::string, std::string>> lines{{R"("home")", "PF_HOME"},
                                                               {R"("office")", "PF_OFFICE"},
                                                               {R"("mobile")", "PF_MOBILE"},
                                                               {R"("")", "PF"},
                                                               {R"("Home")", "PF"},
                                                               {R"("PF_HOME")", "PF"},
                                                               {"7", "PF"},
                                                               {"null", "PF"}};
  for (const auto& [label, mechanismId] : lines) {
    EXPECT_EQ(textOf(only(mechanism("PF", "False", R"(,"fieldLabel":)" + label))),
              "PF|" + mechanismId + "|" + mechanismId + "||First.\nSecond. Third.|1|oob")
        << label;
  }
  EXPECT_EQ(only(mechanism("SMS", "False", R"(,"fieldLabel":"home")")).mechanismId, "SMS");
}

TEST_F(V0Policy, FieldTextReplacesTheSelectText) {
  EXPECT_EQ(only(mechanism("PF", "False", R"(,"fieldLabel":"home","fieldText":"Call me")")).selectText, "Call me");
  EXPECT_EQ(only(mechanism("UP", "False", R"(,"fieldText":"")")).selectText, "") << "an empty text is a text";
  EXPECT_EQ(only(mechanism("UP", "False", R"(,"fieldText":{})")).selectText, "UP");
}

TEST_F(V0Policy, MessageIsBrokenBehindItsFirstSentence) {
  const auto message = [this](const std::string& words) {
    return only(R"({"mechId":"OTP","required":"False","msg":")" + words + "\"}").message;
  };
  EXPECT_EQ(message("One. Two."), "One.\nTwo.");
  EXPECT_EQ(message("One.  Two."), "One.\n Two.");
  EXPECT_EQ(message(". "), ".\n");
  EXPECT_EQ(message("Ends in a blank. "), "Ends in a blank.\n");
}

TEST_F(V0Policy, MessageOfOneSentenceIsOutOfRange) {
  for (const char* name : {"OTP", "SMS", "PF"}) {
    for (const char* message : {"", R"(,"msg":"")", R"(,"msg":"One sentence.")", R"(,"msg":7)", R"(,"msg":null)"}) {
      client.judge(policy(std::string(R"({"mechId":")") + name + R"(","required":"True")" + message + "}"));
      EXPECT_THROW(client.parsePolicy(), std::out_of_range) << name << message;
    }
  }
  for (const char* name : {"UP", "SQ", "EMAIL", "RESET", "U2F"}) {
    EXPECT_EQ(parsed(policy(std::string(R"({"mechId":")") + name + R"(","required":"False"})")), "nothing thrown");
  }
  EXPECT_THAT(textsOf(client.challenges),
              ElementsAre("Challenge2 optional: optional, open: UP", "Challenge2 optional: optional, open: SQ",
                          "Challenge2 optional: optional, open: EMAIL", "Challenge2 optional: optional, open: RESET",
                          "Challenge2 optional: optional, open: U2F"));
}

TEST_F(V0Policy, RequiredMechanismIsOneChallengeAndTheOthersShareAnother) {
  EXPECT_EQ(parsed(policy(mechanism("UP", "True") + "," + mechanism("SMS") + "," + mechanism("EMAIL"))),
            "nothing thrown");
  EXPECT_THAT(textsOf(client.challenges),
              ElementsAre("Challenge1 required: required, open: UP", "Challenge2 optional: optional, open: SMS,EMAIL"));
}

TEST_F(V0Policy, ChallengesStandInTheOrderOfTheirFirstMechanisms) {
  EXPECT_EQ(parsed(policy(mechanism("SMS") + "," + mechanism("UP", "True") + "," + mechanism("EMAIL"))),
            "nothing thrown");
  EXPECT_THAT(textsOf(client.challenges),
              ElementsAre("Challenge2 optional: optional, open: SMS,EMAIL", "Challenge1 required: required, open: UP"));
}

TEST_F(V0Policy, OnlyTheExactTrueIsRequired) {
  for (const char* word : {"true", "TRUE", "True ", "False", "", "1"}) {
    client.challenges.clear();
    EXPECT_EQ(parsed(policy(mechanism("UP", word) + "," + mechanism("SMS", word))), "nothing thrown");
    EXPECT_THAT(textsOf(client.challenges), ElementsAre("Challenge2 optional: optional, open: UP,SMS")) << word;
  }
}

TEST_F(V0Policy, SecondRequiredMechanismIsRefused) {
  EXPECT_EQ(parsed(policy(mechanism("UP", "True") + "," + mechanism("SMS") + "," + mechanism("OTP", "True"))),
            "CloudException -1 Errors in parsing policy from Json: there're more than one required mechanisms in REST "
            "V0");
  client.challenges.clear();
  client.judge(policy(mechanism("UP", "True") + R"(,{"mechId":"OTP","required":"True"})"));
  EXPECT_THROW(client.parsePolicy(), std::out_of_range) << "its message is read before it is refused";
}

TEST_F(V0Policy, LaterPolicyIsAppended) {
  EXPECT_EQ(parsed(policy(mechanism("UP", "True") + "," + mechanism("SMS"), R"("securityquestion":"first",)")),
            "nothing thrown");
  EXPECT_EQ(parsed(changed(policy(mechanism("SQ", "True") + "," + mechanism("EMAIL")), "/Result/recId", "\"r-2\"")),
            "nothing thrown");
  EXPECT_THAT(textsOf(client.challenges),
              ElementsAre("Challenge1 required: required, open: UP", "Challenge2 optional: optional, open: SMS",
                          "Challenge1 required: required, open: SQ", "Challenge2 optional: optional, open: EMAIL"));
  EXPECT_EQ(client.recId, "r-2");
  EXPECT_EQ(client.challenges[2].mechanisms[0].answerPrompt, "first\nYour answer is")
      << "the question of before stands until another comes";
  EXPECT_EQ(parsed(policy(mechanism("SQ", "True"), R"("securityquestion":"second",)")), "nothing thrown");
  EXPECT_EQ(client.challenges[4].mechanisms[0].answerPrompt, "second\nYour answer is");
}

TEST_F(V0Policy, PolicyThatFailsMidwayKeepsWhatItHasMade) {
  EXPECT_EQ(parsed(policy(mechanism("UP", "True") + "," + mechanism("SMS") + R"(,{"required":"False"})")),
            missing("mechId"));
  EXPECT_THAT(textsOf(client.challenges),
              ElementsAre("Challenge1 required: required, open: UP", "Challenge2 optional: optional, open: SMS"));
}

TEST_F(V0Policy, MembersThatMustBeThereAreNamed) {
  const std::string good = policy(mechanism("UP", "True"), R"("securityquestion":"q",)");
  for (const char* value : {"", "null", "1", "true", "{}", "[]", "[\"x\"]"}) {
    EXPECT_EQ(parsed(changed(good, "/Result/recId", value)), missing("recId")) << value;
    EXPECT_EQ(parsed(changed(good, "/Result/mechs/0/required", value)), missing("required")) << value;
    EXPECT_EQ(parsed(changed(good, "/Result/mechs/0/mechId", value)), missing("mechId")) << value;
  }
  for (const char* value : {"", "null", "1", "true", "\"text\"", "{}", "[]", R"({"0":{"mechId":"UP"}})"}) {
    EXPECT_EQ(parsed(changed(good, "/Result/mechs", value)), NO_MECHANISMS) << value;
  }
  for (const char* value : {"", "null", "1", "true", "\"text\"", "{}", "[]"}) {
    EXPECT_EQ(parsed(changed(good, "/Result", value)), missing("recId")) << value;
  }
  for (const char* value : {"null", "1", "true", "\"text\"", "{}", "[]"}) {
    EXPECT_EQ(parsed(changed(good, "/Result/mechs/0", value)), missing("required")) << value;
  }
  EXPECT_THAT(client.challenges, IsEmpty());
  for (const char* body : {"", "<html></html>", "[]", "7", "null", "\"text\""}) {
    EXPECT_EQ(parsed(body), missing("recId")) << body;
  }
}

TEST_F(V0Policy, RequiredIsReadBeforeTheName) {
  EXPECT_EQ(parsed(policy("{}")), missing("required"));
  EXPECT_EQ(parsed(policy(R"({"required":"False"})")), missing("mechId"));
}

TEST_F(V0Policy, EmptyAndHugeTextsAreTexts) {
  const std::string huge(1 << 20, 'x');
  EXPECT_EQ(parsed(R"({"Result":{"recId":"","securityquestion":"","mechs":[{"mechId":"","required":"","msg":"",)"
                   R"("fieldLabel":"","fieldText":""}]}})"),
            "nothing thrown");
  EXPECT_EQ(textOf(client.challenges.at(0).mechanisms.at(0)), "|||||6|oob");
  client.challenges.clear();
  EXPECT_EQ(
      parsed(R"({"Result":{"recId":")" + huge + R"(","securityquestion":")" + huge + R"(","mechs":[{"mechId":")" +
             huge + R"(","required":")" + huge + R"(","fieldText":")" + huge + R"("},{"mechId":"SQ","required":)" +
             R"("True"},{"mechId":"OTP","required":"","msg":")" + huge + ". " + huge + "\"}]}}"),
      "nothing thrown");
  EXPECT_EQ(client.recId, huge);
  EXPECT_EQ(client.challenges.at(0).mechanisms.at(0).mechanismId, huge);
  EXPECT_EQ(client.challenges.at(1).mechanisms.at(0).answerPrompt, huge + "\nYour answer is");
  EXPECT_EQ(client.challenges.at(0).mechanisms.at(1).message, huge + ".\n" + huge);
}

TEST_F(V0Policy, HundredThousandMechanismsAreReadInTheirOrder) {
  constexpr std::size_t COUNT = 100000;
  std::string mechanisms = mechanism("UP", "True");
  for (std::size_t i = 1; i < COUNT; ++i) mechanisms += "," + mechanism("M" + std::to_string(i));
  EXPECT_EQ(parsed(policy(mechanisms)), "nothing thrown");
  ASSERT_EQ(client.challenges.size(), 2U);
  ASSERT_EQ(client.challenges[1].mechanisms.size(), COUNT - 1);
  EXPECT_EQ(client.challenges[1].mechanisms.back().mechanismId, "M99999");
}

TEST_F(V0Policy, AdvanceSucceedsByTheTextTrue) {
  client.judge(R"({"success":"True"})");
  EXPECT_EQ(client.parseAdvanceResult(), 1);
  for (const char* other : {"true", "False", "", "True "}) {
    client.judge(std::string(R"({"success":")") + other + "\"}");
    EXPECT_EQ(client.parseAdvanceResult(), 0) << other;
  }
  for (const char* other : {"{}", R"({"success":true})", R"({"success":null})", "[]", ""}) {
    client.judge(other);
    EXPECT_EQ(failureOf([this] { client.parseAdvanceResult(); }), missing("success")) << other;
  }
}

TEST_F(V0Policy, HasNoCookiesToKeep) {
  client.setCookie(COOKIE_USER, "u");
  EXPECT_EQ(client.getCookie(COOKIE_USER), "");
}
