// Privileged actions: whose session asks, what the platform answers, what the caller is told.
#include "cloud/login/tests/cloud_auth_v1s_action.h"

using namespace v1stest;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const std::string NO_RIGHT =
    "FATAL Morvane MFA Service cannot provide service to this computer because the 'Computer Right and Privilege "
    "Elevation' administrative right was not granted to this computer. Add the 'Computer Right and Privilege "
    "Elevation' administrative right to the current role or assign the computer to another role that has this right. "
    "If the problem persists after the right is granted, contact Morvane Support for help.";
const std::string NO_CHALLENGES =
    "WARN Morvane Identity Platform failed to authenticate user 'alice@example.test'. To resolve this issue, verify "
    "that user accounts are configured with appropriate information to respond to the authentication challenges, such "
    "as an email address, phone number, or security question. If the account information is configured correctly, "
    "contact Morvane Support for help in resolving this issue.";
const std::string ELEVATION_NOT_CONFIGURED =
    "FATAL Morvane MFA Service failed because there was an error in locating the authentication profile for privilege "
    "elevation command execution (ferrosu). Verify that you have specified an authentication profile for Ferro Suite "
    "Authentication from the Settings tab. If you have selected an authentication profile for the 'Privilege Elevation "
    "Profile' setting, contact Morvane Support for help.";
const std::string LOGIN_NOT_CONFIGURED =
    "FATAL Morvane MFA Service failed because there was an error in locating the authentication profile for server "
    "login. Verify that you have specified an authentication profile for Ferro Suite Authentication from the Settings "
    "tab. If you have selected an authentication profile for the 'Server Authentication Profile' setting, contact "
    "Morvane Support for help in resolving this issue.";
const std::string ELEVATION_UNUSABLE =
    "WARN Morvane MFA Service cannot authenticate user 'alice@example.test' because there was an error in locating the "
    "authentication profile for privilege elevation command execution (ferrosu). Contact Morvane Support for help.";
const std::string LOGIN_UNUSABLE =
    "WARN Morvane MFA Service cannot authenticate user 'alice@example.test' because there was an error in locating the "
    "authentication profile for server login. Contact Morvane Support for help.";
const std::string NOT_NEEDED = "DEBUG startAuthentication: after starting endpoint, no need to authenticate.";

}  // namespace

// Whose session.

TEST_F(PrivilegedAction, SessionThatHoldsTakesOneRequest) {
  beginWithSession();
  platform.script({success()});
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  EXPECT_THAT(journal.take(), ElementsAre(mfaLogin));
  EXPECT_THAT(ownRecords(), ElementsAre(NOT_NEEDED));
  EXPECT_EQ(source.machineCacheCalls, 0);
}

TEST_F(PrivilegedAction, WithoutAnySessionTheMachineSignsIn) {
  connector.script({code()});
  platform.script({session("machine"), session("user"), success()});
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  EXPECT_THAT(journal.take(), ElementsAre(siteCheck, sso, impersonation("machine"), mfaLogin));
  EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "machine");
  EXPECT_EQ(client->getCookie(COOKIE_USER), "user");
  EXPECT_EQ(ownRecords().back(), NOT_NEEDED);
}

TEST_F(PrivilegedAction, SessionOfTheMachineIsUsedAgain) {
  client->setCookie(COOKIE_MACHINE, "machine");
  platform.script({session("user"), success()});
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  EXPECT_THAT(journal.take(), ElementsAre(impersonation("machine"), mfaLogin));
}

TEST_F(PrivilegedAction, StaleSessionOfTheMachineCostsOneNewOne) {
  client->setCookie(COOKIE_MACHINE, "stale");
  connector.script({code()});
  platform.script({unauthorized(), session("machine"), session("user"), success()});
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  EXPECT_THAT(journal.take(), ElementsAre(impersonation("stale"), siteCheck, sso, impersonation("machine"), mfaLogin));
  EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "machine");
}

TEST_F(PrivilegedAction, SessionOfAnEarlierHolderIsNotSentAlong) {
  beginWithSession();
  platform.script({success()});
  client->startAuthentication();
  CurlObject* const used = client->curl;
  client->releaseCurl();
  V1SClient next(platform.url(), "2.0", "bob@example.test", "", connector.url(), SPN, nullptr);
  next.getCurl("bob", "login");
  ASSERT_EQ(next.curl, used);
  journal.take();
  connector.script({code()});
  platform.script({session("machine"), session("of-bob"), success()});
  EXPECT_EQ(next.startAuthentication(), AUTH_DONE);
  EXPECT_THAT(journal.take(), ElementsAre(siteCheck, sso,
                                          R"(platform POST /security/startimpersonate [.ASPXAUTH=machine;] )"
                                          R"({"username":"bob@example.test"})",
                                          endpoint("of-bob")));
}

TEST_F(PrivilegedAction, NewSessionOfTheMachineThatIsRefusedEndsIt) {
  connector.script({code()});
  platform.script({session("machine"), refusal()});
  EXPECT_EQ(client->startAuthentication(), AUTH_NO_MACHINE_ACCESS);
  EXPECT_THAT(journal.take(), ElementsAre(siteCheck, sso, impersonation("machine")));
  EXPECT_EQ(ownRecords().back(), NO_RIGHT);
  EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "machine");
  EXPECT_EQ(client->getCookie(COOKIE_USER), "");
}

TEST_F(PrivilegedAction, StaleSessionOfTheMachineAndThenANewOneThatIsRefused) {
  client->setCookie(COOKIE_MACHINE, "stale");
  connector.script({code()});
  platform.script({unauthorized(), session("machine"), unauthorized()});
  EXPECT_EQ(client->startAuthentication(), AUTH_NO_MACHINE_ACCESS);
  EXPECT_EQ(journal.take().size(), 4U);
  EXPECT_EQ(ownRecords().back(), NO_RIGHT);
}

TEST_F(PrivilegedAction, MachineThatCannotSignInHasNoAccess) {
  client->setCookie(COOKIE_MACHINE, "stale");
  connector.script({code()});
  platform.script({unauthorized(), refusal()});
  EXPECT_EQ(client->startAuthentication(), AUTH_NO_MACHINE_ACCESS);
  EXPECT_EQ(journal.take().size(), 3U);
  EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "") << "the stale one is forgotten";
  EXPECT_THAT(ownRecords().back(), AllOf(HasSubstr("FATAL"), HasSubstr("failed to authenticate the UNIX server")));
}

TEST_F(PrivilegedAction, ExceptionsOfTheMachinesSignInPass) {
  connector.script({unauthorized()});
  EXPECT_EQ(failureOf([this] { client->startAuthentication(); }),
            "CloudIwaException 9 SiteCheck HTTP code is not OK(401).");
  connector.script({cut()});
  EXPECT_EQ(failureOf([this] { client->startAuthentication(); }), "CurlException 8 " + CUT_SHORT);
  client->setCookie(COOKIE_MACHINE, "machine");
  platform.script({cut()});
  EXPECT_EQ(failureOf([this] { client->startAuthentication(); }), "CurlException 8 " + CUT_SHORT);
  EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "machine");
}

TEST_F(PrivilegedAction, StaleSessionOfTheUserCostsOneNewOne) {
  beginWithSession();
  client->setCookie(COOKIE_USER, "stale");
  client->setCookie(COOKIE_MACHINE, "machine");
  platform.script({unauthorized(), session("user"), success()});
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  EXPECT_THAT(journal.take(), ElementsAre(endpoint("stale"), impersonation("machine"), endpoint("user")));
  EXPECT_THAT(ownRecords(),
              ElementsAre("DEBUG startMfa: authProfileType = 0, success = 0, httpCode = 401",
                          "DEBUG startImpersonate: result = 1, httpCode = 200, cookieExist = 1", NOT_NEEDED));
}

TEST_F(PrivilegedAction, SecondUnauthorizedEndsIt) {
  beginWithSession();
  client->setCookie(COOKIE_MACHINE, "machine");
  platform.script({unauthorized(), session("new"), unauthorized(), success()});
  EXPECT_EQ(client->startAuthentication(), AUTH_FAILED);
  EXPECT_THAT(journal.take(), ElementsAre(mfaLogin, impersonation("machine"), endpoint("new")));
  EXPECT_EQ(ownRecords().back(), "DEBUG startAuthentication: user cookie is updated but still got HTTP Unauthorized.");
  EXPECT_EQ(client->getCookie(COOKIE_USER), "new");
}

TEST_F(PrivilegedAction, NewSessionThatIsRefusedAtOnceIsNotMadeAgain) {
  client->setCookie(COOKIE_MACHINE, "machine");
  platform.script({session("user"), unauthorized()});
  EXPECT_EQ(client->startAuthentication(), AUTH_FAILED);
  EXPECT_THAT(journal.take(), ElementsAre(impersonation("machine"), mfaLogin));
  EXPECT_EQ(ownRecords().back(), "DEBUG startAuthentication: user cookie is updated but still got HTTP Unauthorized.");
}

TEST_F(PrivilegedAction, EmptyNewCookieDoesNotGoOnForEver) {
  client->setCookie(COOKIE_MACHINE, "machine");
  platform.script({success(), unauthorized()});
  EXPECT_EQ(client->startAuthentication(), AUTH_FAILED);
  EXPECT_THAT(journal.take(), ElementsAre(impersonation("machine"), endpoint("")));
}

TEST_F(PrivilegedAction, StaleSessionsOfUserAndMachine) {
  beginWithSession();
  client->setCookie(COOKIE_USER, "stale-user");
  client->setCookie(COOKIE_MACHINE, "stale");
  connector.script({code()});
  platform.script({unauthorized(), refusal(), session("machine"), session("user"), success()});
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  EXPECT_THAT(journal.take(), ElementsAre(endpoint("stale-user"), impersonation("stale"), siteCheck, sso,
                                          impersonation("machine"), mfaLogin));
}

TEST_F(PrivilegedAction, StaleSessionOfTheUserAndAMachineWithoutTheRight) {
  beginWithSession();
  connector.script({code()});
  platform.script({unauthorized(), session("machine"), refusal()});
  EXPECT_EQ(client->startAuthentication(), AUTH_NO_MACHINE_ACCESS);
  EXPECT_EQ(ownRecords().back(), NO_RIGHT);
  EXPECT_EQ(client->getCookie(COOKIE_USER), "");
}

// What the endpoint says.

TEST_F(PrivilegedAction, EndpointIsThatOfTheProfile) {
  struct Row {
    int profile;
    const char* path;
  };
  for (const Row& row : {Row{1, "ferrosuexecute"}, Row{0, "mfalogin"}, Row{2, "mfalogin"}, Row{-1, "mfalogin"}}) {
    beginWithSession(row.profile);
    platform.script({success()});
    EXPECT_EQ(client->startAuthentication(nullptr), AUTH_DONE);
    EXPECT_THAT(journal.take(),
                ElementsAre(std::string("platform GET /qrsintegration/") + row.path + " [.ASPXAUTH=user;]"));
  }
}

TEST_F(PrivilegedAction, StatusOtherThanOkFails) {
  for (const char* status : {"403 Forbidden", "500 Internal Server Error", "302 Found", "204 No Content"}) {
    beginWithSession(PROFILE_ELEVATION);
    platform.script({httpReply(status, {}, R"({"ErrorID":"ChallengeRequired","Result":{"ChallengeId":"CH-1"}})")});
    EXPECT_EQ(client->startAuthentication(), AUTH_FAILED);
    EXPECT_THAT(ownRecords(), ElementsAre("DEBUG startMfa: authProfileType = 1, success = 0, httpCode = " +
                                          std::string(status).substr(0, 3)));
    EXPECT_EQ(client->getCookie(COOKIE_USER), "user");
    EXPECT_EQ(client->challengeId, "");
    EXPECT_EQ(journal.take().size(), 1U);
  }
}

TEST_F(PrivilegedAction, ChallengeOpensADialogue) {
  beginWithSession();
  platform.script({wantsProof(), policy()});
  EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  EXPECT_THAT(journal.take(), ElementsAre(mfaLogin, challengeRequest("CH-1")));
  EXPECT_THAT(ownRecords(),
              ElementsAre("DEBUG startMfa: authProfileType = 0, success = 0, httpCode = 200",
                          "DEBUG startMfa: errorId = ChallengeRequired, challengeId = CH-1, reason = ",
                          "DEBUG startAuthentication: after starting endpoint, errorId = ChallengeRequired, "
                          "challengeId = CH-1, reason = .",
                          "DEBUG startChallenge: result = 1, httpCode = 200"));
  CloudAuthChallenge challenge;
  ASSERT_EQ(client->nextChallenge(challenge), 1);
  EXPECT_EQ(challenge.mechanisms.at(0).mechanismId, "M-1");
}

TEST_F(PrivilegedAction, RefusalsAreDecidedInTheirOrder) {
  struct Row {
    HttpReply reply;
    int status;
    std::string elevation;
    std::string login;
  };
  const Row rows[] = {
      {refusedWith("ChallengeRequired", "", "NotConfigured"), AUTH_NOT_CONFIGURED, ELEVATION_NOT_CONFIGURED,
       LOGIN_NOT_CONFIGURED},
      {refusedWith("ChallengeRequired", "", "Other"), AUTH_FAILED, ELEVATION_UNUSABLE, LOGIN_UNUSABLE},
      {refusedWith("", "CH-1", "NotConfigured"), AUTH_NOT_CONFIGURED, ELEVATION_NOT_CONFIGURED, LOGIN_NOT_CONFIGURED},
      {refusedWith("challengerequired", "CH-1"), AUTH_FAILED, ELEVATION_UNUSABLE, LOGIN_UNUSABLE},
      {refusedWith("", "", "notconfigured"), AUTH_FAILED, ELEVATION_UNUSABLE, LOGIN_UNUSABLE},
      {json(R"({"success":false,"ErrorID":"ChallengeRequired","ChallengeId":"CH-1","Reason":"NotConfigured"})"),
       AUTH_FAILED, ELEVATION_UNUSABLE, LOGIN_UNUSABLE},
      {json(R"({"success":"true","ErrorID":17,"Result":{"ChallengeId":1,"Reason":[]}})"), AUTH_FAILED,
       ELEVATION_UNUSABLE, LOGIN_UNUSABLE},
      {json(R"({"success":false,"Result":null})"), AUTH_FAILED, ELEVATION_UNUSABLE, LOGIN_UNUSABLE},
      {json("no JSON"), AUTH_FAILED, ELEVATION_UNUSABLE, LOGIN_UNUSABLE},
      {json(""), AUTH_FAILED, ELEVATION_UNUSABLE, LOGIN_UNUSABLE},
  };
  for (const Row& row : rows) {
    for (const int profile : {1, 0, 2}) {
      beginWithSession(profile);
      platform.script({row.reply});
      EXPECT_EQ(client->startAuthentication(), row.status) << row.reply.bytes;
      EXPECT_EQ(ownRecords().back(), profile == 1 ? row.elevation : row.login) << row.reply.bytes;
      EXPECT_EQ(journal.take().size(), 1U);
    }
  }
}

TEST_F(PrivilegedAction, ChallengeComesBeforeTheReason) {
  beginWithSession();
  platform.script({refusedWith("ChallengeRequired", "CH-1", "NotConfigured"), policy()});
  EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
}

TEST_F(PrivilegedAction, ChallengeOfAnEarlierCallIsForgotten) {
  beginDialogue();
  platform.script({json(R"({"success":false,"ErrorID":"ChallengeRequired"})")});
  EXPECT_EQ(client->startAuthentication(), AUTH_FAILED);
  EXPECT_EQ(client->challengeId, "");
}

TEST_F(PrivilegedAction, RefusedChallengesFailTheRequest) {
  for (const HttpReply& reply : {refusal(), unauthorized(), json("no JSON")}) {
    beginWithSession();
    platform.script({wantsProof(), reply});
    EXPECT_EQ(client->startAuthentication(), AUTH_REQUEST_FAILED);
    EXPECT_EQ(ownRecords().back(), NO_CHALLENGES);
  }
}

TEST_F(PrivilegedAction, ResultOfARefusedChallengeIsInTheLog) {
  beginWithSession();
  platform.script({wantsProof(), unauthorized()});
  client->startAuthentication();
  const Texts logged = ownRecords();
  EXPECT_EQ(logged.at(logged.size() - 2), "DEBUG startChallenge: result = 0, httpCode = 401");
}

TEST_F(PrivilegedAction, BadPolicyPasses) {
  beginWithSession();
  platform.script({wantsProof(), json(R"({"success":true,"Result":{"SessionId":"S-1"}})")});
  EXPECT_EQ(failureOf([this] { client->startAuthentication(); }),
            "CloudException -1 Errors in parsing result from Json: 'TenantId' does NOT exist");
}

TEST_F(PrivilegedAction, BrokenTransfersKeepTheirCode) {
  beginWithSession();
  platform.script({cut()});
  EXPECT_EQ(failureOf([this] { client->startAuthentication(); }), "CurlException -1 " + CUT_SHORT);
  platform.script({wantsProof(), cut()});
  EXPECT_EQ(failureOf([this] { client->startAuthentication(); }), "CurlException -1 " + CUT_SHORT);
  beginDialogue();
  platform.script({summary("LoginSuccess"), cut()});
  EXPECT_EQ(failureOf([this] { answer(); }), "CurlException -1 " + CUT_SHORT);
}

TEST_F(PrivilegedAction, OutputsStayWhereTheActionMayGoAhead) {
  beginWithSession();
  client->challengeId = "of before";
  platform.script({json(R"({"success":true,"ErrorID":"E","Result":{"ChallengeId":"CH-1","Reason":"R"}})")});
  int status = 7;
  std::string errorId = "e";
  std::string reason = "r";
  EXPECT_EQ(client->startMfa(status, errorId, reason, false, nullptr), 1);
  EXPECT_EQ(status, 7);
  EXPECT_EQ(errorId, "e");
  EXPECT_EQ(reason, "r");
  EXPECT_EQ(client->challengeId, "of before");
  platform.script({httpReply("404 Not Found")});
  EXPECT_EQ(client->startMfa(status, errorId, reason, false, nullptr), 0);
  EXPECT_EQ(status, 404);
  EXPECT_EQ(errorId, "e");
  EXPECT_EQ(reason, "r");
}
