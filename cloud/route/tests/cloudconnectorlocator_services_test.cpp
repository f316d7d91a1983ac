#include "cloud/route/tests/cloudconnectorlocator_forest.h"

namespace {

using locatortest::Texts;
using testing::ElementsAre;

// Settings of a record that has both services.
const std::map<std::string, std::string> COMPLETE = {
    {LUMO_CLOUD_URL, "https://pod.example.test/"},    {LUMO_CLOUD_TENANT_ID, "TENANT"},
    {LUMO_CLOUD_WEB_PROXY, "conn1.forest.test:8080"}, {LUMO_CLOUD_PROXY_SCP, "true"},
    {LUMO_CLOUD_PROXY_FQDN, "conn1.forest.test"},     {LUMO_CLOUD_WEB_PROXYENABLED, "True"},
    {LUMO_CLOUD_CONNECTOR_IWA_ENABLED, "True"},       {LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME, "conn1.forest.test"},
    {LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, "True"},      {LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT, "8443"},
    {LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT, "8081"},
};

// Changes to it: a value, or a null pointer for a setting that is not there.
using Changes = std::vector<std::pair<const char*, const char*>>;

ADObjectPtr record(const Changes& changes = {}) {
  std::map<std::string, std::string> settings = COMPLETE;
  for (const auto& [name, value] : changes) {
    if (value == nullptr) {
      settings.erase(name);
    } else {
      settings[name] = value;
    }
  }
  auto connector = boost::make_shared<lumo::ADObject>("CN=proxy");
  for (const auto& [name, value] : settings) connector->set(name, {value});
  return connector;
}

constexpr Changes::value_type NO_WEB_PROXY{LUMO_CLOUD_WEB_PROXYENABLED, "False"};
constexpr Changes::value_type NO_IWA{LUMO_CLOUD_CONNECTOR_IWA_ENABLED, "False"};

class ConnectorServices : public locatortest::LocatorTest {
 protected:
  std::string reason(const Changes& changes, bool iwaRequired) {
    locator.iwaRequired = iwaRequired;
    locator.logUnavailableConnector(record(changes));
    const Texts texts = logged();
    if (texts.size() != 1) return "records: " + std::to_string(texts.size());
    const std::string before =
        "WARN Morvane Agent will not use Morvane Connector 'conn1.forest.test' to provide connectivity to Morvane "
        "Identity Platform URL 'https://pod.example.test/' because ";
    if (!startsWith(texts[0], before, false, false) || texts[0].back() != '.') return texts[0];
    return texts[0].substr(before.size(), texts[0].size() - before.size() - 1);
  }
};

TEST_F(ConnectorServices, AreCountedFromTheSettings) {
  const struct {
    Changes changes;
    int services;
  } rows[] = {
      {{}, SERVICE_WEB_PROXY | SERVICE_IWA},
      // No connector at all.
      {{{LUMO_CLOUD_URL, nullptr}}, 0},
      {{{LUMO_CLOUD_TENANT_ID, nullptr}}, 0},
      {{{LUMO_CLOUD_WEB_PROXY, nullptr}}, 0},
      {{{LUMO_CLOUD_PROXY_SCP, nullptr}}, 0},
      {{{LUMO_CLOUD_PROXY_SCP, "false"}}, 0},
      {{{LUMO_CLOUD_PROXY_SCP, "yes"}}, 0},
      {{{LUMO_CLOUD_PROXY_SCP, "true "}}, 0},
      {{{LUMO_CLOUD_PROXY_SCP, "TRUE"}}, 3},
      {{{LUMO_CLOUD_PROXY_SCP, "True"}}, 3},
      // No IWA.
      {{NO_IWA}, SERVICE_WEB_PROXY},
      {{{LUMO_CLOUD_CONNECTOR_IWA_ENABLED, nullptr}}, SERVICE_WEB_PROXY},
      {{{LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME, nullptr}}, SERVICE_WEB_PROXY},
      {{{LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT, nullptr}}, SERVICE_WEB_PROXY},
      {{{LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, nullptr}}, SERVICE_WEB_PROXY},
      {{{LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, "False"}}, SERVICE_WEB_PROXY},
      // IWA asks neither for a plain port nor for a name.
      {{{LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT, nullptr}}, 3},
      {{{LUMO_CLOUD_PROXY_FQDN, nullptr}}, 3},
      // No web proxy.
      {{NO_WEB_PROXY}, SERVICE_IWA},
      {{{LUMO_CLOUD_WEB_PROXYENABLED, nullptr}}, SERVICE_IWA},
      // A connector, but nothing of use.
      {{NO_WEB_PROXY, NO_IWA}, 0},
      {{NO_WEB_PROXY, {LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, "False"}}, 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(CloudConnectorLocatorAccess::getConnectorServices(record(row.changes)), row.services)
        << (row.changes.empty() ? "complete" : row.changes[0].first);
  }
  EXPECT_EQ(CloudConnectorLocatorAccess::getConnectorServices(nullptr), 0);
  EXPECT_EQ(CloudConnectorLocatorAccess::getConnectorServices(boost::make_shared<lumo::ADObject>()), 0);
  EXPECT_EQ(logged(), Texts());
}

TEST_F(ConnectorServices, DecideWithWhatIsRequired) {
  const char* const noIwa =
      "DEBUG Cloud connector 'conn1.forest.test' is unavailable: IWA is required, but IWA is not configured correctly. "
      "sevices = 1";
  const char* const noWebProxy =
      "DEBUG Cloud connector 'conn1.forest.test' is unavailable for web proxy is not configured correctly. services = "
      "2";
  const struct {
    Changes changes;
    bool iwaRequired, available;
    const char* text;
  } rows[] = {
      {{NO_WEB_PROXY, NO_IWA}, true, false, nullptr},
      {{NO_WEB_PROXY, NO_IWA}, false, false, nullptr},
      {{NO_IWA}, true, false, noIwa},
      {{NO_IWA}, false, true, nullptr},
      {{NO_WEB_PROXY}, true, true, nullptr},
      {{NO_WEB_PROXY}, false, false, noWebProxy},
      {{}, true, true, nullptr},
      {{}, false, true, nullptr},
  };
  for (const auto& row : rows) {
    locator.iwaRequired = row.iwaRequired;
    EXPECT_EQ(locator.isAvailableConnector(record(row.changes)), row.available);
    EXPECT_EQ(logged(), row.text == nullptr ? Texts() : Texts{row.text});
  }
  EXPECT_FALSE(locator.isAvailableConnector(nullptr));
  EXPECT_FALSE(locator.isAvailableConnector(boost::make_shared<lumo::ADObject>()));
  EXPECT_EQ(logged(), Texts());
}

TEST_F(ConnectorServices, IwaIsRequiredUntilASearchSaysOtherwise) { EXPECT_TRUE(locator.iwaRequired); }

TEST_F(ConnectorServices, EachMissingKeywordIsNamed) {
  const struct {
    const char *setting, *keyword;
    bool onlyForIwa;
  } rows[] = {
      {LUMO_CLOUD_URL, "morvane.core.cloudurl", false},
      {LUMO_CLOUD_TENANT_ID, "morvane.mobile.proxySysId", false},
      {LUMO_CLOUD_WEB_PROXY, "morvane.core.webproxy", false},
      {LUMO_CLOUD_WEB_PROXYENABLED, "morvane.core.webproxyenabled", false},
      {LUMO_CLOUD_PROXY_SCP, "morvane.mobile.proxyScp", false},
      {LUMO_CLOUD_CONNECTOR_IWA_ENABLED, "morvane.core.iwa.enabled", true},
      {LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, "morvane.core.iwa.useHttps", true},
      {LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME, "morvane.core.iwa.hostname", true},
      {LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT, "morvane.core.iwa.httpsPort", true},
  };
  for (const auto& row : rows) {
    if (std::string(row.setting) == LUMO_CLOUD_URL) continue;  // it stands in the text itself
    const std::string missing = std::string("keywords '") + row.keyword + "' are missing";
    EXPECT_EQ(reason({{row.setting, nullptr}}, true), missing);
    EXPECT_EQ(reason({{row.setting, nullptr}}, false), row.onlyForIwa ? "" : missing);
  }
  locator.logUnavailableConnector(record({{LUMO_CLOUD_URL, nullptr}}));
  EXPECT_THAT(logged(),
              ElementsAre("WARN Morvane Agent will not use Morvane Connector 'conn1.forest.test' to provide "
                          "connectivity to Morvane Identity Platform URL '' because keywords 'morvane.core.cloudurl' "
                          "are missing."));
}

TEST_F(ConnectorServices, EachIncorrectKeywordIsNamed) {
  const struct {
    const char *setting, *value, *keyword;
    bool onlyForIwa;
  } rows[] = {
      {LUMO_CLOUD_WEB_PROXYENABLED, "False", "morvane.core.webproxyenabled", false},
      {LUMO_CLOUD_WEB_PROXYENABLED, "perhaps", "morvane.core.webproxyenabled", false},
      {LUMO_CLOUD_PROXY_SCP, "no", "morvane.mobile.proxyScp", false},
      {LUMO_CLOUD_PROXY_SCP, "1", "morvane.mobile.proxyScp", false},
      {LUMO_CLOUD_CONNECTOR_IWA_ENABLED, "False", "morvane.core.iwa.enabled", true},
      {LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, "False", "morvane.core.iwa.useHttps", true},
  };
  for (const auto& row : rows) {
    const std::string incorrect = std::string("the value of keywords '") + row.keyword + "' are incorrect";
    EXPECT_EQ(reason({{row.setting, row.value}}, true), incorrect);
    EXPECT_EQ(reason({{row.setting, row.value}}, false), row.onlyForIwa ? "" : incorrect);
  }
  EXPECT_EQ(reason({{LUMO_CLOUD_PROXY_SCP, "tRuE"}}, true), "");
}

TEST_F(ConnectorServices, AllReasonsStandInTheirOrder) {
  const Changes allMissing = {{LUMO_CLOUD_TENANT_ID, nullptr},
                              {LUMO_CLOUD_WEB_PROXY, nullptr},
                              {LUMO_CLOUD_WEB_PROXYENABLED, nullptr},
                              {LUMO_CLOUD_PROXY_SCP, nullptr},
                              {LUMO_CLOUD_CONNECTOR_IWA_ENABLED, nullptr},
                              {LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, nullptr},
                              {LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME, nullptr},
                              {LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT, nullptr}};
  EXPECT_EQ(reason(allMissing, true),
            "keywords 'morvane.mobile.proxySysId, morvane.core.webproxy, morvane.core.webproxyenabled, "
            "morvane.mobile.proxyScp, morvane.core.iwa.enabled, morvane.core.iwa.useHttps, morvane.core.iwa.hostname, "
            "morvane.core.iwa.httpsPort' are missing");
  EXPECT_EQ(reason(allMissing, false),
            "keywords 'morvane.mobile.proxySysId, morvane.core.webproxy, morvane.core.webproxyenabled, "
            "morvane.mobile.proxyScp' are missing");
  const Changes allIncorrect = {
      NO_WEB_PROXY, {LUMO_CLOUD_PROXY_SCP, "no"}, NO_IWA, {LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, "no"}};
  EXPECT_EQ(reason(allIncorrect, true),
            "the value of keywords 'morvane.core.webproxyenabled, morvane.mobile.proxyScp, morvane.core.iwa.enabled, "
            "morvane.core.iwa.useHttps' are incorrect");
  EXPECT_EQ(reason({NO_WEB_PROXY, {LUMO_CLOUD_TENANT_ID, nullptr}, {LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME, nullptr}}, true),
            "keywords 'morvane.mobile.proxySysId, morvane.core.iwa.hostname' are missing and the value of keywords "
            "'morvane.core.webproxyenabled' are incorrect");
}

TEST_F(ConnectorServices, AFaultlessConnectorHasAnEmptyReason) {
  EXPECT_EQ(reason({}, true), "");
  locator.logUnavailableConnector(record({{LUMO_CLOUD_PROXY_FQDN, nullptr}}));
  EXPECT_THAT(logged(), ElementsAre("WARN Morvane Agent will not use Morvane Connector '' to provide connectivity to "
                                    "Morvane Identity Platform URL 'https://pod.example.test/' because ."));
}

TEST_F(ConnectorServices, OfTheKeywordsAreThoseOfTheRecord) {
  const ADObjectPtr connector = locatortest::connectorObject(
      "CONN1", locatortest::with(locatortest::bothServices(), "morvane.mobile.proxyScp", "TRUE"));
  locator.loadAttributes(connector);
  EXPECT_EQ(CloudConnectorLocatorAccess::getConnectorServices(connector), 3);
}

}  // namespace
