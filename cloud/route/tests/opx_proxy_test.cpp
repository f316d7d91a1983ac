// The web proxy setting without credentials: what the settings alone say.
#include <gmock/gmock.h>

#include "base/include/parameter_names.h"
#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/include/opx.h"
#include "testsupport/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char URL[] = "https://tenant.example.test/";
constexpr char NO_AGENT[] = "CloudConnectorException -1 Can not get ADAgent";

class OpxProxy : public testing::Test {
 protected:
  // The next test finds what a process begins with.
  ~OpxProxy() override { UpdateCloudHttpProxy(); }

  std::vector<std::string> records() const { return recordsOf(log.texts(), "cloud.opx.processor"); }

  testsupport::LogCapture log;
};

std::string setting(const std::string& server, const std::string& auth = {}) {
  return "DEBUG The http proxy setting from config is proxy: '" + server + "', auth: '" + auth + "'.";
}

}  // namespace

TEST_F(OpxProxy, ServerIsTakenApartAtItsFirstColon) {
  struct Row {
    const char* configured;
    const char* server;
  };
  const Row rows[] = {{"proxy.example.test:3128", "proxy.example.test:3128"},
                      {"proxy.example.test", "proxy.example.test:8080"},
                      {"proxy.example.test:", "proxy.example.test:8080"},
                      {"10.0.0.1", "10.0.0.1:8080"},
                      {"10.0.0.1:1", "10.0.0.1:1"},
                      {"http://proxy:3128", "http://proxy:3128"},
                      {"a:b:c", "a:b:c"}};
  for (const Row& row : rows) {
    const SettingsScope settings{{lumo::PN::CLOUD_PROXY_SERVER, row.configured}};
    UpdateCloudHttpProxy();
    const CloudProxyInfo proxy = getCloudHttpProxy(URL);
    EXPECT_EQ(proxy.proxyServer, row.server);
    EXPECT_EQ(proxy.proxyAuth, "");
    EXPECT_EQ(proxy.proxyUser, "");
    EXPECT_TRUE(proxy.proxyPassword.empty());
    EXPECT_TRUE(proxy.proxyUsable);
    EXPECT_EQ(records().back(), setting(row.server));
  }
}

TEST_F(OpxProxy, ServerWithoutAHostIsNone) {
  for (const char* configured : {"", ":", ":8080", ":8080:proxy"}) {
    {
      const SettingsScope before{{lumo::PN::CLOUD_PROXY_SERVER, "proxy.example.test"}};
      UpdateCloudHttpProxy();
    }
    const SettingsScope settings{{lumo::PN::CLOUD_PROXY_SERVER, configured},
                                 {lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, "true"}};
    UpdateCloudHttpProxy();
    EXPECT_EQ(records().back(), setting(""));
    EXPECT_EQ(failureOf([] { getCloudHttpProxy(URL); }), NO_AGENT) << "the connector is asked for";
  }
}

TEST_F(OpxProxy, AuthenticationThatIsNotRequiredIsNotRead) {
  const SettingsScope settings{{lumo::PN::CLOUD_PROXY_SERVER, "10.0.0.1"},
                               {lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, "false"},
                               {lumo::PN::CLOUD_PROXY_AUTH_TYPE, "NTLM"},
                               {lumo::PN::FIPS_MODE_ENABLE, "true"}};
  UpdateCloudHttpProxy();
  EXPECT_EQ(getCloudHttpProxy(URL).proxyAuth, "");
  EXPECT_THAT(records(), ElementsAre(setting("10.0.0.1:8080")));
}

TEST_F(OpxProxy, DirectConnectionHasNoProxy) {
  const SettingsScope settings{{lumo::PN::CLOUD_PROXY_SERVER, "proxy.example.test"},
                               {lumo::PN::CLOUD_DIRECT_CONNECTION, "true"}};
  UpdateCloudHttpProxy();
  const CloudProxyInfo proxy = getCloudHttpProxy(URL);
  EXPECT_EQ(proxy.proxyServer, "");
  EXPECT_TRUE(proxy.proxyUsable);
}

TEST_F(OpxProxy, SettingIsThatOfTheLastUpdate) {
  const SettingsScope settings{{lumo::PN::CLOUD_PROXY_SERVER, "first.example.test"}};
  UpdateCloudHttpProxy();
  const SettingsScope later{{lumo::PN::CLOUD_PROXY_SERVER, "second.example.test"}};
  EXPECT_EQ(getCloudHttpProxy(URL).proxyServer, "first.example.test:8080");
  UpdateCloudHttpProxy();
  EXPECT_EQ(getCloudHttpProxy(URL).proxyServer, "second.example.test:8080");
}
