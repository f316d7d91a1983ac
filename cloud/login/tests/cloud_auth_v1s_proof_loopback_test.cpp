// Privileged actions: the payload, the dialogue that proves who the user is, the second visit to the endpoint.
#include "cloud/login/tests/cloud_auth_v1s_action.h"
#include "testsupport/setting.h"

using namespace v1stest;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

const std::string NO_CHALLENGES =
    "WARN Morvane Identity Platform failed to authenticate user 'alice@example.test'. To resolve this issue, verify "
    "that user accounts are configured with appropriate information to respond to the authentication challenges, such "
    "as an email address, phone number, or security question. If the account information is configured correctly, "
    "contact Morvane Support for help in resolving this issue.";

}  // namespace

// What is told along.

TEST_F(PrivilegedAction, PayloadIsPostedInItsOrder) {
  beginWithSession();
  const CloudAuth::Payload pairs = {{"z", "1"}, {"a", "2\n"}, {"z", "3"}, {"", ""}};
  platform.script({success()});
  EXPECT_EQ(client->startAuthentication(&pairs), AUTH_DONE);
  EXPECT_THAT(journal.take(), ElementsAre("platform POST /qrsintegration/mfalogin [.ASPXAUTH=user;] "
                                          R"({"z":"1","a":"2\n","z":"3","":""})"));
}

TEST_F(PrivilegedAction, PayloadIsNotInTheLog) {
  const CloudAuth::Payload secret = {{"secret-name", "secret-value"}};
  beginDialogue(&secret);
  platform.script({summary("LoginSuccess"), success()});
  answer();
  EXPECT_THAT(log.text(), AllOf(HasSubstr("HTTP post with params URL"), Not(HasSubstr("secret"))));
}

TEST_F(PrivilegedAction, WithoutAPayloadItIsAGet) {
  const CloudAuth::Payload none;
  for (const CloudAuth::Payload* pairs : {&none, static_cast<const CloudAuth::Payload*>(nullptr)}) {
    beginWithSession();
    platform.script({success()});
    EXPECT_EQ(client->startAuthentication(pairs), AUTH_DONE);
    EXPECT_THAT(journal.take(), ElementsAre(mfaLogin));
    EXPECT_EQ(client->payload, "");
  }
}

TEST_F(PrivilegedAction, PayloadIsKeptUntilThereIsANewOne) {
  beginWithSession();
  const CloudAuth::Payload none;
  const CloudAuth::Payload other = {{"command", "/bin/id"}};
  platform.script({success(), success(), success(), success()});
  client->startAuthentication(&payload);
  client->startAuthentication(&none);
  client->startAuthentication();
  client->startAuthentication(&other);
  const std::string post = "platform POST /qrsintegration/mfalogin [.ASPXAUTH=user;] ";
  EXPECT_THAT(journal.take(), ElementsAre(post + payloadText, post + payloadText, post + payloadText,
                                          post + R"({"command":"/bin/id"})"));
}

TEST_F(PrivilegedAction, PayloadsThatAreSwitchedOffAreKeptAndNotSent) {
  const testsupport::Setting off(lumo::PN::FERROD_CLOUD_MFA_PAYLOADS, "false");
  beginWithSession();
  platform.script({wantsProof(), policy()});
  EXPECT_EQ(client->startAuthentication(&payload), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(journal.take(), ElementsAre(mfaLogin, challengeRequest("CH-1")));
  EXPECT_EQ(client->payload, payloadText);
  platform.script({summary("LoginSuccess"), success()});
  EXPECT_EQ(answer(), AUTH_DONE);
  EXPECT_THAT(journal.take(),
              ElementsAre(answered, "platform GET /qrsintegration/mfalogin?challengeId=CH-1 [.ASPXAUTH=user;]"));
}

// The second visit.

TEST_F(PrivilegedAction, SecondVisitNamesTheChallenge) {
  beginDialogue();
  platform.script({summary("LoginSuccess"), success()});
  EXPECT_EQ(answer(), AUTH_DONE);
  EXPECT_THAT(journal.take(),
              ElementsAre(answered, "platform GET /qrsintegration/mfalogin?challengeId=CH-1 [.ASPXAUTH=user;]"));
  EXPECT_THAT(ownRecords(), IsEmpty());
}

TEST_F(PrivilegedAction, SecondVisitRepeatsThePayload) {
  beginDialogue(&payload, PROFILE_ELEVATION);
  platform.script({summary("Success"), success()});
  EXPECT_EQ(answer(), AUTH_DONE);
  EXPECT_THAT(journal.take(),
              ElementsAre(answered, "platform POST /qrsintegration/ferrosuexecute?challengeId=CH-1 [.ASPXAUTH=user;] " +
                                        payloadText));
}

TEST_F(PrivilegedAction, ChallengeIsEncodedInTheUrl) {
  beginDialogue();
  client->challengeId = "a b&c=/\xc3\xa4";
  platform.script({summary("LoginSuccess"), success()});
  EXPECT_EQ(answer(), AUTH_DONE);
  EXPECT_THAT(journal.take().back(), HasSubstr("mfalogin?challengeId=a%20b%26c%3D%2F%C3%A4 ["));
}

TEST_F(PrivilegedAction, DialogueThatIsNotOverVisitsNobody) {
  struct Row {
    HttpReply reply;
    int status;
  };
  const Row rows[] = {{summary("StartNextChallenge"), AUTH_NEXT_CHALLENGE},
                      {summary("OobPending"), AUTH_PENDING},
                      {summary("Failure"), AUTH_FAILED},
                      {refusal(), AUTH_FAILED}};
  for (const Row& row : rows) {
    beginDialogue();
    platform.script({row.reply});
    EXPECT_EQ(answer(), row.status);
    EXPECT_THAT(journal.take(), ElementsAre(answered));
  }
}

TEST_F(PrivilegedAction, ActionsOfTheDialogueArePassedOn) {
  beginDialogue();
  platform.script({summary("OobPending"), summary("OobPending")});
  client->advanceAuthentication("M-1", ACTION_START_OOB, "");
  client->advanceAuthentication("M-1", ACTION_POLL, "");
  const Texts asked = journal.take();
  EXPECT_THAT(asked, ElementsAre(HasSubstr(R"("Action":"StartOOB","MechanismId":"M-1")"),
                                 HasSubstr(R"("Action":"Poll","MechanismId":"M-1")")));
}

TEST_F(PrivilegedAction, SecondVisitMayAskForMoreProof) {
  beginDialogue();
  platform.script({summary("LoginSuccess"), wantsProof("CH-2"), policy("M-2")});
  EXPECT_EQ(answer(), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(journal.take(),
              ElementsAre(answered, "platform GET /qrsintegration/mfalogin?challengeId=CH-1 [.ASPXAUTH=user;]",
                          challengeRequest("CH-2")));
  EXPECT_THAT(ownRecords(), ElementsAre("DEBUG startMfa: authProfileType = 0, success = 0, httpCode = 200",
                                        "DEBUG startMfa: errorId = ChallengeRequired, challengeId = CH-2, reason = ",
                                        "DEBUG advanceAuthentication: need to authenticate again.",
                                        "DEBUG startChallenge: result = 1, httpCode = 200"));
  CloudAuthChallenge challenge;
  ASSERT_EQ(client->nextChallenge(challenge), 1);
  EXPECT_EQ(challenge.mechanisms.at(0).mechanismId, "M-2");
  platform.script({summary("LoginSuccess"), success()});
  EXPECT_EQ(client->advanceAuthentication("M-2", ACTION_ANSWER, "word"), AUTH_DONE);
  EXPECT_THAT(journal.take().back(), HasSubstr("mfalogin?challengeId=CH-2 ["));
}

TEST_F(PrivilegedAction, MoreProofWithoutChallengesFailsTheRequest) {
  beginDialogue();
  platform.script({summary("LoginSuccess"), wantsProof("CH-2"), refusal()});
  EXPECT_EQ(answer(), AUTH_REQUEST_FAILED);
  EXPECT_EQ(ownRecords().back(), NO_CHALLENGES);
}

TEST_F(PrivilegedAction, SecondVisitThatIsRefusedFails) {
  struct Row {
    HttpReply reply;
    const char* words;
  };
  const Row rows[] = {
      {unauthorized(), "httpCode = 401, errorId = , reason = ."},
      {httpReply("403 Forbidden", {}, R"({"ErrorID":"ChallengeRequired","Result":{"ChallengeId":"CH-2"}})"),
       "httpCode = 403, errorId = , reason = ."},
      {refusedWith("ChallengeRequired", "", "R-1"), "httpCode = 200, errorId = ChallengeRequired, reason = R-1."},
      {refusedWith("Other", "CH-2", "NotConfigured"), "httpCode = 200, errorId = Other, reason = NotConfigured."},
      {json("no JSON"), "httpCode = 200, errorId = , reason = ."}};
  for (const Row& row : rows) {
    beginDialogue();
    platform.script({summary("LoginSuccess"), row.reply});
    EXPECT_EQ(answer(), AUTH_FAILED);
    EXPECT_EQ(
        ownRecords().back(),
        std::string("DEBUG advanceAuthentication: revisit the endpoint(ferrosuexecute/mfalogin) failed; ") + row.words);
    EXPECT_EQ(journal.take().size(), 2U) << "no new session is made";
    EXPECT_EQ(client->getCookie(COOKIE_USER), "user");
  }
}

TEST_F(PrivilegedAction, VersionIsThePlatformsToTell) {
  platform.script({success(), refusal()});
  EXPECT_EQ(client->getVersion(), 1);
  EXPECT_EQ(client->getVersion(), 0);
  EXPECT_THAT(journal.take(), ElementsAre("platform GET /sysinfo/version", "platform GET /sysinfo/version"));
}
