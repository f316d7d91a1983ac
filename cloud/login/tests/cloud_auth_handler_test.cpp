// Which client the configuration asks for, and with what it is made.
#include "cloud/include/cloud_auth_handler.h"

#include <sys/resource.h>

#include <atomic>
#include <memory>
#include <thread>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/include/opx.h"
#include "cloud/login/cloud_auth_v0.h"
#include "cloud/login/tests/cloud_auth_v1s_client.h"
#include "cloud/route/tests/cloudconnectorlocator_waiting.h"
#include "testsupport/sanitizers.h"

namespace {

using locatortest::POD;
using locatortest::Texts;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testsupport::Setting;

constexpr char URL[] = "https://tenant.example.test/";
constexpr char USER[] = "alice@example.test";
constexpr char NO_PROXY[] = "CloudConnectorException -1 Cloud web proxy is not configured correctly.";

// What is protected in a client.
struct ClientView : CloudAuthV1S {
  static const std::string& urlOf(const CloudAuth& client) { return client.*&ClientView::cloudUrl; }
  static const std::string& userOf(const CloudAuth& client) { return client.*&ClientView::userName; }
  static const std::string& versionOf(const CloudAuth& client) { return client.*&ClientView::version; }
  static const std::string& iwaUrlOf(const CloudAuthV1S& client) { return client.*&ClientView::iwaUrl; }
  static const std::string& spnOf(const CloudAuthV1S& client) { return client.*&ClientView::spn; }
  static const std::string& uuidOf(const CloudAuthV1S& client) { return client.*&ClientView::uuid; }
  static int profileOf(const CloudAuthV1S& client) { return client.*&ClientView::authProfileType; }
};

std::unique_ptr<CloudAuth> handlerFor(const std::string& url, int profile = PROFILE_LOGIN) {
  return std::unique_ptr<CloudAuth>(getHandler(url, USER, "ID-1", &profile));
}

const std::string& nameOfClass(const CloudAuth* client) {
  static const std::string names[] = {"none", "CloudAuthV0", "CloudAuthV1", "CloudAuthV1S"};
  if (dynamic_cast<const CloudAuthV1S*>(client) != nullptr) return names[3];
  if (dynamic_cast<const CloudAuthV1*>(client) != nullptr) return names[2];
  return names[dynamic_cast<const CloudAuthV0*>(client) != nullptr ? 1 : 0];
}

// The process's locator, with one connector in use.
class CloudAuthHandler : public locatortest::LocatorTest {
 protected:
  CloudAuthHandler() {
    CloudConnectorLocatorAccess::resetProcess();
    UpdateCloudHttpProxy();
    access().locator.resetState();
    useConnector("n1.forest.test");
    records();
  }
  ~CloudAuthHandler() override { CloudConnectorLocatorAccess::resetProcess(); }

  CloudConnectorLocatorAccess& access() {
    if (!m_access) m_access = std::make_unique<CloudConnectorLocatorAccess>(*CloudConnectorLocator::getInstance(POD));
    return *m_access;
  }
  void useConnector(const std::string& fqdn) {
    access().cloudUrl = POD;
    access().currentSiteTryList = {fqdn};
    access().currentConnector = fqdn;
    access().connectors[fqdn] =
        locatortest::connectorRecord(fqdn, {{AD_DN, "CN=proxy,CN=" + fqdn + ",OU=Servers,DC=emea,DC=forest,DC=test"}});
  }
  // The factory's records since the last call, and those of the pool.
  Texts records() { return log.newTexts("cloud.object"); }
  Texts locatorRecords(const std::string& text) {
    Texts some;
    for (std::string& record : log.newTexts(LOCATOR_LOGGER)) {
      if (record.find(text) != std::string::npos) some.push_back(std::move(record));
    }
    return some;
  }

  CloudCurlPoolAccess pool;

 private:
  std::unique_ptr<CloudConnectorLocatorAccess> m_access;
};

}  // namespace

TEST_F(CloudAuthHandler, ClassIsThatOfTheVersion) {
  struct Row {
    const char* version;
    const char* name;
  };
  const Row rows[] = {{"0", "CloudAuthV0"},     {"1.0", "CloudAuthV1"},   {"1.0S", "CloudAuthV1S"},
                      {"2.0", "CloudAuthV1S"},  {"3", "CloudAuthV1S"},    {"", "CloudAuthV1S"},
                      {"00", "CloudAuthV1S"},   {"1", "CloudAuthV1S"},    {"1.00", "CloudAuthV1S"},
                      {"1.0s", "CloudAuthV1S"}, {"zero", "CloudAuthV1S"}, {"0.0", "CloudAuthV1S"}};
  for (const Row& row : rows) {
    const Setting version(lumo::PN::CLOUD_REST_VERSION, row.version);
    const auto client = handlerFor(URL);
    EXPECT_EQ(nameOfClass(client.get()), row.name) << row.version;
    EXPECT_EQ(ClientView::versionOf(*client), row.version);
    EXPECT_EQ(ClientView::urlOf(*client), URL);
    EXPECT_EQ(ClientView::userOf(*client), USER);
    EXPECT_EQ(records().front(), std::string("DEBUG The cloud REST API version is: ") + row.version + ".");
  }
}

// The directory's only URL is taken where the zone has none, but no password goes there in the clear.
TEST_F(CloudAuthHandler, LoginAtAUrlOfTheDirectoryNeedsTls) {
  const Setting direct(lumo::PN::CLOUD_DIRECT_CONNECTION, "true");
  const std::string refused =
      "CloudException -1 The platform's URL has no TLS: nothing is sent to http://evil.test unless "
      "ferrod.legacyzone.mfa.cloudurl, or ferrod.zone.cloudurl for a hierarchical zone, names that very URL";
  pool.maxConnections = 1;
  access().cloudUrl = "http://evil.test/";
  for (const char* number : {"0", "1.0"}) {
    const Setting version(lumo::PN::CLOUD_REST_VERSION, number);
    const auto client = handlerFor("");
    EXPECT_EQ(ClientView::urlOf(*client), "http://evil.test/");
    client->getCurl(USER, "login");
    EXPECT_EQ(failureOf([&] { client->startAuthentication(); }), refused);
    EXPECT_EQ(failureOf([&] { client->getVersion(); }), refused);
  }
}

TEST_F(CloudAuthHandler, WithoutASettingItIsTheNewest) {
  const auto client = handlerFor(URL, PROFILE_ELEVATION);
  const auto* const newest = dynamic_cast<const CloudAuthV1S*>(client.get());
  ASSERT_NE(newest, nullptr);
  EXPECT_EQ(ClientView::iwaUrlOf(*newest), "https://n1.forest.test:8443/");
  EXPECT_EQ(ClientView::spnOf(*newest), "HTTP/n1.forest.test@EMEA.FOREST.TEST");
  EXPECT_EQ(ClientView::uuidOf(*newest), "ID-1");
  EXPECT_EQ(ClientView::profileOf(*newest), PROFILE_ELEVATION);
  EXPECT_THAT(records(), ElementsAre("DEBUG The cloud REST API version is: .",
                                     "DEBUG IWA URL is: https://n1.forest.test:8443/. SPN = "
                                     "HTTP/n1.forest.test@EMEA.FOREST.TEST.",
                                     "DEBUG Set cloud web proxy to: 'n1.forest.test:8080' with auth: ''."));
  EXPECT_EQ(pool.proxyServer, "n1.forest.test:8080");
  EXPECT_THAT(pool.connections, IsEmpty()) << "the caller borrows one";
}

TEST_F(CloudAuthHandler, IwaUrlIsLookedUpForEveryVersion) {
  for (const char* value : {"0", "1.0", ""}) {
    const Setting version(lumo::PN::CLOUD_REST_VERSION, value);
    locatorRecords("");
    handlerFor(URL);
    EXPECT_THAT(locatorRecords("getIwaUrl"),
                ElementsAre("DEBUG getIwaUrl: current cloud connector FQDN=n1.forest.test"));
    EXPECT_THAT(records(), testing::Contains(HasSubstr("IWA URL is: https://n1.forest.test:8443/. SPN = HTTP/n1")));
  }
}

TEST_F(CloudAuthHandler, IwaUrlOfTheConfigurationTakesThePlaceOfTheConnectors) {
  const Setting url(lumo::PN::CLOUD_IWA_URL_OVERRIDE, "https://own.forest.test:9443/");
  directory.add(
      "CN=OWN,OU=Servers,DC=apac,DC=forest,DC=test",
      {{AD_OBJECT_CATEGORY, {"computer"}}, {AD_OBJECT_CLASS, {"computer"}}, {AD_DNS_NAME, {"own.forest.test"}}});
  locatorRecords("");
  const auto client = handlerFor(URL);
  const auto& newest = dynamic_cast<const CloudAuthV1S&>(*client);
  EXPECT_EQ(ClientView::iwaUrlOf(newest), "https://own.forest.test:9443/");
  EXPECT_EQ(ClientView::spnOf(newest), "HTTP/own.forest.test@APAC.FOREST.TEST");
  EXPECT_THAT(locatorRecords("getIwaUrl"), IsEmpty());
  EXPECT_THAT(records(), testing::Contains("DEBUG IWA URL is: https://own.forest.test:9443/. SPN = "
                                           "HTTP/own.forest.test@APAC.FOREST.TEST."));
}

TEST_F(CloudAuthHandler, GivenUrlIsTakenAsItStands) {
  const auto client = handlerFor("no url at all");
  EXPECT_EQ(ClientView::urlOf(*client), "no url at all");
  EXPECT_THAT(log.text(), Not(HasSubstr("Cloud url is")));
  EXPECT_EQ(access().cloudUrl, POD);
}

TEST_F(CloudAuthHandler, WithoutAUrlItIsThatOfTheConnectors) {
  locatorRecords("");
  const auto client = handlerFor("");
  EXPECT_EQ(ClientView::urlOf(*client), POD);
  EXPECT_THAT(records(),
              ElementsAre(std::string("DEBUG Cloud url is: ") + POD + ".", "DEBUG The cloud REST API version is: .",
                          HasSubstr("DEBUG IWA URL is: "), HasSubstr("DEBUG Set cloud web proxy to: ")));
}

TEST_F(CloudAuthHandler, WithoutAUrlAConnectorIsSelectedBeforeAnythingElse) {
  const Setting direct(lumo::PN::CLOUD_DIRECT_CONNECTION, "true");
  const Setting iwa(lumo::PN::CLOUD_IWA_URL_OVERRIDE, "https://own.forest.test:9443/");
  ASSERT_EQ(access().connectorPort, "");
  const auto client = handlerFor("");
  EXPECT_EQ(access().connectorPort, "8080") << "the selection fills it, and nobody else asks for a connector";
  EXPECT_EQ(ClientView::urlOf(*client), POD);
}

TEST_F(CloudAuthHandler, WithoutProxyAndConnectorThereIsNoClient) {
  access().locator.resetState();
  pool.pool.setProxy(proxyInfo("of.before.test:8080"));
  for (const char* value : {"0", "1.0", ""}) {
    const Setting version(lumo::PN::CLOUD_REST_VERSION, value);
    EXPECT_EQ(failureOf([] { handlerFor(URL); }), NO_PROXY);
  }
  EXPECT_EQ(pool.proxyServer, "of.before.test:8080");
}

TEST_F(CloudAuthHandler, ConfiguredProxyIsEnough) {
  access().locator.resetState();
  const Setting server(lumo::PN::CLOUD_PROXY_SERVER, "proxy.example.test:3128");
  UpdateCloudHttpProxy();
  const auto client = handlerFor(URL);
  EXPECT_EQ(nameOfClass(client.get()), "CloudAuthV1S");
  EXPECT_EQ(pool.proxyServer, "proxy.example.test:3128");
}

TEST_F(CloudAuthHandler, DirectConnectionStoresAnEmptyProxy) {
  access().locator.resetState();
  pool.pool.setProxy(proxyInfo("of.before.test:8080", "basic", "carol", "word"));
  const Setting direct(lumo::PN::CLOUD_DIRECT_CONNECTION, "true");
  const auto client = handlerFor(URL);
  EXPECT_EQ(nameOfClass(client.get()), "CloudAuthV1S");
  EXPECT_EQ(pool.proxyServer, "");
  EXPECT_EQ(pool.proxyAuth, "");
  EXPECT_EQ(pool.proxyUser, "");
  EXPECT_TRUE(pool.proxyPassword.empty());
  client->getCurl("alice", "login");
  ASSERT_EQ(pool.connections.size(), 1U);
  EXPECT_EQ(pool.connections.begin()->first->recordedOptions().count(CURLOPT_PROXY), 0U);
}

TEST_F(CloudAuthHandler, EachCallMakesAClient) {
  const auto first = handlerFor(URL);
  const auto second = handlerFor(URL);
  EXPECT_NE(first, second);
}

TEST_F(CloudAuthHandler, FailuresOfTheLocatorPass) {
  const Setting url(lumo::PN::CLOUD_IWA_URL_OVERRIDE, "https://own.forest.test:9443/");
  directory.failSearch({testsupport::MemoryDirectory::Failure::Kind::Server, 50, "Insufficient access"});
  EXPECT_THROW(handlerFor(URL), LDAPException);
  EXPECT_EQ(pool.proxyServer, "");
}

TEST_F(CloudAuthHandler, ThreadsGetTheirOwnClients) {
  constexpr int THREADS = 8;
  constexpr int CALLS = 25;
  std::atomic<int> made{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < THREADS; ++i) {
    threads.emplace_back([&made, i] {
      for (int call = 0; call < CALLS; ++call) {
        const auto client = handlerFor(i % 2 == 0 ? "" : URL, i);
        const auto& newest = dynamic_cast<const CloudAuthV1S&>(*client);
        if (ClientView::profileOf(newest) == i && ClientView::urlOf(newest) == (i % 2 == 0 ? POD : URL)) ++made;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(made, THREADS * CALLS);
  EXPECT_EQ(pool.proxyServer, "n1.forest.test:8080");
}

// Without an agent nobody can be asked.
TEST(CloudAuthHandlerWithoutAnAgent, CannotGoToAConnector) {
  const CloudCurlPoolAccess pool;
  CloudConnectorLocatorAccess::resetProcess();
  EXPECT_EQ(failureOf([] { handlerFor(""); }), "CloudConnectorException -1 Can not get ADAgent");
  EXPECT_EQ(failureOf([] { handlerFor(URL); }), "CloudConnectorException -1 Can not get ADAgent");
  const Setting direct(lumo::PN::CLOUD_DIRECT_CONNECTION, "true");
  EXPECT_EQ(failureOf([] { handlerFor(URL); }), "CloudConnectorException -1 Can not get ADAgent");
}

#ifndef FERRO_SANITIZED
// A user whose name is larger than what memory is left, so that the client cannot be made.
TEST(CloudAuthHandlerWithoutMemory, SaysSoInItsOwnWords) {
  const CloudCurlPoolAccess pool;
  const Setting direct(lumo::PN::CLOUD_DIRECT_CONNECTION, "true");
  const Setting iwa(lumo::PN::CLOUD_IWA_URL_OVERRIDE, "https://own.forest.test:9443/");
  const auto failWithoutMemory = [](const char* value) {
    const Setting version(lumo::PN::CLOUD_REST_VERSION, value);
    const std::string name(size_t{64} << 20U, 'x');
    const rlimit few = {size_t{64} << 20U, size_t{64} << 20U};
    std::string said = "no limit";
    if (setrlimit(RLIMIT_AS, &few) == 0) said = failureOf([&] { delete getHandler(URL, name, "ID-1", nullptr); });
    std::fprintf(stderr, "[%s]\n", said.c_str());
    std::_Exit(7);
  };
  for (const char* version : {"0", "1.0", ""}) {
    EXPECT_EXIT(failWithoutMemory(version), testing::ExitedWithCode(7),
                "\\[BaseException 1004 Error in setting up communication with Morvane Identify Platform\\.\\]");
  }
}
#endif
