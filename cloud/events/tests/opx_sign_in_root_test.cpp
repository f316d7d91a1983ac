// The processor's sign-in with a real KDC and a connector that looks at the machine's ticket, and events behind it.
#include <filesystem>

#include "basalt/ad_agent.h"
#include "cloud/events/tests/opx_processor_access.h"
#include "cloud/http/tests/connector_trust.h"
#include "cloud/http/tests/curl_words.h"
#include "cloud/http/tests/negotiate_host.h"
#include "cloud/include/opx.h"
#include "cloud/route/tests/cloudconnectorlocator_access.h"
#include "lab/platform/platform_simulator.h"
#include "testsupport/setting.h"
#include "testsupport/temp_folder.h"

using namespace negotiatetest;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testsupport::Certificate;
using testsupport::Setting;

namespace {

constexpr char MACHINE[] = "HOST1$@CORP.EXAMPLE.TEST";

// Agent, connector and platform of one host, which goes straight to both.
class OpxSignInRoot : public NegotiateRoot {
 protected:
  OpxSignInRoot() {
    directory.add("CN=CONNECTOR,DC=corp,DC=example,DC=test",
                  {{"objectCategory", {"computer"}}, {"objectClass", {"computer"}}, {"dNSHostName", {"127.0.0.1"}}});
    ADAgent::Options options;
    options.domain = "corp.example.test";
    ADAgent::start(options);
    CloudConnectorLocatorAccess::resetProcess();
    UpdateCloudHttpProxy();
    trustIn(folder.file("trusted"), ofConnector);
    access.certStore = ofPlatform.certificateFile;
  }
  ~OpxSignInRoot() override {
    CloudConnectorLocatorAccess::resetProcess();
    ADAgent::stop();
  }

  static ferrolab::PlatformOptions optionsWith(const Certificate& certificate) {
    ferrolab::PlatformOptions options;
    options.certificate = &certificate;
    options.hostName = "127.0.0.1";
    return options;
  }
  testsupport::HttpReply answerAtConnector(const HttpRequest& request) {
    return answerAtServer(request, [this](const std::string& client) { return platform.siteCheckReply(client); });
  }
  std::vector<std::string> logged() { return log.newTexts("OPX.processor"); }
  std::string siteCheckUrl() const { return "https://" + connector.address() + "/iwa/SiteCheck"; }

  testsupport::TempFolder folder;
  const Certificate ofConnector = certificateFor(folder, "connector");
  const Certificate ofPlatform = certificateFor(folder, "platform");
  ferrolab::PlatformSimulator platform{optionsWith(ofPlatform)};
  HttpServer connector{[this](const HttpRequest& request) { return answerAtConnector(request); }, &ofConnector,
                       "127.0.0.1", 0, HttpServer::FromTheStart};
  const SettingsScope settings{{"ferrod.cloud.direct.connection", "true"},
                               {"ferrosec.cert.dir", folder.file("trusted")},
                               {"ferrod.cloud.iwa.url", "https://" + connector.address() + "/"}};
  lumo::OPXProcessorAccess access;
};

}  // namespace

TEST_F(OpxSignInRoot, MachineProvesItselfToTheConnectorAndReportsItsEvents) {
  giveRootATicket();
  lumo::OPXProcessor::handleLogPrivEvent({{"User", "lost"}});
  access.platformUrl = platform.url();
  access.processor.postLogPrivEvent();
  EXPECT_THAT(clients, ElementsAre(MACHINE));
  EXPECT_THAT(logged(),
              ElementsAre("DEBUG postLogPrivEvent() runs...", "DEBUG Machine cookie not ready, will fetch",
                          "DEBUG Ferrod is connecting to cloud server directly.",
                          "DEBUG siteCheck: URL = " + siteCheckUrl() +
                              ", SPN = HTTP/127.0.0.1@CORP.EXAMPLE.TEST, httpCode = 200",
                          "DEBUG Set CURL web proxy to: '' with auth: ''.", "DEBUG siteCheck: complete successfully",
                          "DEBUG HTTP code = 200", testing::StartsWith("TRACE HTTP response: {\"success\":true,"),
                          "DEBUG sso: result = 1, httpCode = 200", "DEBUG OPXProcessor: initProc completes",
                          "DEBUG process a privilege event"));
  lumo::OPXProcessor::handleLogPrivEvent({{"User", "alice"}, {"Command", "/bin/id"}});
  access.processor.postLogPrivEvent();
  EXPECT_THAT(platform.events(), ElementsAre(R"({"User":"alice","Command":"/bin/id"})"));
  ASSERT_THAT(platform.requests(), Not(IsEmpty()));
  for (const auto& request : platform.requests()) EXPECT_EQ(request.status, 200) << request.endpoint;
  EXPECT_EQ(platform.requests().back().cookie, access.machineCookie);
  EXPECT_THAT(platform.surprises(), IsEmpty());
  ASSERT_THAT(connector.requests(), SizeIs(1));
  EXPECT_EQ(connector.requests()[0].method() + " " + connector.requests()[0].target(), "GET /iwa/SiteCheck");
  EXPECT_THAT(log.text(), Not(HasSubstr(access.machineCookie)));
}

TEST_F(OpxSignInRoot, ConnectorThatRefusesTheMachineGivesNoSession) {
  const HttpServer strict([](const HttpRequest&) { return httpReply("401 Unauthorized", {}, "{}"); }, &ofConnector,
                          "127.0.0.1", 0, HttpServer::FromTheStart);
  const Setting there("ferrod.cloud.iwa.url", "https://" + strict.address() + "/");
  access.processor.initProc(platform.url());
  EXPECT_THAT(logged(), Contains("DEBUG siteCheck: httpCode not OK : 401"));
  EXPECT_EQ(access.machineCookie, "");
  EXPECT_THAT(platform.requests(), IsEmpty());
}

// libcurl's own folder trusts the connector here.
TEST_F(OpxSignInRoot, EmptyFolderTrustsNobodyTheFirstTimeAndEveryTime) {
  trustIn("/etc/ssl/certs", ofConnector);
  const Setting empty("ferrosec.cert.dir", "");
  for (int visit = 1; visit <= 3; ++visit) {
    access.processor.initProc(platform.url());
    EXPECT_THAT(logged(), Contains(HasSubstr("(60)"))) << visit;
  }
  EXPECT_THAT(connector.requests(), IsEmpty());
}

TEST_F(OpxSignInRoot, ConnectorIsCheckedAgainstItsFolderAlone) {
  const Setting nobody("ferrosec.cert.dir", folder.file("nobody"));
  access.certStore = ofConnector.certificateFile;
  access.processor.initProc(platform.url());
  EXPECT_THAT(logged(), Contains(HasSubstr("Got CURL exception: curl error occurred in curl_easy_perform: ")));
  EXPECT_THAT(connector.requests(), IsEmpty());
  EXPECT_THAT(clients, IsEmpty());
}

TEST_F(OpxSignInRoot, PlatformIsNotCheckedAgainstTheConnectorsFolder) {
  trustIn(folder.file("trusted"), ofPlatform);
  access.certStore = ofConnector.certificateFile;
  access.processor.initProc(platform.url());
  EXPECT_THAT(logged(), Contains("DEBUG siteCheck: complete successfully"));
  EXPECT_EQ(access.machineCookie, "");
  EXPECT_THAT(platform.calls(), ElementsAre("GET iwa/SiteCheck"));
}

TEST_F(OpxSignInRoot, WithoutAnIwaUrlTheRequestGoesNowhere) {
  lumo::Props(false, true).eraseProperty("ferrod.cloud.iwa.url");
  access.processor.initProc(platform.url());
  EXPECT_THAT(logged(), ElementsAre("DEBUG Ferrod is connecting to cloud server directly.",
                                    "DEBUG Got CURL exception: " + curltest::transferFailed(CURLE_COULDNT_RESOLVE_HOST),
                                    "DEBUG OPXProcessor: initProc completes"));
  EXPECT_THAT(clients, IsEmpty());
}

TEST_F(OpxSignInRoot, EverySignInHasATicketOfItsOwn) {
  access.processor.initProc(platform.url());
  const std::string first = access.machineCookie;
  access.processor.initProc(platform.url());
  EXPECT_THAT(clients, ElementsAre(MACHINE, MACHINE));
  const auto requests = connector.requests();
  ASSERT_THAT(requests, SizeIs(2));
  EXPECT_NE(requests[0].header("Authorization"), requests[1].header("Authorization"));
  EXPECT_NE(access.machineCookie, first);
  EXPECT_THAT(platform.surprises(), IsEmpty());
}
