// What the oldest login asks, in which order, and what comes of it.
#include <gmock/gmock.h>

#include "cloud/login/tests/cloud_auth_records.h"
#include "cloud/login/tests/cloud_auth_v0_login.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

}  // namespace

TEST_F(V0Login, StartAsksForThePolicy) {
  script({policy(passwordAndMore())});
  EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(asked(), ElementsAre(getPolicy()));
  EXPECT_THAT(textsOf(client->challenges), ElementsAre("Challenge1 required: required, open: UP",
                                                       "Challenge2 optional: optional, open: SMS,EMAIL,PF"));
}

TEST_F(V0Login, StartWithAPayloadIsTheSameWithout) {
  const CloudAuth::Payload payload{{"command", "shell"}};
  for (const CloudAuth::Payload* one : {&payload, static_cast<const CloudAuth::Payload*>(nullptr)}) {
    script({policy(passwordAlone())});
    EXPECT_EQ(client->startAuthentication(one), AUTH_NEXT_CHALLENGE);
    EXPECT_THAT(asked(), ElementsAre(getPolicy()));
  }
}

TEST_F(V0Login, RefusedPolicyIsARefusedRequest) {
  for (const auto& reply : {refusal(), json("<html>"), testsupport::httpReply("403 Forbidden"),
                            testsupport::httpReply("500 Internal Server Error", {}, R"({"success":true})")}) {
    script({reply});
    EXPECT_EQ(client->startAuthentication(), AUTH_REQUEST_FAILED);
    EXPECT_THAT(asked(), ElementsAre(getPolicy()));
  }
  EXPECT_THAT(client->challenges, IsEmpty());
}

TEST_F(V0Login, RedirectIsFollowedOnce) {
  script({success(R"({"PodFqdn":"127.0.0.1"})"), policy(passwordAlone(), R"("PodFqdn":"127.0.0.2",)"), success(),
          success(), success()});
  EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(asked(), ElementsAre(getPolicy(), getPolicy("127.0.0.1")));
  EXPECT_EQ(client->podHost, "127.0.0.1");
  EXPECT_EQ(advance("UP", ACTION_ANSWER, PASSWORD), AUTH_DONE);
  EXPECT_THAT(asked(),
              ElementsAre(login(R"({"nextMechId":"UP","recId":"r-1"})", "127.0.0.1"),
                          moveOn(R"({"nextMechId":"UP","recId":"r-1","user":"alice@example.test"})", "127.0.0.1"),
                          login(std::string(R"({"recId":"r-1","UP":)") + PASSWORD_JSON + "}", "127.0.0.1")));
}

TEST_F(V0Login, RedirectIntoARefusalIsARefusedRequest) {
  script({success(R"({"PodFqdn":"127.0.0.1"})"), refusal()});
  EXPECT_EQ(client->startAuthentication(), AUTH_REQUEST_FAILED);
  EXPECT_THAT(asked(), ElementsAre(getPolicy(), getPolicy("127.0.0.1")));
}

TEST_F(V0Login, PodThatIsNoTextIsNoRedirect) {
  for (const char* pod :
       {R"("PodFqdn":null,)", R"("PodFqdn":7,)", R"("PodFqdn":["127.0.0.1"],)", R"("podfqdn":"127.0.0.1",)"}) {
    LoginTest::begin();
    script({policy(passwordAlone(), pod)});
    EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
    EXPECT_THAT(asked(), ElementsAre(getPolicy())) << pod;
  }
}

TEST_F(V0Login, PasswordAloneGoesOutAtOnceInThreeRequests) {
  for (const int action : {+ACTION_ANSWER, +ACTION_POLL, +ACTION_START_OOB}) {
    begin(passwordAlone());
    script({success(), success(), success()});
    EXPECT_EQ(advance("UP", action, PASSWORD), AUTH_DONE);
    EXPECT_THAT(asked(), ElementsAreArray(passwordSent(R"("recId":"r-1",)")));
  }
}

TEST_F(V0Login, PasswordAmongOptionalMechanismsAloneGoesOutAtOnceToo) {
  begin(mechanism("UP", "False") + "," + mechanism("SMS", "False"));
  script({success(), success(), success()});
  EXPECT_EQ(advance("UP", ACTION_ANSWER, PASSWORD), AUTH_DONE);
  EXPECT_THAT(asked(), ElementsAreArray(passwordSent(R"("recId":"r-1",)")));
}

TEST_F(V0Login, PasswordBeforeAPolicyIsHeld) {
  EXPECT_EQ(advance("UP", ACTION_ANSWER, PASSWORD), AUTH_NEXT_CHALLENGE);
  EXPECT_EQ(client->password, lumo::Shredder2(PASSWORD));
  EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(V0Login, PasswordIsHeldByTheClientAloneAndGoesWithIt) {
  beginWithPasswordSent();
  EXPECT_FALSE(client->password.shared());
  const lumo::Shredder2 copy = client->password;
  EXPECT_TRUE(copy.shared());
  client.reset();
  EXPECT_FALSE(copy.shared());
}

TEST_F(V0Login, WrongPasswordAloneFails) {
  begin(passwordAlone());
  script({success(), success(), refusal()});
  EXPECT_EQ(advance("UP", ACTION_ANSWER, PASSWORD), AUTH_FAILED);
  EXPECT_TRUE(scriptIsOver());
}

TEST_F(V0Login, PasswordIsHeldUntilASecondMechanismIsUsed) {
  begin(passwordAndMore());
  CloudAuthChallenge open;
  ASSERT_EQ(client->nextChallenge(open), 1);
  EXPECT_EQ(open.name, "Challenge1 required");
  EXPECT_EQ(advance("UP", ACTION_ANSWER, PASSWORD), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(asked(), IsEmpty());
  EXPECT_EQ(client->password, lumo::Shredder2(PASSWORD));
  EXPECT_FALSE(client->passwordSent);
  EXPECT_EQ(textOf(client->challenges[0]), "Challenge1 required: required, done by UP: UP");
  ASSERT_EQ(client->nextChallenge(open), 1);
  EXPECT_EQ(open.name, "Challenge2 optional");
  script({success(), success(), success()});
  EXPECT_EQ(advance("SMS", ACTION_START_OOB), AUTH_PENDING);
  EXPECT_THAT(asked(), ElementsAreArray(passwordSent(R"("nextMechId":"SMS","recId":"r-1",)")));
  EXPECT_TRUE(client->passwordSent);
}

TEST_F(V0Login, TelephoneLineGoesAlongWithThePassword) {
  const std::vector<std::pair<std::string, std::string>> sent{
      {"PF_HOME", R"("nextMechId":"PF","recId":"r-1","PFType":"home",)"},
      {"PF_OFFICE", R"("nextMechId":"PF","recId":"r-1","PFType":"office",)"},
      {"PF_MOBILE", R"("nextMechId":"PF","recId":"r-1","PFType":"mobile",)"},
      {"PF", R"("nextMechId":"PF","recId":"r-1","PFType":"",)"},
      {"PF_OTHER", R"("nextMechId":"PF_OTHER","recId":"r-1",)"},
      {"pf", R"("nextMechId":"pf","recId":"r-1",)"},
      {"OTP", R"("nextMechId":"OTP","recId":"r-1",)"},
      {"EMAIL", R"("nextMechId":"EMAIL","recId":"r-1",)"}};
  for (const auto& [mechanismId, along] : sent) {
    beginWithPasswordHeld();
    script({success(), success(), success()});
    EXPECT_EQ(advance(mechanismId, ACTION_START_OOB), AUTH_PENDING);
    EXPECT_THAT(asked(), ElementsAreArray(passwordSent(along)));
  }
}

TEST_F(V0Login, LineOfThePolicyIsTheOneThatRings) {
  begin(passwordAndMore());
  EXPECT_EQ(client->challenges.at(1).mechanisms.at(2).mechanismId, "PF_OFFICE");
  begin(mechanism("UP", "True") + "," + mechanism("PF", "False", R"(,"fieldLabel":"boat")"));
  EXPECT_EQ(client->challenges.at(1).mechanisms.at(0).mechanismId, "PF");
}

TEST_F(V0Login, AnswerOfTheSecondMechanismFollowsThePassword) {
  const std::vector<std::pair<testsupport::HttpReply, int>> ends{{success(), AUTH_DONE}, {refusal(), AUTH_FAILED}};
  for (const auto& [reply, status] : ends) {
    beginWithPasswordHeld();
    script({success(), success(), success(), reply});
    EXPECT_EQ(advance("OTP", ACTION_ANSWER, "123456"), status);
    std::vector<std::string> wanted = passwordSent(R"("nextMechId":"OTP","recId":"r-1",)");
    wanted.push_back(login(R"({"OTP":"123456","recId":"r-1"})"));
    EXPECT_THAT(asked(), ElementsAreArray(wanted));
  }
}

TEST_F(V0Login, AnyOtherActionIsAnAnswer) {
  beginWithPasswordSent();
  script({success(), success()});
  EXPECT_EQ(advance("PF_OFFICE", 3, "1"), AUTH_DONE);
  EXPECT_EQ(advance("SMS", -1, "2"), AUTH_DONE);
  EXPECT_THAT(asked(), ElementsAre(login(R"({"PF":"1","recId":"r-1"})"), login(R"({"SMS":"2","recId":"r-1"})")));
}

TEST_F(V0Login, StartedAgainNothingIsSent) {
  beginWithPasswordSent();
  EXPECT_EQ(advance("PF_OFFICE", ACTION_START_OOB), AUTH_PENDING);
  EXPECT_EQ(advance("SMS", ACTION_START_OOB), AUTH_PENDING);
  EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(V0Login, PollWaitsUntilThePlatformMovesOn) {
  beginWithPasswordSent();
  script({success(R"({"status":"Wait"})"), success(R"({"status":"move"})"), success(R"({"status":""})"),
          success(R"({"status":"Move","code":"c-9"})"), success()});
  for (int polls = 0; polls < 3; ++polls) EXPECT_EQ(advance("PF_OFFICE", ACTION_POLL), AUTH_PENDING);
  EXPECT_EQ(advance("PF_OFFICE", ACTION_POLL, "no answer yet"), AUTH_DONE);
  const std::string poll = moveOn(R"({"nextMechId":"PF","recId":"r-1"})");
  EXPECT_THAT(asked(), ElementsAre(poll, poll, poll, poll, login(R"({"PF":"c-9","recId":"r-1"})")));
}

TEST_F(V0Login, MoveWithoutACodeSendsAnEmptyOne) {
  for (const char* code : {"", R"(,"code":7)", R"(,"code":null)", R"(,"code":"")", R"(,"code":{"c":"9"})"}) {
    beginWithPasswordSent();
    script({success(std::string(R"({"status":"Move")") + code + "}"), success()});
    EXPECT_EQ(advance("EMAIL", ACTION_POLL, "unused"), AUTH_DONE);
    EXPECT_THAT(asked(),
                ElementsAre(moveOn(R"({"nextMechId":"EMAIL","recId":"r-1"})"), login(R"({"EMAIL":"","recId":"r-1"})")))
        << code;
  }
}

TEST_F(V0Login, MoveIntoARefusalFails) {
  beginWithPasswordSent();
  script({success(R"({"status":"Move","code":"c-9"})"), refusal()});
  EXPECT_EQ(advance("PF_OFFICE", ACTION_POLL), AUTH_FAILED);
  EXPECT_TRUE(scriptIsOver());
}

TEST_F(V0Login, PollingAtOnceSendsThePasswordFirst) {
  beginWithPasswordHeld();
  script({success(), success(), success(), success(R"({"status":"Wait"})")});
  EXPECT_EQ(advance("SMS", ACTION_POLL), AUTH_PENDING);
  std::vector<std::string> wanted = passwordSent(R"("nextMechId":"SMS","recId":"r-1",)");
  wanted.push_back(moveOn(R"({"nextMechId":"SMS","recId":"r-1"})"));
  EXPECT_THAT(asked(), ElementsAreArray(wanted));
}

TEST_F(V0Login, RefusedPasswordIsSentAgainByTheNextStep) {
  beginWithPasswordHeld();
  script({success(), success(), refusal()});
  EXPECT_EQ(advance("SMS", ACTION_ANSWER, "123456"), AUTH_FAILED);
  EXPECT_FALSE(client->passwordSent);
  EXPECT_THAT(asked(), ElementsAreArray(passwordSent(R"("nextMechId":"SMS","recId":"r-1",)")));
  script({success(), success(), success()});
  EXPECT_EQ(advance("SMS", ACTION_START_OOB), AUTH_PENDING);
  EXPECT_THAT(asked(), ElementsAreArray(passwordSent(R"("nextMechId":"SMS","recId":"r-1",)")));
}

TEST_F(V0Login, OtherPasswordIsSentAnew) {
  beginWithPasswordSent();
  EXPECT_EQ(advance("UP", ACTION_ANSWER, "other"), AUTH_NEXT_CHALLENGE);
  EXPECT_FALSE(client->passwordSent);
  script({success(), success(), success()});
  EXPECT_EQ(advance("SMS", ACTION_START_OOB), AUTH_PENDING);
  EXPECT_THAT(asked(), ElementsAreArray(passwordSent(R"("nextMechId":"SMS","recId":"r-1",)", "\"other\"")));
}

TEST_F(V0Login, WithoutAPasswordAnEmptyOneIsSent) {
  begin(mechanism("SMS", "True"));
  script({success(), success(), success()});
  EXPECT_EQ(advance("SMS", ACTION_START_OOB), AUTH_PENDING);
  EXPECT_THAT(asked(), ElementsAreArray(passwordSent(R"("nextMechId":"SMS","recId":"r-1",)", "\"\"")));
}

TEST_F(V0Login, VersionIsAskedForWithoutParameters) {
  script({success(), refusal()});
  EXPECT_EQ(client->getVersion(), 1);
  EXPECT_EQ(client->getVersion(), 0);
  EXPECT_THAT(asked(), ElementsAre("GET localhost /sysinfo/version", "GET localhost /sysinfo/version"));
}
