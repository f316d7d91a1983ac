// A login on a joined host from one end to the other, and what becomes of its cookies.
#include "cloud/login/tests/cloud_auth_lab.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using namespace labtest;

namespace {

class CloudAuthChainLab : public CloudAuthLab {
 protected:
  // What an exchange leaves in the log.
  static Texts exchange(const std::string& request, const Texts& more = {}) {
    return joined({{"DEBUG HTTP " + request, "DEBUG HTTP code = 200",
                    "DEBUG Dumping X-MRV-* headers:", "DEBUG X-MRV-Pod: lab\\r"},
                   more});
  }
  static Texts posted(const std::string& endpoint, const Texts& more = {}) {
    return exchange("post URL = " + lab("PLATFORM_URL") + endpoint + ". with content", more);
  }
  static Texts askedForProof(const std::string& challenge) {
    return {
        "DEBUG processResult returns false, error information from cloud errorCode = E-ChallengeRequired, errorId = "
        "ChallengeRequired, message = Proof is needed., messageId = _I18N_ChallengeRequired.",
        "DEBUG startMfa: authProfileType = 1, success = 0, httpCode = 200",
        "DEBUG startMfa: errorId = ChallengeRequired, challengeId = " + challenge + ", reason = "};
  }
  static Texts challengeStarted() {
    return posted("security/startchallenge", {"DEBUG startChallenge: result = 1, httpCode = 200"});
  }
  Texts signInRecords() const {
    const std::string url = "https://" + used + ":443/";
    const std::string spn = "HTTP/" + used + "@" + lab("REALM");
    return joined(
        {{"DEBUG Set CURL web proxy to: '" + used + ":8080' with auth: ''.",
          "DEBUG siteCheck: URL = " + url + "iwa/SiteCheck, SPN = " + spn + ", httpCode = 200",
          "DEBUG siteCheck: complete successfully"},
         exchange("get URL = " + lab("PLATFORM_URL") + "security/sso?OneTimePass=(hidden)",
                  {"DEBUG sso: result = 1, httpCode = 200", "DEBUG sso: cookieExist = 1"}),
         posted("security/startimpersonate", {"DEBUG startImpersonate: result = 1, httpCode = 200, cookieExist = 1"})});
  }

  static constexpr const char* PAYLOAD = R"({"command":"/bin/ls -l","host":"host1"})";
  const CloudAuth::Payload payload = {{"command", "/bin/ls -l"}, {"host", "host1"}};
};

}  // namespace

TEST_F(CloudAuthChainLab, FromTheKeytabToTheSecondRoundOfAPrivilegedAction) {
  Client client = begin("frank", PROFILE_ELEVATION);
  const std::string url = "https://" + used + ":443/";
  const std::string spn = "HTTP/" + used + "@" + lab("REALM");
  EXPECT_THAT(logged(), ElementsAre("DEBUG getCloudConnector: current cloud connector host DC FQDN=" + used,
                                    "DEBUG getCloudConnector: current cloud connector host DC FQDN=" + used,
                                    "DEBUG getIwaUrl: current cloud connector FQDN=" + used));
  EXPECT_THAT(textsWith(flow(), {"CURL connection"}, false),
              ElementsAre("DEBUG Cloud url is: " + lab("PLATFORM_URL") + ".", "DEBUG The cloud REST API version is: .",
                          "DEBUG IWA URL is: " + url + ". SPN = " + spn + ".",
                          "DEBUG Set cloud web proxy to: '" + used + ":8080' with auth: ''.",
                          "DEBUG Set CURL web proxy to: '" + used + ":8080' with auth: ''.",
                          "DEBUG Will use cert store : '" + lab("CA") + "' for cloud cert verification."));

  EXPECT_EQ(client->startAuthentication(&payload), AUTH_NEXT_CHALLENGE);
  EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "MACHINE-000002");
  EXPECT_EQ(client->getCookie(COOKIE_USER), "USER-000003");
  EXPECT_THAT(flow(), ElementsAreArray(joined({signInRecords(),
                                               posted("qrsintegration/ferrosuexecute", askedForProof("C000004/0")),
                                               {"DEBUG startAuthentication: after starting endpoint, errorId = "
                                                "ChallengeRequired, challengeId = C000004/0, reason = ."},
                                               challengeStarted()})));

  EXPECT_EQ(prove(*client), AUTH_NEXT_CHALLENGE);
  const std::string advance = "security/AdvanceAuthentication";
  const std::string again =
      "post with params URL = " + lab("PLATFORM_URL") + "qrsintegration/ferrosuexecute. content: (hidden)";
  EXPECT_THAT(flow(), ElementsAreArray(joined({posted(advance),
                                               posted(advance),
                                               exchange(again, askedForProof("C000006/1")),
                                               {"DEBUG advanceAuthentication: need to authenticate again."},
                                               challengeStarted()})));
  EXPECT_EQ(prove(*client), AUTH_DONE);
  EXPECT_THAT(flow(), ElementsAreArray(joined({posted(advance), posted(advance), exchange(again)})));

  end(client);
  EXPECT_THAT(asked(), ElementsAreArray(
                           joined({signIn("frank", 1),
                                   {std::string("POST qrsintegration/ferrosuexecute USER-000003 ") + PAYLOAD + ": 200"},
                                   proofRequests("ferrosuexecute", 4, 0, "OTP", PAYLOAD),
                                   proofRequests("ferrosuexecute", 6, 1, "SMS", PAYLOAD)})));
  EXPECT_THAT(came(2), ElementsAreArray(road(used))) << "one tunnel for it all";
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthChainLab, AnswerOutOfBandIsPolledAndTheUserIsNamedByIdToo) {
  tell(R"({"command":"user","user":{"name":"bob","uuid":"b-1"}})");
  Client client = begin("bob", PROFILE_LOGIN, "b-1");
  EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  CloudAuthChallenge challenge;
  ASSERT_EQ(client->nextChallenge(challenge), 1);
  ASSERT_EQ(challenge.mechanisms.size(), 6U);
  const CloudAuthMechanism& phone = challenge.mechanisms.at(3);
  EXPECT_EQ(phone.name, "PF");
  EXPECT_EQ(client->advanceAuthentication(phone.mechanismId, ACTION_START_OOB, ""), AUTH_PENDING);
  EXPECT_EQ(client->advanceAuthentication(phone.mechanismId, ACTION_POLL, ""), AUTH_PENDING);
  tell(R"({"command":"approve","user":"bob"})");
  EXPECT_EQ(client->advanceAuthentication(phone.mechanismId, ACTION_POLL, ""), AUTH_DONE);
  end(client);
  const auto requests = asked();
  ASSERT_EQ(requests.size(), 9U);
  EXPECT_EQ(requests.at(2), R"(POST security/startimpersonate MACHINE-000002 {"uuid":"b-1","username":"bob"}: 200)");
  EXPECT_EQ(requests.at(3), visit("USER-000003"));
  EXPECT_EQ(requests.at(8), "GET qrsintegration/mfalogin?challengeId=C000004%2F0 USER-000003: 200");
  EXPECT_THAT(came(2), ElementsAreArray(road(used)));
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthChainLab, WrongCodeEndsTheLogin) {
  Client client = begin("frank");
  EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  EXPECT_EQ(prove(*client, "111111"), AUTH_FAILED);
  EXPECT_THAT(log.text(), testing::Not(testing::HasSubstr("111111")));
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthChainLab, CookiesThatHoldSaveTheSignIn) {
  Client client = begin("alice");
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  const std::string ofMachine = client->getCookie(COOKIE_MACHINE);
  const std::string ofUser = client->getCookie(COOKIE_USER);
  end(client);
  EXPECT_THAT(asked(), ElementsAreArray(joined({signIn("alice", 1), {visit("USER-000003")}})));
  steps();

  client = begin("alice");
  client->setCookie(COOKIE_USER, ofUser);
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  end(client);
  EXPECT_EQ(asked().size(), 5U);
  EXPECT_EQ(asked().back(), visit("USER-000003"));

  // Another user by the machine's.
  client = begin("dave");
  client->setCookie(COOKIE_MACHINE, ofMachine);
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  end(client);
  const auto requests = asked();
  ASSERT_EQ(requests.size(), 7U);
  EXPECT_EQ(requests.at(5), impersonation("dave", "MACHINE-000002"));
  EXPECT_EQ(requests.at(6), visit("USER-000004"));
  EXPECT_THAT(came(4), ElementsAre(atPage(used), byProxy(used), byProxy(used), byProxy(used))) << "one sign-in";
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthChainLab, UserBehindAnotherOnOneConnectionHasASessionOfItsOwn) {
  Client client = begin("alice");
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  client.reset();
  client = begin("frank", PROFILE_ELEVATION);
  EXPECT_EQ(client->startAuthentication(&payload), AUTH_NEXT_CHALLENGE);
  EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "MACHINE-000005");
  EXPECT_EQ(client->getCookie(COOKIE_USER), "USER-000006");
  end(client);
  EXPECT_THAT(asked(), ElementsAreArray(
                           joined({signIn("alice", 1),
                                   {visit("USER-000003")},
                                   signIn("frank", 4),
                                   {std::string("POST qrsintegration/ferrosuexecute USER-000006 ") + PAYLOAD + ": 200",
                                    R"(POST security/startchallenge USER-000006 {"ChallengeStateId":"C000007/0",)"
                                    R"("Version":"1.0"}: 200)"}})));
  EXPECT_THAT(came(4), ElementsAre(atPage(used), atPage(used), byProxy(used), byProxy(used)));
  EXPECT_THAT(textsWith(flow(), {"Allocated new"}), testing::SizeIs(1)) << "one connection for both";
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthChainLab, OldCookieOfTheUserIsMadeAnewByTheMachines) {
  Client client = begin("alice");
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  tell(R"({"command":"expire","what":"user"})");
  steps();
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  EXPECT_EQ(client->getCookie(COOKIE_USER), "USER-000004");
  EXPECT_THAT(steps(),
              ElementsAre("DEBUG HTTP get URL = " + lab("PLATFORM_URL") + "qrsintegration/mfalogin",
                          "DEBUG startMfa: authProfileType = 0, success = 0, httpCode = 401",
                          "DEBUG HTTP post URL = " + lab("PLATFORM_URL") + "security/startimpersonate. with content",
                          "DEBUG startImpersonate: result = 1, httpCode = 200, cookieExist = 1",
                          "DEBUG HTTP get URL = " + lab("PLATFORM_URL") + "qrsintegration/mfalogin",
                          "DEBUG startAuthentication: after starting endpoint, no need to authenticate."));
  end(client);
  EXPECT_THAT(asked(), ElementsAreArray(joined({signIn("alice", 1),
                                                {visit("USER-000003"), visit("USER-000003", 401),
                                                 impersonation("alice", "MACHINE-000002"), visit("USER-000004")}})));
  EXPECT_THAT(came(2), ElementsAreArray(road(used)));
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthChainLab, OldCookiesOfBothAreMadeAnewByTheTicket) {
  Client client = begin("alice");
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  tell(R"({"command":"expire","what":"all"})");
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  end(client);
  EXPECT_THAT(asked(), ElementsAreArray(renewal("alice")));
  // The sign-in took the proxy away, and a tunnel belongs to who opened it.
  EXPECT_THAT(came(4), ElementsAre(atPage(used), atPage(used), byProxy(used), byProxy(used)));
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthChainLab, NewCookieThatIsRefusedEndsTheLogin) {
  tell(R"({"command":"fault","endpoint":"mfalogin","status":401,"count":0})");
  Client client = begin("alice");
  steps();
  EXPECT_EQ(client->startAuthentication(), AUTH_FAILED);
  EXPECT_THAT(textsWith(steps(), {"start"}),
              ElementsAre("DEBUG HTTP post URL = " + lab("PLATFORM_URL") + "security/startimpersonate. with content",
                          "DEBUG startImpersonate: result = 1, httpCode = 200, cookieExist = 1",
                          "DEBUG startMfa: authProfileType = 0, success = 0, httpCode = 401",
                          "DEBUG startAuthentication: user cookie is updated but still got HTTP Unauthorized."));
  EXPECT_THAT(asked(), ElementsAreArray(joined({signIn("alice", 1), {visit("USER-000003", 401)}})));
  EXPECT_THAT(warned(), IsEmpty());
}
