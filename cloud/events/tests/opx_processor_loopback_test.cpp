// The processor of privilege events: how it is had, how its connection is set up, how it signs in.
#include "cloud/events/tests/opx_processor_fixture.h"
#include "cloud/http/tests/curl_words.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testsupport::httpReply;

using OpxProcessorLoopback = OpxTest;

constexpr const char* COMPLETES = "DEBUG OPXProcessor: initProc completes";
constexpr const char* NO_CODE = "CloudException -1 Errors in parsing result from Json: 'otc' does NOT exist";
constexpr const char* GOT_NO_CODE = "DEBUG Got exception: Errors in parsing result from Json: 'otc' does NOT exist";

}  // namespace

TEST_F(OpxProcessorLoopback, IsDisabledBeforeAnythingElseIsLookedAt) {
  const auto have = [] { lumo::OPXProcessor::getInstance(); };
  EXPECT_EQ(failureOf(have), "nothing thrown");
  const std::string disabled = "lumo::OPXException 0 OPX is disabled in config file.";
  {
    const SettingsScope off{{"ferrod.cloud.log.privevent", "false"}};
    EXPECT_EQ(failureOf(have), disabled) << "at once";
    EXPECT_EQ(failureOf([] { lumo::OPXProcessor::checkEnabled(); }), disabled);
    lumo::OPXProcessor::destroyProcessor();
    EXPECT_EQ(failureOf(have), disabled) << "also without a processor";
  }
  EXPECT_EQ(failureOf(have), disabled) << "by default";
  const SettingsScope on{{"ferrod.cloud.log.privevent", "true"}};
  EXPECT_EQ(failureOf(have), "lumo::OPXException 1 OPX is not ready.");
  lumo::OPXProcessor::createProcessor();
  EXPECT_EQ(failureOf(have), "nothing thrown");
}

TEST_F(OpxProcessorLoopback, ANewOneHasNoSession) {
  signIn();
  lumo::OPXProcessor::createProcessor();
  EXPECT_EQ(lumo::OPXProcessor::getInstance()->getHttpCode(), 0);
  script({json(SUCCESS)});
  EXPECT_EQ(failureOf([] { lumo::OPXProcessor::getInstance()->cloudSSO(); }), NO_CODE);
  EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(OpxProcessorLoopback, ANewOneEndsTheFormerOnesConnection) {
  signIn();
  const auto before = static_cast<size_t>(server.connections());
  EXPECT_FALSE(server.waitForEnds(before, std::chrono::milliseconds(0)));
  lumo::OPXProcessor::createProcessor();
  EXPECT_TRUE(server.waitForEnds(before, std::chrono::seconds(60)));
}

TEST_F(OpxProcessorLoopback, SetsItsConnectionUpForTheProxy) {
  access.processor.cloudSetup();
  EXPECT_THAT(access.connection()->headers,
              ElementsAre(testing::Pair("Content-Type", "application/json"),
                          testing::Pair("X-MORVANE-NATIVE-CLIENT", "1"), testing::Pair("X-MRV-SRC", "QRS")));
  EXPECT_THAT(logged(), ElementsAre("DEBUG Set CURL web proxy to: '" + server.address() + "' with auth: ''."));
  EXPECT_EQ(access.webProxy.proxyServer, server.address());
  CurlObject* const first = access.connection();
  const auto headers = first->headers;
  for (auto& [name, value] : first->headers) value = "another";
  first->setOpt(CURLOPT_PROXY, "other:8080");
  access.processor.cloudSetup();
  EXPECT_EQ(access.connection(), first) << "the connection is kept";
  EXPECT_EQ(first->headers, headers);
}

TEST_F(OpxProcessorLoopback, GivesTheProxyItsAuthentication) {
  const SettingsScope basic{{"ferrod.cloud.proxy.auth.required", "true"}, {"ferrod.cloud.proxy.auth.type", "Basic"}};
  UpdateCloudHttpProxy();
  access.processor.cloudSetup();
  EXPECT_THAT(logged(), ElementsAre("DEBUG Set CURL web proxy to: '" + server.address() + "' with auth: 'basic'."));
  EXPECT_EQ(access.connection()->recordedOptions().count(CURLOPT_PROXYAUTH), 1U);
  EXPECT_EQ(access.webProxy.proxyAuth, "basic");
}

TEST_F(OpxProcessorLoopback, GoesWithoutAProxyWhereTheHostIsDirect) {
  access.processor.cloudSetup();
  logged();
  const SettingsScope direct{{"ferrod.cloud.direct.connection", "true"}};
  access.processor.cloudSetup();
  EXPECT_THAT(logged(), ElementsAre("DEBUG Ferrod is connecting to cloud server directly."));
  EXPECT_EQ(access.webProxy.proxyServer, "");
  EXPECT_EQ(access.connection()->recordedOptions().count(CURLOPT_PROXY), 0U);
}

TEST_F(OpxProcessorLoopback, SignsInAndGoesThroughTheProxyAfterwards) {
  script({session("m-1"), json(SUCCESS)});
  access.processor.initProc(PLATFORM);
  EXPECT_THAT(connectorAsked(), ElementsAre("GET /iwa/SiteCheck")) << "straight";
  EXPECT_THAT(asked(), ElementsAre(SSO));
  EXPECT_EQ(access.machineCookie, "m-1");
  const std::string proxy = "DEBUG Set CURL web proxy to: '" + server.address() + "' with auth: ''.";
  EXPECT_THAT(logged(), ElementsAre(proxy, "DEBUG siteCheck: URL = " + siteCheckUrl() + ", SPN = , httpCode = 200",
                                    proxy, "DEBUG siteCheck: complete successfully", "DEBUG HTTP code = 200",
                                    "TRACE HTTP response: {\"success\":true}", "DEBUG sso: result = 1, httpCode = 200",
                                    COMPLETES));
  EXPECT_THAT(log.text(), Not(HasSubstr("c-1"))) << "the code is nobody's to read";
}

TEST_F(OpxProcessorLoopback, SignInDropsWhatWaits) {
  lumo::OPXProcessor::handleLogPrivEvent({{"a", "1"}});
  lumo::OPXProcessor::handleLogPrivEvent({{"a", "2"}});
  ASSERT_EQ(access.waiting(), 2U);
  signIn();
  EXPECT_EQ(access.waiting(), 0U);
}

TEST_F(OpxProcessorLoopback, SignsInAtThePlatformThatItIsGiven) {
  access.platformUrl = "https://elsewhere.example.test/";
  script({session()});
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(access.platformUrl, PLATFORM);
  EXPECT_THAT(asked(), ElementsAre(SSO));
  EXPECT_EQ(access.machineCookie, "m-1");
}

TEST_F(OpxProcessorLoopback, FailuresStandInTheLogByTheirKind) {
  access.guarded([] { LUMO_THROW(lumo::CloudIwaException, 9, "one"); });
  access.guarded([] { LUMO_THROW(lumo::CurlException, -1, "two"); });
  access.guarded([] { LUMO_THROW(lumo::CloudException, -1, "three"); });
  EXPECT_THAT(logged(), ElementsAre("DEBUG Got IWA exception: one", "DEBUG Got CURL exception: two",
                                    "DEBUG Got exception: three"));
}

TEST_F(OpxProcessorLoopback, SecondSignInKeepsTheConnection) {
  signIn();
  const CurlObject* const first = access.connection();
  script({session("m-2")});
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(access.connection(), first);
  EXPECT_EQ(access.machineCookie, "m-2");
}

TEST_F(OpxProcessorLoopback, ConnectorsRefusalsStandInTheLog) {
  const std::string noJson = "DEBUG siteCheck: no valid json string in SiteCheck response. Can't find '{' or '}'.";
  struct Row {
    testsupport::HttpReply reply;
    long status;
    std::string said;  // empty: nothing
    std::string failure;
  };
  const std::vector<Row> rows = {
      {json(CODE, "403 Forbidden"), 403, "DEBUG siteCheck: httpCode not OK : 403", GOT_NO_CODE},
      {json("no braces"), 200, noJson, GOT_NO_CODE},
      {json("} {"), 200, noJson, GOT_NO_CODE},
      {json("{ no end"), 200, noJson, GOT_NO_CODE},
      {json(R"({"result":"busy"})"), 200, "DEBUG siteCheck: result not success: (busy)", GOT_NO_CODE},
      {json(R"({"result":"busy","otc":"c-1"})"), 200, "DEBUG siteCheck: result not success: (busy)", GOT_NO_CODE},
      {json(R"({"otc":"c-1"})"), 200, "",
       "DEBUG Got exception: Errors in parsing result from Json: 'result' does NOT exist"},
      {json("{no json}"), 200, "", "DEBUG Got exception: Errors in parsing result from Json: 'result' does NOT exist"},
  };
  const std::string proxy = "DEBUG Set CURL web proxy to: '" + server.address() + "' with auth: ''.";
  for (const Row& row : rows) {
    connectorSays(row.reply);
    access.processor.initProc(PLATFORM);
    std::vector<std::string> expected = {
        proxy, "DEBUG siteCheck: URL = " + siteCheckUrl() + ", SPN = , httpCode = " + std::to_string(row.status)};
    if (!row.said.empty()) expected.push_back(row.said);
    expected.push_back(row.failure);
    expected.emplace_back(COMPLETES);
    EXPECT_THAT(logged(), testing::ElementsAreArray(expected)) << row.reply.bytes;
    EXPECT_THAT(asked(), IsEmpty());
    EXPECT_EQ(access.machineCookie, "");
  }
}

TEST_F(OpxProcessorLoopback, ReplyWithoutACodeIsTold) {
  connectorSays(json(R"({"result":"success"})"));
  access.processor.initProc(PLATFORM);
  const std::vector<std::string> said = logged();
  ASSERT_EQ(said.size(), 6U);
  EXPECT_EQ(said[3], "DEBUG siteCheck: complete successfully");
  EXPECT_EQ(said[4], GOT_NO_CODE);
  EXPECT_EQ(said[5], COMPLETES);
}

TEST_F(OpxProcessorLoopback, ConnectorThatIsGoneIsATransferFailure) {
  const SettingsScope nowhere{{"ferrod.cloud.iwa.url", "http://127.0.0.1:1/"}};
  access.processor.initProc(PLATFORM);
  const std::vector<std::string> said = logged();
  ASSERT_EQ(said.size(), 3U);
  EXPECT_EQ(said[1], "DEBUG Got CURL exception: " + curltest::transferFailed(CURLE_COULDNT_CONNECT));
  EXPECT_EQ(said[2], COMPLETES);
}

TEST_F(OpxProcessorLoopback, PlatformWithoutTlsGetsNeitherCodeNorEvents) {
  const std::string url = "http://" + server.address() + "/";
  const std::string refused =
      "DEBUG Got exception: The platform's URL has no TLS: nothing is sent to http://" + server.address() +
      " unless ferrod.legacyzone.mfa.cloudurl, or ferrod.zone.cloudurl for a hierarchical zone, names that very URL";
  access.processor.initProc(url);
  EXPECT_THAT(logged(), Contains(refused));
  EXPECT_EQ(access.machineCookie, "");
  access.machineCookie = "m-1";
  lumo::OPXProcessor::handleLogPrivEvent({{"User", "alice"}});
  access.processor.postLogPrivEvent();
  EXPECT_THAT(logged(), Contains(refused));
  EXPECT_EQ(server.connections(), 0);
  lumo::OPXProcessorAccess::takeWaiting();
}

TEST_F(OpxProcessorLoopback, SessionThatAConnectorSetsIsNotTheMachines) {
  connectorSays(testsupport::httpReply("200 OK", {"Set-Cookie: .ASPXAUTH=connectors; path=/"}, CODE));
  script({json(SUCCESS)});
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(access.machineCookie, "");
  script({session()});
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(access.machineCookie, "m-1");
}

TEST_F(OpxProcessorLoopback, WithoutAnAgentThereIsNoConnector) {
  lumo::Props(false, true).eraseProperty("ferrod.cloud.iwa.url");
  access.processor.initProc(PLATFORM);
  EXPECT_THAT(logged(), ElementsAre("DEBUG Set CURL web proxy to: '" + server.address() + "' with auth: ''.",
                                    "DEBUG Got exception: Can not get ADAgent", COMPLETES));
}

TEST_F(OpxProcessorLoopback, RefusedSignInLeavesTheSessionAsItWas) {
  signIn();
  script(
      {json(R"({"success":false,"ErrorCode":"E1","ErrorID":"E2","Message":"E3","MessageID":"E4","Exception":"E5"})")});
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(access.machineCookie, "m-1");
  EXPECT_THAT(logged(), Contains("DEBUG processResult returns false, error information from cloud errorCode = E1, "
                                 "errorId = E2, message = E3, messageId = E4."));
  script({json(SUCCESS, "503 Service Unavailable")});
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(access.machineCookie, "m-1");
  EXPECT_THAT(logged(), Contains("DEBUG sso: result = 0, httpCode = 503"));
}

TEST_F(OpxProcessorLoopback, ASuccessWithoutACookieIsNoSession) {
  signIn();
  script({json(SUCCESS)});
  access.connection()->forgetSession();
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(access.machineCookie, "");
}

TEST_F(OpxProcessorLoopback, WithoutAMachineAccountThereIsNoSignIn) {
  source.machineCacheName.clear();
  access.processor.initProc(PLATFORM);
  EXPECT_THAT(logged(), ElementsAre("DEBUG Set CURL web proxy to: '" + server.address() + "' with auth: ''.",
                                    "DEBUG Got exception: no machine account", COMPLETES));
  EXPECT_THAT(connectorAsked(), IsEmpty());
}

TEST_F(OpxProcessorLoopback, AConnectorSeesNoSession) {
  signIn();
  script({json(SUCCESS), session("m-2")});
  lumo::OPXProcessor::handleLogPrivEvent({});
  access.processor.postLogPrivEvent();
  ASSERT_EQ(cookies.back(), ".ASPXAUTH=m-1;");
  connector.forgetRequests();
  access.processor.initProc(PLATFORM);
  ASSERT_EQ(connector.requests().size(), 1U);
  EXPECT_EQ(connector.requests()[0].header("Cookie"), "");
  EXPECT_EQ(access.machineCookie, "m-2");
}

TEST_F(OpxProcessorLoopback, ACodeOfAnEarlierSignInIsNotUsed) {
  script({json("", "503 Service Unavailable")});
  access.processor.initProc(PLATFORM);
  EXPECT_THAT(asked(), ElementsAre(SSO));
  connectorSays(json("", "403 Forbidden"));
  script({session()});
  access.processor.initProc(PLATFORM);
  EXPECT_THAT(asked(), IsEmpty());
  EXPECT_THAT(logged(), Contains(GOT_NO_CODE));
  EXPECT_EQ(access.machineCookie, "");
}

TEST_F(OpxProcessorLoopback, ConnectionIsThePlatformsAgainAfterASuccessAndTheConnectorsAfterARefusal) {
  signIn();
  const auto has = [this](int option) { return access.connection()->recordedOptions().count(option) != 0; };
  EXPECT_TRUE(has(CURLOPT_PROXY));
  EXPECT_TRUE(has(CURLOPT_CAINFO));
  for (const int option : {CURLOPT_CAPATH + 0, CURLOPT_USERNAME + 0, CURLOPT_PROXY_GSS_CRED, CURLOPT_PROXY_GSS_SPN,
                           CURLOPT_PROXY_GSS_SETUP_FUNCTION, CURLOPT_PROXY_GSS_SETUP_DATA}) {
    EXPECT_FALSE(has(option)) << option;
  }
  connectorSays(json("", "403 Forbidden"));
  access.processor.initProc(PLATFORM);
  EXPECT_FALSE(has(CURLOPT_PROXY));
  EXPECT_FALSE(has(CURLOPT_CAINFO));
  EXPECT_FALSE(has(CURLOPT_PROXY_GSS_CRED)) << "the credential is gone";
  for (const int option : {CURLOPT_CAPATH + 0, CURLOPT_USERNAME + 0, CURLOPT_PROXY_GSS_SPN}) {
    EXPECT_TRUE(has(option)) << option;
  }
}

TEST_F(OpxProcessorLoopback, WhatAFailedVisitTrustedIsNothingForThePlatform) {
  connectorSays(json("", "403 Forbidden"));
  access.processor.initProc(PLATFORM);
  ASSERT_EQ(access.connection()->recordedOptions().count(CURLOPT_CAPATH), 1U);
  const SettingsScope skip{{"ferrod.iwa.skip.cert.verification", "true"}};
  connectorSays(json(CODE));
  signIn();
  EXPECT_EQ(access.connection()->recordedOptions().count(CURLOPT_CAPATH), 0U);
}

TEST_F(OpxProcessorLoopback, VerificationCanBeSwitchedOffForEither) {
  testsupport::HttpServer secure([](const testsupport::HttpRequest&) { return json(CODE); }, &certificate, "127.0.0.1",
                                 0, testsupport::HttpServer::FromTheStart);
  const SettingsScope there{{"ferrod.cloud.iwa.url", "https://localhost:" + std::to_string(secure.port()) + "/"}};
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(secure.requests().size(), 0U) << "nobody trusts it";
  const SettingsScope skip{{"ferrod.iwa.skip.cert.verification", "true"}};
  script({session()});
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(secure.requests().size(), 1U);
  EXPECT_EQ(access.machineCookie, "m-1") << "the platform's certificate is looked at, and good";
  access.certStore = "/dev/null";
  script({session("m-2")});
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(access.machineCookie, "m-1") << "not trusted";
  const SettingsScope skipToo{{"ferrod.cloud.skip.cert.verification", "true"}};
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(access.machineCookie, "m-2");
}

TEST_F(OpxProcessorLoopback, AConnectionThatWasGivenAwayIsTakenUpAgain) {
  signIn();
  access.processor.releaseCurl();
  EXPECT_EQ(failureOf([this] { access.processor.cloudIWA(); }),
            "CloudException -1 The client holds no connection: take one with getCurl before the first call");
  script({session("m-2")});
  access.processor.initProc(PLATFORM);
  EXPECT_EQ(access.machineCookie, "m-2");
}
