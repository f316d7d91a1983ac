// The login with a session.
#include "lab/platform/tests/platform_client.h"

namespace ferrolab {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

class PlatformVersion1 : public PlatformTest {};

std::vector<std::string> mechanisms(const Reply& reply, const std::string& challenge, const char* member) {
  std::vector<std::string> found;
  for (int i = 0;; ++i) {
    const std::string value = reply.at("Result.Challenges." + challenge + ".Mechanisms." + std::to_string(i));
    if (value.empty()) return found;
    rapidjson::Document document;
    document.Parse(value.c_str());
    found.push_back(textMember(document, member));
  }
}

TEST_F(PlatformVersion1, ThePackageIsWrittenToTheByte) {
  const Reply reply = client.start("alice");
  EXPECT_EQ(reply.body,
            R"({"success":true,"Result":{"SessionId":"S000001","TenantId":"LAB0001","Version":"1.0","Challenges":)"
            R"([{"Mechanisms":[{"AnswerType":"Text","Name":"UP","MechanismId":"S000001.0.UP",)"
            R"("PromptSelectMech":"Password","PromptMechChosen":"Enter your password:"}]}]},"Message":null})");
  EXPECT_THAT(reply.headers, testing::HasSubstr("X-MRV-Pod: lab\r\n"));
}

TEST_F(PlatformVersion1, PasswordLogsIn) {
  client.start("alice");
  const Reply reply = client.answer("S000001.0.UP", "alice-Pass1");
  EXPECT_EQ(reply.at("Result.Summary"), "LoginSuccess");
  EXPECT_EQ(reply.cookie(), "USER-000002");
}

TEST_F(PlatformVersion1, AWrongPasswordEndsTheSession) {
  client.start("alice");
  EXPECT_EQ(client.answer("S000001.0.UP", "wrong").at("Result.Summary"), "Failure");
  EXPECT_EQ(client.answer("S000001.0.UP", "alice-Pass1").at("ErrorID"), "UnknownSession");
}

TEST_F(PlatformVersion1, AnEmptyAnswerIsNeverRight) {
  platform.user(R"({"name":"nobody","login":"password"})");
  client.start("nobody");
  EXPECT_EQ(client.answer("S000001.0.UP", "").at("Result.Summary"), "Failure");
}

TEST_F(PlatformVersion1, EveryFactorIsOfferedWithItsTexts) {
  const Reply reply = client.start("bob");
  EXPECT_THAT(mechanisms(reply, "0", "MechanismId"), ElementsAre("S000001.0.UP"));
  EXPECT_THAT(mechanisms(reply, "1", "Name"), ElementsAre("OTP", "SMS", "EMAIL", "PF", "PF", "PF", "SQ"));
  EXPECT_THAT(mechanisms(reply, "1", "MechanismId"),
              ElementsAre("S000001.1.OTP", "S000001.1.SMS", "S000001.1.EMAIL", "S000001.1.PF_home",
                          "S000001.1.PF_office", "S000001.1.PF_mobile", "S000001.1.SQ"));
  EXPECT_THAT(mechanisms(reply, "1", "AnswerType"),
              ElementsAre("StartTextOob", "StartTextOob", "StartOob", "StartOob", "StartOob", "StartOob", "Text"));
  EXPECT_EQ(reply.at("Result.Challenges.1.Mechanisms.1.PartialDeviceAddress"), "0123");
  EXPECT_EQ(reply.at("Result.Challenges.1.Mechanisms.2.PartialAddress"), "mail.ferro.test");
  EXPECT_EQ(reply.at("Result.Challenges.1.Mechanisms.4.PartialPhoneNumber"), "0102");
  EXPECT_EQ(reply.at("Result.Challenges.1.Mechanisms.6.Question"), "Name of your first dog?");
}

TEST_F(PlatformVersion1, ABarePolicyLeavesTextsAndTypesToTheClient) {
  EXPECT_EQ(client.start("carol").at("Result.Challenges.0.Mechanisms.0"),
            R"({"Name":"UP","MechanismId":"S000001.0.UP"})");
}

TEST_F(PlatformVersion1, EveryFactorIsAnsweredInItsWay) {
  const std::vector<std::pair<std::string, std::string>> texts{
      {"OTP", "246810"}, {"SMS", "246810"}, {"EMAIL", "246810"}, {"SQ", "Rex"}};
  for (const auto& [name, text] : texts) {
    reset();
    client.start("bob");
    EXPECT_EQ(client.answer("S000001.0.UP", "bob-Pass1").at("Result.Summary"), "StartNextChallenge");
    if (name != "SQ") {
      EXPECT_EQ(client.startOob("S000001.1." + name).at("Result.Summary"), "OobPending");
    }
    EXPECT_EQ(client.answer("S000001.1." + name, text).at("Result.Summary"), "LoginSuccess") << name;
  }
  for (const std::string name : {"OTP", "SMS", "EMAIL", "PF_home", "PF_office", "PF_mobile"}) {
    reset();
    client.start("bob");
    client.answer("S000001.0.UP", "bob-Pass1");
    client.startOob("S000001.1." + name);
    EXPECT_EQ(client.poll("S000001.1." + name).at("Result.Summary"), "OobPending") << name;
    platform.approve("bob");
    EXPECT_EQ(client.poll("S000001.1." + name).at("Result.Summary"), "LoginSuccess") << name;
  }
}

TEST_F(PlatformVersion1, ACallIsNotAnsweredByText) {
  client.start("bob");
  client.answer("S000001.0.UP", "bob-Pass1");
  client.startOob("S000001.1.PF_home");
  EXPECT_EQ(client.answer("S000001.1.PF_home", "246810").at("Result.Summary"), "Failure");
}

TEST_F(PlatformVersion1, DenialIsAFailure) {
  client.start("frank");
  client.startOob("S000001.0.OTP");
  platform.deny("frank");
  EXPECT_EQ(client.poll("S000001.0.OTP").at("Result.Summary"), "Failure");
}

TEST_F(PlatformVersion1, AUserMayApproveByItself) {
  client.start("auto");
  client.answer("S000001.0.UP", "auto-Pass1");
  client.startOob("S000001.1.OTP");
  EXPECT_EQ(client.poll("S000001.1.OTP").at("Result.Summary"), "OobPending");
  EXPECT_EQ(client.poll("S000001.1.OTP").at("Result.Summary"), "LoginSuccess");
}

TEST_F(PlatformVersion1, WhatWasNotStartedIsNotAnswered) {
  client.start("frank");
  EXPECT_EQ(client.answer("S000001.0.OTP", "246810").at("ErrorID"), "NotStarted");
  client.startOob("S000001.0.OTP");
  EXPECT_EQ(client.answer("S000001.0.OTP", "246810").at("Result.Summary"), "LoginSuccess");
}

TEST_F(PlatformVersion1, AMechanismOfALaterChallengeIsRefused) {
  client.start("bob");
  EXPECT_EQ(client.answer("S000001.1.SQ", "Rex").at("ErrorID"), "UnknownMechanism");
}

TEST_F(PlatformVersion1, ANewPackageIsANewSession) {
  client.start("grace");
  const Reply reply = client.answer("S000001.0.UP", "grace-Pass1");
  EXPECT_EQ(reply.at("Result.Summary"), "NewPackage");
  EXPECT_EQ(reply.at("Result.SessionId"), "S000002");
  EXPECT_EQ(client.answer("S000002.0.SQ", "Rex").at("Result.Summary"), "LoginSuccess");
}

TEST_F(PlatformVersion1, ANewPasswordIsTakenOverUntilReset) {
  client.start("heidi");
  client.answer("S000001.0.UP", "heidi-Pass1");
  EXPECT_EQ(client.answer("S000001.1.RESET", "fresh").at("Result.Summary"), "LoginSuccess");
  const std::string session = client.start("heidi").at("Result.SessionId");
  EXPECT_EQ(client.answer(session + ".0.UP", "fresh").at("Result.Summary"), "StartNextChallenge");
  reset();
  client.start("heidi");
  EXPECT_EQ(client.answer("S000001.0.UP", "fresh").at("Result.Summary"), "Failure");
}

TEST_F(PlatformVersion1, RedirectsToThePodAndNotFurther) {
  EXPECT_EQ(client.start("dave").at("Result"), R"({"PodFqdn":")" + platform.podHost() + R"("})");
  Client pod("http://" + platform.podHost() + "/");
  EXPECT_EQ(pod.start("dave").at("Result.PodFqdn"), "");
  EXPECT_EQ(pod.answer("S000001.0.UP", "dave-Pass1").at("Result.Summary"), "LoginSuccess");
  EXPECT_EQ(client.start("erin").at("Result"), R"({"PodFqdn":")" + platform.podHost() + R"("})");
  const Reply again = pod.start("erin");
  EXPECT_EQ(again.at("Result.PodFqdn"), platform.podHost());
  EXPECT_THAT(again.at("Result.SessionId"), StartsWith("S"));
}

TEST_F(PlatformVersion1, RefusesWhomItDoesNotLetIn) {
  EXPECT_EQ(client.start("ivan").at("ErrorID"), "NoFactors");
  EXPECT_EQ(client.start("judy").at("ErrorID"), "UserDisabled");
  EXPECT_EQ(client.start("stranger").at("ErrorID"), "UnknownUser");
  EXPECT_EQ(client.start("judy").body,
            R"({"success":false,"Result":null,"Message":"The user is disabled.","MessageID":"_I18N_UserDisabled",)"
            R"("Exception":null,"ErrorID":"UserDisabled","ErrorCode":"E-UserDisabled","InnerException":null})");
}

TEST_F(PlatformVersion1, ItsVersionIsTheScripts) {
  EXPECT_EQ(client.get("sysinfo/version").body, R"({"success":true,"Result":{"Version":"21.5.107"},"Message":null})");
}

}  // namespace
}  // namespace ferrolab
