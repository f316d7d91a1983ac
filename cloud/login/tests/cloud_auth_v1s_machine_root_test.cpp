// The machine's sign-in with a real KDC and a connector that looks at its ticket.
#include <filesystem>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/http/tests/connector_trust.h"
#include "cloud/http/tests/curl_words.h"
#include "cloud/http/tests/negotiate_host.h"
#include "cloud/login/tests/cloud_auth_v1s_client.h"
#include "testsupport/setting.h"
#include "testsupport/temp_folder.h"

using namespace negotiatetest;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using testsupport::Certificate;
using testsupport::CertificateOptions;
using testsupport::Setting;

namespace {

constexpr char CODE[] = R"(<p>{"result":"success","otc":"CODE-1"}</p>)";
constexpr char MACHINE[] = "HOST1$@CORP.EXAMPLE.TEST";

class MachineSignInRoot : public NegotiateRoot {
 protected:
  MachineSignInRoot() {
    pool.maxConnections = 2;
    pool.occupiedTimeout = 900;
    pool.pool.setProxy(proxyInfo(proxy.address()));
  }

  // A client whose connector is the one with TLS, whose platform is behind the proxy.
  void begin(const std::string& connectorUrl) {
    client.reset();
    signInUrl.set(connectorUrl);
    const int profile = PROFILE_LOGIN;
    client = std::make_unique<V1SClient>(platformUrl, "1.0S", "alice@example.test", "ID-1", connectorUrl,
                                         "HTTP/127.0.0.1@CORP.EXAMPLE.TEST", &profile);
    client->getCurl("alice", "login");
  }
  void begin() { begin("https://" + connector.address() + "/"); }

  // Accepts the ticket and gives a code.
  testsupport::HttpReply answerAtConnector(const HttpRequest& request) {
    const HttpReply reply = answerAtServer(request, [](const std::string&) { return CODE; });
    return cutsOff ? HttpReply{"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nabc", HttpReply::Close} : reply;
  }
  // A proxy, and behind it the platform with TLS.
  testsupport::HttpReply answerAtProxy(const HttpRequest& request) {
    if (!request.tls) return testsupport::tunnelReply(true);
    return httpReply("200 OK", {"Set-Cookie: .ASPXAUTH=machine; path=/"}, R"({"success":true})");
  }
  std::vector<std::string> requestsOf(const HttpServer& server) const {
    std::vector<std::string> texts;
    for (const HttpRequest& request : server.requests()) texts.push_back(request.method() + " " + request.target());
    return texts;
  }
  bool hasOption(int option) const { return client->curl->recordedOptions().count(option) != 0; }
  std::string signInFailure() {
    return failureOf([this] { client->getMachineAuthToken(); });
  }

  bool cutsOff = false;
  testsupport::TempFolder folder;
  const Certificate ofConnector = certificateFor(folder, "connector");
  const Certificate ofPlatform = certificateFor(folder, "platform");
  HttpServer connector{[this](const HttpRequest& request) { return answerAtConnector(request); }, &ofConnector,
                       "127.0.0.1", 0, HttpServer::FromTheStart};
  HttpServer plain{[this](const HttpRequest& request) { return answerAtConnector(request); }};
  HttpServer proxy{[this](const HttpRequest& request) { return answerAtProxy(request); }, &ofPlatform};
  std::string platformUrl = "https://" + proxy.address() + "/";
  const Setting store{lumo::PN::FERROD_CLOUD_CERT_STORE, ofPlatform.certificateFile};
  Setting signInUrl{lumo::PN::CLOUD_IWA_URL_OVERRIDE, ""};
  CloudCurlPoolAccess pool;
  std::unique_ptr<V1SClient> client;
};

}  // namespace

TEST_F(MachineSignInRoot, MachineProvesItselfStraightToTheConnectorAndThePlatformIsReachedByTheProxy) {
  giveRootATicket();
  trustIn(folder.file("trusted"), ofConnector);
  const Setting trusted(lumo::PN::FERROSEC_CERT_DIR, folder.file("trusted"));
  begin();
  EXPECT_EQ(client->getVersion(), 1);
  EXPECT_EQ(client->getMachineAuthToken(), 1);
  EXPECT_EQ(client->getCookie(COOKIE_MACHINE), "machine");
  EXPECT_THAT(clients, ElementsAre(MACHINE));
  EXPECT_THAT(requestsOf(connector), ElementsAre("GET /iwa/SiteCheck"));
  EXPECT_THAT(requestsOf(proxy), ElementsAre("CONNECT " + proxy.address(), "GET /sysinfo/version",
                                             "CONNECT " + proxy.address(), "GET /security/sso?OneTimePass=CODE-1"));
  for (const HttpRequest& request : proxy.requests()) EXPECT_EQ(request.header("Authorization"), "");
  EXPECT_THAT(recordsOf(log.texts(), "cloud.object"),
              Contains("DEBUG Set CURL web proxy to: '" + proxy.address() + "' with auth: ''.").Times(2));
  EXPECT_THAT(log.text(), Not(HasSubstr("CODE-1")));
}

TEST_F(MachineSignInRoot, LocatorOfTheAgentIsAskedAndTheOtherWordsOfTheBlockAreZero) {
  begin("http://" + plain.address() + "/");
  client->curl->serverGssCallbacks.initialCredentials = this;
  client->curl->serverGssCallbacks.initialCredentialsData = this;
  EXPECT_EQ(client->getMachineAuthToken(), 1);
  const ProxyGssCallbacks& block = client->curl->serverGssCallbacks;
  EXPECT_EQ(block.kdcLocator, reinterpret_cast<void*>(&krb5_dc_locator_callback));
  EXPECT_EQ(block.initialCredentials, nullptr);
  EXPECT_EQ(block.initialCredentialsData, nullptr);
  EXPECT_EQ(block.helper, nullptr);
}

TEST_F(MachineSignInRoot, EachSignInHasATicketOfItsOwn) {
  begin("http://" + plain.address() + "/");
  EXPECT_EQ(client->getMachineAuthToken(), 1);
  EXPECT_EQ(client->getMachineAuthToken(), 1);
  EXPECT_THAT(clients, ElementsAre(MACHINE, MACHINE));
  const auto requests = plain.requests();
  EXPECT_NE(requests.at(0).header("Authorization"), requests.at(1).header("Authorization"));
}

TEST_F(MachineSignInRoot, DefaultFolderIsTheAgents) {
  trustIn(lumo::PN::DEFAULT_CERT_DIR, ofConnector);
  begin();
  EXPECT_EQ(client->getMachineAuthToken(), 1);
  std::filesystem::remove_all(lumo::PN::DEFAULT_CERT_DIR);
  begin();
  EXPECT_THAT(signInFailure(), HasSubstr("(60)"));
}

TEST_F(MachineSignInRoot, StoreOfThePlatformIsNotTrustedAtTheConnector) {
  const std::string both = folder.file("both.crt");
  std::filesystem::copy_file(ofConnector.certificateFile, both);
  const Setting all(lumo::PN::FERROD_CLOUD_CERT_STORE, both);
  const Setting trusted(lumo::PN::FERROSEC_CERT_DIR, folder.file("nobody"));
  begin();
  EXPECT_THAT(signInFailure(), StartsWith("CurlException 8 curl error occurred in curl_easy_perform: "));
  EXPECT_THAT(connector.requests(), IsEmpty());
}

TEST_F(MachineSignInRoot, NameOfTheConnectorIsVerifiedToo) {
  CertificateOptions options;
  options.name = "elsewhere.example.test";
  const Certificate other = makeCertificate(folder.path(), "elsewhere", options);
  trustIn(folder.file("trusted"), other);
  const Setting trusted(lumo::PN::FERROSEC_CERT_DIR, folder.file("trusted"));
  const HttpServer elsewhere([](const HttpRequest&) { return httpReply("200 OK", {}, CODE); }, &other, "127.0.0.1", 0,
                             HttpServer::FromTheStart);
  begin("https://" + elsewhere.address() + "/");
  EXPECT_THAT(signInFailure(), HasSubstr("(60)"));
}

TEST_F(MachineSignInRoot, FolderOfTheConnectorsIsNotTrustedAtThePlatform) {
  trustIn(folder.file("trusted"), ofConnector);
  trustIn(folder.file("trusted"), ofPlatform);
  const Setting trusted(lumo::PN::FERROSEC_CERT_DIR, folder.file("trusted"));
  const Setting wrong(lumo::PN::FERROD_CLOUD_CERT_STORE, ofConnector.certificateFile);
  begin();
  std::string otc;
  std::string errorMessage;
  EXPECT_EQ(client->siteCheck(otc, errorMessage), 1);
  EXPECT_FALSE(hasOption(CURLOPT_CAPATH));
  EXPECT_THAT(failureOf([&] { client->sso(otc); }), HasSubstr("(60)"));
}

TEST_F(MachineSignInRoot, VerificationOfTheConnectorAloneIsSkipped) {
  const Setting skip(lumo::PN::FERROD_IWA_SKIP_CERT_VERIFICATION, "true");
  const Setting wrong(lumo::PN::FERROD_CLOUD_CERT_STORE, ofConnector.certificateFile);
  begin();
  std::string otc;
  std::string errorMessage;
  EXPECT_EQ(client->siteCheck(otc, errorMessage), 1);
  EXPECT_EQ(otc, "CODE-1");
  EXPECT_FALSE(hasOption(CURLOPT_CAPATH));
  EXPECT_THAT(failureOf([&] { client->sso(otc); }), HasSubstr("(60)")) << "the platform's is not";
}

TEST_F(MachineSignInRoot, VerificationOfThePlatformAloneIsSkipped) {
  const Setting skip(lumo::PN::FERROD_CLOUD_SKIP_CERT_VERIFICATION, "true");
  begin();
  EXPECT_THAT(signInFailure(), HasSubstr("(60)"));
  trustIn(folder.file("trusted"), ofConnector);
  const Setting trusted(lumo::PN::FERROSEC_CERT_DIR, folder.file("trusted"));
  EXPECT_EQ(client->getMachineAuthToken(), 1);
}

TEST_F(MachineSignInRoot, AfterABrokenTransferTheProxyStaysAwayAndNoCredentialGoesAlong) {
  trustIn(folder.file("trusted"), ofConnector);
  const Setting trusted(lumo::PN::FERROSEC_CERT_DIR, folder.file("trusted"));
  cutsOff = true;
  begin();
  EXPECT_EQ(signInFailure(), "CurlException 8 " + curltest::transferFailed(CURLE_PARTIAL_FILE));
  EXPECT_FALSE(hasOption(CURLOPT_PROXY));
  EXPECT_FALSE(hasOption(CURLOPT_PROXY_GSS_CRED));
  const HttpServer platform([](const HttpRequest&) { return httpReply("200 OK", {}, R"({"success":true})"); });
  EXPECT_EQ(client->curl->perform("http://" + platform.address() + "/", "", 0).first, 200);
  EXPECT_EQ(platform.requests().at(0).header("Authorization"), "");
  EXPECT_THAT(proxy.requests(), IsEmpty());
  // The next try begins anew.
  cutsOff = false;
  client->certStore = ofPlatform.certificateFile;
  EXPECT_EQ(client->getMachineAuthToken(), 1);
  EXPECT_THAT(requestsOf(proxy), ElementsAre("CONNECT " + proxy.address(), "GET /security/sso?OneTimePass=CODE-1"));
}

TEST_F(MachineSignInRoot, TicketForAnotherServiceIsRefused) {
  trustIn(folder.file("trusted"), ofConnector);
  const Setting trusted(lumo::PN::FERROSEC_CERT_DIR, folder.file("trusted"));
  begin();
  client->spn = "HTTP/nobody.example.test@CORP.EXAMPLE.TEST";
  EXPECT_EQ(signInFailure(), "CloudIwaException 9 SiteCheck HTTP code is not OK(401).");
  EXPECT_THAT(connector.requests(), SizeIs(1));
}
