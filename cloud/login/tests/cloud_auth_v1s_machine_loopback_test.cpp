// The machine's sign-in: what goes to connector and platform, what is logged, what fails how.
#include "cloud/http/tests/curl_words.h"
#include "cloud/login/tests/cloud_auth_v1s_machine_sign_in.h"

using namespace v1stest;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

const std::string NO_CODE =
    "FATAL Morvane Identity Platform failed to authenticate this computer through the Morvane Connector. Please verify "
    "that 'Web Server (IWA)' is an enabled service for the Morvane Connector in the Admin Portal. If 'Web Server "
    "(IWA)' is already enabled, please contact Morvane support for help.";
const std::string NO_CONNECTOR =
    "FATAL Morvane Identity Platform failed to authenticate this computer through the Morvane Connector. Please verify "
    "network connectivity and that 'Web Server (IWA)' is an enabled service for the Morvane Connector in the Admin "
    "Portal. If there is no network connectivity issues and 'Web Server (IWA)' is already enabled, please contact "
    "Morvane support for help.";
const std::string NO_SESSION =
    "FATAL Morvane Identity Platform failed to authenticate the UNIX server. Please contact Morvane support for help.";
const std::string UNPROXIED = "DEBUG Set CURL web proxy to: '' with auth: ''.";

}  // namespace

TEST_F(MachineSignInLoopback, ChainFromCodeToSessions) {
  connector.script({code()});
  platform.script({session("machine-session"), session("user-session")});
  EXPECT_EQ(client->getMachineAuthToken(), 1);
  EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "machine-session");
  EXPECT_EQ(client->getCookie(COOKIE_USER), "");
  EXPECT_EQ(client->startImpersonate(), 1);
  EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "machine-session");
  EXPECT_EQ(client->getCookie(COOKIE_USER), "user-session");
  EXPECT_THAT(journal.take(),
              ElementsAre("connector GET /iwa/SiteCheck", "platform GET /security/sso?OneTimePass=CODE-1",
                          "platform POST /security/startimpersonate [.ASPXAUTH=machine-session;] "
                          R"({"uuid":"ID-1","username":"alice@example.test"})"));
  EXPECT_THAT(
      records(),
      ElementsAre(UNPROXIED, siteCheckLine(200), "DEBUG siteCheck: complete successfully",
                  "DEBUG HTTP get URL = " + platform.url() + "security/sso?OneTimePass=(hidden)",
                  "DEBUG HTTP code = 200", "DEBUG Dumping X-MRV-* headers:", "TRACE HTTP response: {\"success\":true}",
                  "DEBUG sso: result = 1, httpCode = 200", "DEBUG sso: cookieExist = 1",
                  "DEBUG HTTP post URL = " + platform.url() + "security/startimpersonate. with content",
                  "DEBUG HTTP code = 200", "DEBUG Dumping X-MRV-* headers:", "TRACE HTTP response: {\"success\":true}",
                  "DEBUG startImpersonate: result = 1, httpCode = 200, cookieExist = 1"));
}

TEST_F(MachineSignInLoopback, RequestsToTheByte) {
  connector.script({code()});
  platform.script({session("machine-session"), session("user-session")});
  client->curl->headers["X-TZOFF"] = "-60";
  client->getMachineAuthToken();
  client->startImpersonate();
  const auto rest = [](const Peer& peer, const std::string& more, int length) {
    return " HTTP/1.1\r\nHost: " + peer.server().address() + "\r\nAccept: */*\r\n" + more +
           "Content-Length: " + std::to_string(length) +
           "\r\nContent-Type: application/json\r\nX-MORVANE-NATIVE-CLIENT: 1\r\nX-MRV-SRC: QRS\r\nX-TZOFF: -60\r\n\r\n";
  };
  ASSERT_EQ(connector.server().requests().size(), 1U);
  EXPECT_EQ(connector.server().requests()[0].head, "GET /iwa/SiteCheck" + rest(connector, "", 0));
  ASSERT_EQ(platform.server().requests().size(), 2U);
  EXPECT_EQ(platform.server().requests()[0].head, "GET /security/sso?OneTimePass=CODE-1" + rest(platform, "", 0));
  EXPECT_EQ(platform.server().requests()[1].head,
            "POST /security/startimpersonate" + rest(platform, "Cookie: .ASPXAUTH=machine-session;\r\n", 47));
}

TEST_F(MachineSignInLoopback, NeitherCodeNorCookieStandsInTheLog) {
  connector.script({code("secret-code")});
  platform.script({session("secret-machine"), session("secret-user")});
  client->getMachineAuthToken();
  client->startImpersonate();
  EXPECT_THAT(log.text(), AllOf(HasSubstr("sso: result = 1"), Not(HasSubstr("secret"))));
}

TEST_F(MachineSignInLoopback, AnswersOfTheConnector) {
  struct Row {
    HttpReply reply;
    int status;
    int result;
    std::string otc;
    std::string errorMessage;
  };
  const std::string noOpening = "There's no valid json string in SiteCheck response. Can't find '{'.";
  const std::string noClosing = "There's no valid json string in SiteCheck response. Can't find '}'.";
  const Row rows[] = {
      {json(R"({"result":"success","otc":"CODE-1"})"), 200, 1, "CODE-1", "before"},
      {json(R"(<p>} text {"otc":"CODE-2","more":{"a":[1]},"result":"success"} text </p>)"), 200, 1, "CODE-2", "before"},
      {json(R"({"result":"success","otc":""})"), 200, 1, "", "before"},
      {json(R"({"result":"success","result":"failure","otc":"first"})"), 200, 1, "first", "before"},
      {json(""), 200, 0, "before", noOpening},
      {json("result=success&otc=CODE"), 200, 0, "before", noOpening},
      {json("only } here"), 200, 0, "before", noOpening},
      {json(R"({"result":"success","otc":"CODE-1")"), 200, 0, "before", noClosing},
      {json(R"(} "result":"success" {)"), 200, 0, "before", noClosing},
      {json(R"({"result":"failure","otc":"CODE-1"})"), 200, 0, "before", "SiteCheck result is not 'success'(failure)."},
      {json(R"({"result":"no\n\u001b[2J","otc":"CODE-1"})"), 200, 0, "before",
       "SiteCheck result is not 'success'(no\\n\\x1b[2J)."},
      {json(R"({"result":"Success","otc":"CODE-1"})"), 200, 0, "before", "SiteCheck result is not 'success'(Success)."},
      {json(R"({"result":"","otc":"CODE-1"})"), 200, 0, "before", "SiteCheck result is not 'success'()."},
      {httpReply("500 Internal Server Error", {}, R"({"result":"success","otc":"CODE-1"})"), 500, 0, "before",
       "SiteCheck HTTP code is not OK(500)."},
      {httpReply("401 Unauthorized"), 401, 0, "before", "SiteCheck HTTP code is not OK(401)."},
      {httpReply("204 No Content"), 204, 0, "before", "SiteCheck HTTP code is not OK(204)."},
      {httpReply("302 Found", {"Location: /elsewhere"}), 302, 0, "before", "SiteCheck HTTP code is not OK(302)."},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(askConnector(row.reply), row.result) << row.reply.bytes;
    EXPECT_EQ(otc, row.otc) << row.reply.bytes;
    EXPECT_EQ(errorMessage, row.errorMessage) << row.reply.bytes;
    EXPECT_EQ(client->getHttpCode(), row.status);
    EXPECT_THAT(journal.take(), Contains("connector GET /iwa/SiteCheck").Times(1));
    const Texts logged = records();
    EXPECT_EQ(logged[0], UNPROXIED);
    EXPECT_EQ(logged[1], siteCheckLine(row.status));
    EXPECT_THAT(Texts(logged.begin() + 2, logged.end()),
                row.result == 1 ? Texts{"DEBUG siteCheck: complete successfully"} : Texts());
  }
}

TEST_F(MachineSignInLoopback, AnswerWithoutWhatIsReadIsAFault) {
  struct Row {
    const char* body;
    const char* missing;
  };
  const Row rows[] = {{R"({"otc":"CODE-1"})", "result"},
                      {R"({"result":true,"otc":"CODE-1"})", "result"},
                      {R"({"Result":"success","otc":"CODE-1"})", "result"},
                      {"{no JSON}", "result"},
                      {R"({"result":"success","otc":"1"} {"more":1})", "result"},
                      {R"({"result":"success"})", "otc"},
                      {R"({"result":"success","otc":17})", "otc"}};
  for (const Row& row : rows) {
    const std::string words = std::string("Errors in parsing result from Json: '") + row.missing + "' does NOT exist";
    EXPECT_EQ(failureOf([&] { askConnector(json(row.body)); }), "CloudException -1 " + words) << row.body;
    EXPECT_EQ(otc, "before");
    records();
    connector.script({json(row.body)});
    EXPECT_EQ(signInFailure(), "CloudIwaException 9 Internal error. Error message: " + words) << row.body;
    EXPECT_EQ(records().back(), NO_CODE);
  }
}

TEST_F(MachineSignInLoopback, DeepAnswerIsRead) {
  constexpr std::size_t DEPTH = 100000;
  const std::string deep = std::string(DEPTH, '[') + std::string(DEPTH, ']');
  EXPECT_EQ(askConnector(json(R"({"deep":)" + deep + R"(,"result":"success","otc":"CODE-1"})")), 1);
  EXPECT_EQ(otc, "CODE-1");
}

TEST_F(MachineSignInLoopback, RefusalOfTheConnectorIsToldToAdministratorAndCaller) {
  connector.script({httpReply("500 Internal Server Error")});
  EXPECT_EQ(signInFailure(), "CloudIwaException 9 SiteCheck HTTP code is not OK(500).");
  EXPECT_THAT(records(), ElementsAre(UNPROXIED, siteCheckLine(500), NO_CODE));
  EXPECT_THAT(journal.take(), ElementsAre("connector GET /iwa/SiteCheck"));
  EXPECT_EQ(client->machineCookie, "");
}

TEST_F(MachineSignInLoopback, WordsOfAFailureAreCutAt511Characters) {
  const std::string said = "SiteCheck result is not 'success'(" + std::string(600, 'x') + ").";
  connector.script({json(R"({"result":")" + std::string(600, 'x') + "\"}")});
  EXPECT_EQ(signInFailure(), "CloudIwaException 9 " + said.substr(0, 511));
  EXPECT_EQ(askConnector(json(R"({"result":")" + std::string(600, 'x') + "\"}")), 0);
  EXPECT_EQ(errorMessage, said);
}

TEST_F(MachineSignInLoopback, BrokenTransferFromTheConnectorIsToldAsSuch) {
  connector.script({cut()});
  EXPECT_EQ(signInFailure(), "CurlException 8 " + CUT_SHORT);
  EXPECT_THAT(records(), ElementsAre(NO_CONNECTOR));
  EXPECT_EQ(client->getHttpCode(), 0);
}

TEST_F(MachineSignInLoopback, ConnectorThatIsAway) {
  begin(platform.url(), "http://127.0.0.1:1/");
  EXPECT_EQ(signInFailure(), "CurlException 8 " + curltest::transferFailed(CURLE_COULDNT_CONNECT));
  EXPECT_THAT(records(), ElementsAre(NO_CONNECTOR));
}

TEST_F(MachineSignInLoopback, WithoutAConnectorsUrl) {
  begin(platform.url(), "");
  EXPECT_THAT(signInFailure(), testing::StartsWith("CurlException 8 curl error occurred in curl_easy_perform: "));
  EXPECT_THAT(records(), ElementsAre(NO_CONNECTOR));
}

TEST_F(MachineSignInLoopback, ConnectorWithoutTlsIsAskedOnlyWhereTheParameterNamesIt) {
  signIn.set("https://connector.example.test/");
  EXPECT_EQ(signInFailure(),
            "CloudIwaException 9 Internal error. Error message: The URL of the sign-in has no TLS: nothing is sent to "
            "http://" +
                connector.server().address() + " unless ferrod.cloud.iwa.url names that very URL");
  EXPECT_EQ(connector.server().connections(), 0);
  EXPECT_THAT(records(), ElementsAre(NO_CODE));
}

TEST_F(MachineSignInLoopback, PlatformWithoutTlsGetsNoCodeUnlessTheZoneNamesIt) {
  zone.set("");
  connector.script({code()});
  EXPECT_EQ(signInFailure(),
            "CloudException -1 The platform's URL has no TLS: nothing is sent to http://" +
                platform.server().address() +
                " unless ferrod.legacyzone.mfa.cloudurl, or ferrod.zone.cloudurl for a hierarchical zone, names that "
                "very URL");
  EXPECT_EQ(platform.server().connections(), 0);
}

// Both listen at one address, so that a cookie of the one goes to the other, whatever its domain.
TEST_F(MachineSignInLoopback, SessionThatAConnectorSetsIsNeitherTheMachinesNorSent) {
  for (const char* own : {".ASPXAUTH=connectors; path=/", ".ASPXAUTH=\"connectors\"; path=/; HttpOnly",
                          ".ASPXAUTH=connectors; path=/security"}) {
    HttpReply withCookie = json("<html>{\"result\":\"success\",\"otc\":\"CODE-1\"}</html>",
                                {std::string("Set-Cookie: ") + own, "Set-Cookie: other=1; path=/"});
    begin();
    connector.script({withCookie});
    platform.script({success(), session("user-session")});
    EXPECT_EQ(client->getMachineAuthToken(), 1);
    EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "");
    EXPECT_THAT(journal.take(),
                ElementsAre("connector GET /iwa/SiteCheck", "platform GET /security/sso?OneTimePass=CODE-1 [other=1]"));
    connector.script({withCookie});
    platform.script({session("machine-session")});
    EXPECT_EQ(client->getMachineAuthToken(), 1);
    EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "machine-session");
    journal.take();
  }
}

TEST_F(MachineSignInLoopback, SessionOfAConnectorThatRefusesOrBreaksOffIsForgottenToo) {
  const HttpReply cutOff = {"HTTP/1.1 200 OK\r\nSet-Cookie: .ASPXAUTH=connectors; path=/\r\nContent-Length: 9\r\n\r\n{",
                            HttpReply::Close};
  for (const HttpReply& reply : {httpReply("403 Forbidden", {"Set-Cookie: .ASPXAUTH=connectors; path=/"}), cutOff}) {
    begin();
    connector.script({reply});
    EXPECT_NE(signInFailure(), "nothing thrown");
    journal.take();
    platform.script({success()});
    EXPECT_EQ(client->getVersion(), 1);
    EXPECT_THAT(journal.take(), ElementsAre("platform GET /sysinfo/version"));
  }
}

TEST_F(MachineSignInLoopback, CodeIsEscapedAndAddsNothingToTheUrl) {
  connector.script({json(R"({"result":"success","otc":"a/b+c==&user=eve#x ?\u00fc%41-._~"})")});
  platform.script({session("machine-session")});
  EXPECT_EQ(client->getMachineAuthToken(), 1);
  EXPECT_THAT(journal.take(), Contains("platform GET /security/sso?OneTimePass=a%2Fb%2Bc%3D%3D%26user%3Deve%23x%20%3F"
                                       "%C3%BC%2541-._~"));
  connector.script({code("two\\r\\nlines")});
  platform.script({success()});
  EXPECT_EQ(client->getMachineAuthToken(), 1);
  EXPECT_THAT(journal.take(), Contains("platform GET /security/sso?OneTimePass=two%0D%0Alines"));
  EXPECT_THAT(log.text(), Not(HasSubstr("lines")));
}

TEST_F(MachineSignInLoopback, WithoutAMachineAccountNobodyIsAsked) {
  client->curl->setProxy(platform.server().address(), "", "", lumo::Shredder2());
  const std::set<int> before = client->curl->recordedOptions();
  source.machineCacheName.clear();
  source.machineError = "The machine has no keytab.";
  EXPECT_EQ(signInFailure(), "CloudIwaException 9 Internal error. Error message: The machine has no keytab.");
  EXPECT_THAT(records(), ElementsAre(NO_CODE));
  EXPECT_THAT(journal.take(), IsEmpty());
  EXPECT_EQ(client->curl->recordedOptions(), before);
}

TEST_F(MachineSignInLoopback, MachineCacheIsAskedForEachTime) {
  askConnector(code());
  askConnector(code());
  EXPECT_EQ(source.machineCacheCalls, 2);
}

TEST_F(MachineSignInLoopback, CodeThatThePlatformRefuses) {
  for (const HttpReply& reply : {refusal(), unauthorized(), httpReply("500 Internal Server Error"), json("no JSON")}) {
    connector.script({code()});
    platform.script({reply});
    EXPECT_EQ(client->getMachineAuthToken(), 0);
    EXPECT_EQ(client->machineCookie, "");
    EXPECT_THAT(fatal(), ElementsAre(NO_SESSION));
  }
}

TEST_F(MachineSignInLoopback, RefusedCodeLeavesTheCookieOfBefore) {
  client->setCookie(COOKIE_MACHINE, "of before");
  platform.script({httpReply("403 Forbidden", {"Set-Cookie: .ASPXAUTH=new; path=/"})});
  EXPECT_EQ(client->sso("CODE-1"), 0);
  EXPECT_EQ(client->machineCookie, "of before");
  EXPECT_EQ(records().back(), "DEBUG sso: result = 0, httpCode = 403");
}

TEST_F(MachineSignInLoopback, BrokenTransferOfTheCodeIsPassedOnWithoutAWord) {
  connector.script({code()});
  platform.script({cut()});
  EXPECT_EQ(signInFailure(), "CurlException 8 " + CUT_SHORT);
  EXPECT_THAT(fatal(), IsEmpty());
  EXPECT_THAT(journal.take(),
              ElementsAre("connector GET /iwa/SiteCheck", "platform GET /security/sso?OneTimePass=CODE-1"));
}

TEST_F(MachineSignInLoopback, CodeWithoutACookieIsNoFailure) {
  client->setCookie(COOKIE_MACHINE, "of before");
  platform.script({json(R"({"success":true})", {"Set-Cookie: OTHER=1; path=/"})});
  EXPECT_EQ(client->sso("CODE-1"), 1);
  EXPECT_EQ(client->machineCookie, "");
  EXPECT_THAT(ownRecords(), ElementsAre("DEBUG sso: result = 1, httpCode = 200", "DEBUG sso: cookieExist = 0"));
}

TEST_F(MachineSignInLoopback, ImpersonationSendsTheIdentifierOnlyWhereThereIsOne) {
  begin(PROFILE_LOGIN, "");
  client->setCookie(COOKIE_MACHINE, "machine");
  platform.script({session("user")});
  EXPECT_EQ(client->startImpersonate(), 1);
  EXPECT_THAT(journal.take(), ElementsAre("platform POST /security/startimpersonate [.ASPXAUTH=machine;] "
                                          R"({"username":"alice@example.test"})"));
}

TEST_F(MachineSignInLoopback, NamesOfUsersAreEscapedInJson) {
  begin(PROFILE_LOGIN, "i\"d");
  client->setUserName("a\\b\"\n@c");
  platform.script({session("user")});
  EXPECT_EQ(client->startImpersonate(), 1);
  EXPECT_THAT(journal.take(), ElementsAre("platform POST /security/startimpersonate [.ASPXAUTH=;] "
                                          R"({"uuid":"i\"d","username":"a\\b\"\n@c"})"));
}

TEST_F(MachineSignInLoopback, RefusedImpersonationLeavesTheUsersCookie) {
  client->setCookie(COOKIE_MACHINE, "machine");
  platform.script({json(R"({"success":false})", {"Set-Cookie: .ASPXAUTH=new; path=/"}), unauthorized()});
  EXPECT_EQ(client->startImpersonate(), 0);
  EXPECT_EQ(client->userCookie, "");
  EXPECT_EQ(ownRecords().back(), "DEBUG startImpersonate: result = 0, httpCode = 200, cookieExist = 0");
  client->setCookie(COOKIE_USER, "of before");
  EXPECT_EQ(client->startImpersonate(), 0);
  EXPECT_EQ(client->userCookie, "of before");
  EXPECT_EQ(ownRecords().back(), "DEBUG startImpersonate: result = 0, httpCode = 401, cookieExist = 1");
}

TEST_F(MachineSignInLoopback, ImpersonationWithoutACookieSucceedsWithNone) {
  client->setCookie(COOKIE_USER, "of before");
  platform.script({success()});
  EXPECT_EQ(client->startImpersonate(), 1);
  EXPECT_EQ(client->userCookie, "");
  EXPECT_EQ(ownRecords().back(), "DEBUG startImpersonate: result = 1, httpCode = 200, cookieExist = 0");
}

TEST_F(MachineSignInLoopback, CookieOfTheMachineIsNotTakenForTheUsers) {
  platform.script({session("machine"), success()});
  client->sso("CODE-1");
  EXPECT_EQ(client->startImpersonate(), 1);
  EXPECT_EQ(client->userCookie, "");
}

TEST_F(MachineSignInLoopback, BrokenTransferOfTheImpersonationHasItsCode) {
  platform.script({cut()});
  EXPECT_EQ(failureOf([this] { client->startImpersonate(); }), "CurlException 8 " + CUT_SHORT);
  EXPECT_THAT(ownRecords(), IsEmpty());
}
