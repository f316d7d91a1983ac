// A connector that fails is given up for the next one: the process's locator over a forest in memory.
#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/include/opx.h"
#include "cloud/rest/tests/cloud_object_client.h"
#include "cloud/route/tests/cloudconnectorlocator_forest.h"
#include "testsupport/private_host.h"

namespace {

using testing::AnyOf;
using testing::Contains;

constexpr char POD[] = "https://pod.example.test/";
constexpr char ONE[] = "one.forest.test:8080";
constexpr char TWO[] = "two.forest.test:8080";

class ResetProxy : public testing::Test {
 protected:
  ResetProxy() {
    testsupport::cleanPrivateHost();
    directory.setSite("Berlin");
    for (const char* name : {"one", "two"}) {
      directory.add(locatortest::connectorDn(name), {{AD_CN, {"proxy"}},
                                                     {AD_OBJECT_CLASS, {"serviceConnectionPoint"}},
                                                     {AD_KEYWORDS, locatortest::bothServices(POD)}});
      directory.add(
          locatortest::computerDn(name),
          {{AD_CN, {name}}, {AD_OBJECT_CLASS, {"computer"}}, {AD_DNS_NAME, {std::string(name) + ".forest.test"}}});
    }
    UpdateCloudHttpProxy();
    CloudConnectorLocator::getInstance(POD)->searchCloudConnetors(POD, false);
  }
  ~ResetProxy() override {
    CloudConnectorLocator::getInstance(POD)->resetState();
    CloudConnectorLocatorAccess::resetProcess();  // it keeps its URLs
  }

  testsupport::FakeCredentialSource credentials;
  testsupport::MemoryDirectory directory{"forest.test"};
  testsupport::DirectoryInForce inForce{directory};
  testsupport::LogCapture log;
  locatortest::AgentInForce agent;
  CloudCurlPoolAccess access;
  PlainClient client{POD};
};

}  // namespace

TEST_F(ResetProxy, NextConnectorIsTheProxyOfLaterHandOuts) {
  const std::string first = getCloudHttpProxy(POD).proxyServer;
  ASSERT_THAT(first, AnyOf(ONE, TWO));
  const std::string second = first == ONE ? TWO : ONE;
  CloudBase::setProxy(getCloudHttpProxy(POD));
  client.getCurl("alice", "login");

  client.resetProxy();
  EXPECT_EQ(access.proxyServer, second);
  EXPECT_EQ(access.proxyAuth, "");
  EXPECT_EQ(getCloudHttpProxy(POD).proxyServer, second);
  PlainClient next(POD);
  next.getCurl("bob", "login");
  const std::vector<std::string> records = recordsOf(log.texts(), "cloud.object");
  EXPECT_THAT(records, Contains("DEBUG Reset cloud web proxy..."));
  EXPECT_THAT(records, Contains("DEBUG Set CURL web proxy to: '" + first + "' with auth: ''."));
  EXPECT_THAT(records, Contains("DEBUG Set CURL web proxy to: '" + second + "' with auth: ''."));
}

TEST_F(ResetProxy, ConfiguredProxyStaysWhileTheConnectorGoes) {
  const std::string first = getCloudHttpProxy(POD).proxyServer;
  {
    const SettingsScope settings{{lumo::PN::CLOUD_PROXY_SERVER, "proxy.example.test"}};
    UpdateCloudHttpProxy();
    client.resetProxy();
    EXPECT_EQ(access.proxyServer, "proxy.example.test:8080");
  }
  UpdateCloudHttpProxy();
  EXPECT_EQ(getCloudHttpProxy(POD).proxyServer, first == ONE ? TWO : ONE);
}

TEST_F(ResetProxy, DirectConnectionKeepsItsConnector) {
  const std::string first = getCloudHttpProxy(POD).proxyServer;
  access.pool.setProxy(proxyInfo("of.before.test:8080"));
  {
    const SettingsScope settings{{lumo::PN::CLOUD_DIRECT_CONNECTION, "true"}};
    client.resetProxy();
  }
  EXPECT_EQ(access.proxyServer, "of.before.test:8080");
  EXPECT_EQ(getCloudHttpProxy(POD).proxyServer, first);
}

TEST_F(ResetProxy, UnusableProxyMeansTheConnectorWithoutCredentials) {
  const SettingsScope settings{{lumo::PN::CLOUD_PROXY_SERVER, "proxy.example.test"},
                               {lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, "true"},
                               {lumo::PN::CLOUD_PROXY_AUTH_TYPE, "NTLM"},
                               {lumo::PN::FIPS_MODE_ENABLE, "true"}};
  UpdateCloudHttpProxy();
  const CloudProxyInfo proxy = getCloudHttpProxy(POD);
  EXPECT_THAT(proxy.proxyServer, AnyOf(ONE, TWO));
  EXPECT_EQ(proxy.proxyAuth, "");
  EXPECT_EQ(proxy.proxyUser, "");
  EXPECT_TRUE(proxy.proxyPassword.empty());
  EXPECT_TRUE(proxy.proxyUsable);
}

TEST_F(ResetProxy, WithoutAConnectorThereIsNoProxy) {
  client.resetProxy();
  client.resetProxy();
  CloudConnectorLocator::getInstance(POD)->resetState();
  EXPECT_EQ(getCloudHttpProxy(POD).proxyServer, "");
}
