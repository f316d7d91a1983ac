#include <set>

#include "cloud/route/tests/cloudconnectorlocator_forest.h"
#include "cloud/route/tests/cloudconnectorlocator_keywords.h"

namespace {

using locatortest::bothServices;
using locatortest::connectorDn;
using locatortest::connectorObject;
using locatortest::Keywords;
using locatortest::Texts;
using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr char KEPT[] = "DEBUG loadAttributes: keyname = '%s', mvdName = '%s', mvdValue = '%s'";

std::string setting(const ADObjectPtr& connector, const char* name) { return connector->getString(name, "-none-"); }

class ConnectorRecord : public locatortest::LocatorTest {
 protected:
  ADObjectPtr loaded(const Keywords& keywords) {
    const ADObjectPtr connector = connectorObject("CONN1", keywords);
    locator.loadAttributes(connector);
    return connector;
  }
};

TEST_F(ConnectorRecord, EveryKeywordHasASettingOfItsOwn) {
  std::set<std::string> settings;
  for (const auto& [keyword, name] : KEYWORD_ROWS) {
    EXPECT_EQ(keywordToSetting(LocatorLock(), keyword), name) << keyword;
    settings.insert(name);
  }
  EXPECT_EQ(settings.size(), 13u);
  EXPECT_EQ(g_keywordMap.size(), 13u);
}

TEST_F(ConnectorRecord, OtherKeywordsHaveNone) {
  for (const char* keyword : {"", "morvane.core", "MORVANE.CORE.CLOUDURL", "morvane.core.cloudurl "}) {
    EXPECT_EQ(keywordToSetting(LocatorLock(), keyword), "") << keyword;
  }
  EXPECT_EQ(g_keywordMap.size(), 13u);
}

TEST_F(ConnectorRecord, EveryKeywordIsWrittenToItsSetting) {
  for (const auto& [keyword, name] : KEYWORD_ROWS) {
    const bool uri = std::string(name) == LUMO_CLOUD_PROXY_FQDN;
    const std::string value = uri ? "https://host.test:1" : "value";
    const ADObjectPtr connector = loaded({std::string(keyword) + ":" + value});
    EXPECT_EQ(setting(connector, name), uri ? "host.test" : "value") << keyword;
    EXPECT_EQ(logged(), Texts{VS(KEPT, keyword, name, value.c_str())});
  }
}

TEST(ConnectorUrl, GivesTheHostBeforeAPort) {
  const std::pair<const char*, const char*> rows[] = {
      {"https://host.test:8443/path", "host.test"},
      {"https://host.test:", "host.test"},
      {"https://host.test", ""},
      {"https://host.test/path", ""},
      {"https://:8443", ""},
      {"://host.test:1", "host.test"},
      {"host.test:8443", ""},
      {"https:/host.test:8443", ""},
      {"://", ""},
      {"", ""},
      {"https://one://two:3", "one"},
      {"x:y://host:1", "host"},
      {"https://user@host.test:8443", "user@host.test"},
      {"https://host.test/path:8443", "host.test/path"},
  };
  for (const auto& [url, host] : rows) EXPECT_EQ(getFqdnFromUrl(url), host) << url;
}

TEST_F(ConnectorRecord, NullAndEmptyObjectsAreLeftAlone) {
  locator.loadAttributes(nullptr);
  const auto empty = boost::make_shared<lumo::ADObject>(connectorDn("CONN1"));
  locator.loadAttributes(empty);
  EXPECT_TRUE(empty->empty());
  EXPECT_THAT(logged(), ElementsAre("DEBUG loadAttributes: connector object is null",
                                    "DEBUG loadAttributes: connector object is null"));
}

TEST_F(ConnectorRecord, AnObjectWithoutKeywordsIsNamedByItsGuid) {
  addComputer("CONN1", "conn1.forest.test");
  const ADObjectPtr connector = loaded({});
  EXPECT_EQ(setting(connector, LUMO_CLOUD_PROXY_FQDN), "-none-");
  EXPECT_THAT(logged(), ElementsAre("DEBUG loadAttributes: 'keywords' is empty for cloud connector "
                                    "object(GUID=6f9619ff-8b86-d011-b42d-00c04fc964ff)"));
}

TEST_F(ConnectorRecord, UnreadableKeywordsAreNamedByTheObjectsGuid) {
  addComputer("CONN1", "conn1.forest.test");
  const ADObjectPtr connector = connectorObject("CONN1", {});
  (*connector)[AD_KEYWORDS] = lumo::ADAttribute::unreadable();
  locator.loadAttributes(connector);
  EXPECT_EQ(setting(connector, LUMO_CLOUD_PROXY_FQDN), "-none-");
  EXPECT_THAT(logged(), ElementsAre("DEBUG loadAttributes: get cram attributes error for cloud connector "
                                    "object(GUID=6f9619ff-8b86-d011-b42d-00c04fc964ff)"));
}

TEST_F(ConnectorRecord, KeywordsAreReadInTheirOrderAndTheLastOneStands) {
  const ADObjectPtr connector = loaded({"morvane.mobile.proxySite:Berlin", "morvane.mobile.proxySite:Hamburg"});
  EXPECT_EQ(setting(connector, LUMO_CLOUD_CONNECTOR_SITE), "Hamburg");
  EXPECT_THAT(logged(), ElementsAre(VS(KEPT, "morvane.mobile.proxySite", LUMO_CLOUD_CONNECTOR_SITE, "Berlin"),
                                    VS(KEPT, "morvane.mobile.proxySite", LUMO_CLOUD_CONNECTOR_SITE, "Hamburg")));
}

TEST_F(ConnectorRecord, AnEmptyValueLeavesTheEarlierOne) {
  const ADObjectPtr connector = loaded({"morvane.mobile.proxySite:Berlin", "morvane.mobile.proxySite:"});
  EXPECT_EQ(setting(connector, LUMO_CLOUD_CONNECTOR_SITE), "Berlin");
  EXPECT_EQ(loaded({"morvane.mobile.proxySite:"})->attributeExists(LUMO_CLOUD_CONNECTOR_SITE, false), false);
}

TEST_F(ConnectorRecord, AKeywordWithoutAColonIsItsOwnValue) {
  const ADObjectPtr connector = loaded({"morvane.core.iwa.hostname"});
  EXPECT_EQ(setting(connector, LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME), "morvane.core.iwa.hostname");
  EXPECT_THAT(logged(), ElementsAre(VS(KEPT, "morvane.core.iwa.hostname", LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME,
                                       "morvane.core.iwa.hostname")));
}

TEST_F(ConnectorRecord, AnUnknownKeywordIsPassedOver) {
  Keywords keywords = bothServices();
  keywords.insert(keywords.begin(), {"morvane.core.later:1", "nothing", ":value", ""});
  const ADObjectPtr connector = loaded(keywords);
  EXPECT_EQ(CloudConnectorLocatorAccess::getConnectorServices(connector), 3);
  const Texts records = logged();
  ASSERT_EQ(records.size(), keywords.size() + 1);
  EXPECT_THAT(
      Texts(records.begin(), records.begin() + 4),
      ElementsAre("DEBUG loadAttributes: unexpected keyword 'morvane.core.later'",
                  "DEBUG loadAttributes: unexpected keyword 'nothing'", "DEBUG loadAttributes: unexpected keyword ''",
                  "DEBUG loadAttributes: unexpected keyword ''"));
}

TEST_F(ConnectorRecord, TheFirstColonEndsTheName) {
  const ADObjectPtr connector = loaded({"morvane.core.webproxy:host.test:8080"});
  EXPECT_EQ(setting(connector, LUMO_CLOUD_WEB_PROXY), "host.test:8080");
  EXPECT_EQ(setting(connector, LUMO_CLOUD_PROXY_FQDN), "host.test");
  EXPECT_EQ(setting(connector, LUMO_CLOUD_CONNECTOR_PORT), "8080");
  EXPECT_THAT(logged(), ElementsAre(VS(KEPT, "morvane.core.webproxy", LUMO_CLOUD_WEB_PROXY, "host.test:8080")));
}

TEST_F(ConnectorRecord, TheUrisHostIsKeptOnlyWhereAPortFollows) {
  const char* const keyword = "morvane.mobile.proxyUri";
  EXPECT_EQ(setting(loaded({"morvane.mobile.proxyUri:https://host.test:1/x"}), LUMO_CLOUD_PROXY_FQDN), "host.test");
  // The log has the value as it was told.
  EXPECT_THAT(logged(), ElementsAre(VS(KEPT, keyword, LUMO_CLOUD_PROXY_FQDN, "https://host.test:1/x")));
  EXPECT_EQ(setting(loaded({"morvane.mobile.proxyUri:https://host.test/x"}), LUMO_CLOUD_PROXY_FQDN), "-none-");
  const ADObjectPtr both =
      loaded({"morvane.mobile.proxyUri:https://one.test:1", "morvane.mobile.proxyUri:https://two.test"});
  EXPECT_EQ(setting(both, LUMO_CLOUD_PROXY_FQDN), "one.test");
}

TEST_F(ConnectorRecord, TheWebProxyLeavesAKnownHostAndReplacesThePort) {
  const ADObjectPtr connector = loaded({"morvane.core.webproxy:web.test:3128", "morvane.core.webproxy.port:8080",
                                        "morvane.mobile.proxyUri:https://uri.test:1"});
  EXPECT_EQ(setting(connector, LUMO_CLOUD_PROXY_FQDN), "uri.test");
  EXPECT_EQ(setting(connector, LUMO_CLOUD_CONNECTOR_PORT), "3128");
  EXPECT_EQ(setting(connector, LUMO_CLOUD_WEB_PROXY), "web.test:3128");
}

TEST_F(ConnectorRecord, TheFirstColonOfTheWebProxyEndsTheHost) {
  const ADObjectPtr connector = loaded({"morvane.core.webproxy:web.test:1:2", "morvane.core.webproxy.port:8080"});
  EXPECT_EQ(setting(connector, LUMO_CLOUD_PROXY_FQDN), "web.test");
  EXPECT_EQ(setting(connector, LUMO_CLOUD_CONNECTOR_PORT), "1:2");
  // A port that is empty there is empty.
  EXPECT_EQ(setting(loaded({"morvane.core.webproxy:web.test:", "morvane.core.webproxy.port:8080"}),
                    LUMO_CLOUD_CONNECTOR_PORT),
            "");
}

TEST_F(ConnectorRecord, AWebProxyWithoutAColonChangesNothing) {
  const ADObjectPtr connector = loaded({"morvane.core.webproxy:web.test", "morvane.core.webproxy.port:8080",
                                        "morvane.mobile.proxyUri:https://uri.test:1"});
  EXPECT_EQ(setting(connector, LUMO_CLOUD_WEB_PROXY), "web.test");
  EXPECT_EQ(setting(connector, LUMO_CLOUD_CONNECTOR_PORT), "8080");
  EXPECT_EQ(setting(connector, LUMO_CLOUD_PROXY_FQDN), "uri.test");
  EXPECT_EQ(logged().size(), 3u);
}

TEST_F(ConnectorRecord, HostAndPortMakeTheWebProxy) {
  const ADObjectPtr connector =
      loaded({"morvane.core.webproxy.port:8080", "morvane.mobile.proxyUri:https://uri.test:1"});
  EXPECT_EQ(setting(connector, LUMO_CLOUD_WEB_PROXY), "uri.test:8080");
  EXPECT_EQ(logged().back(),
            VS("DEBUG loadAttributes: compose mvdName = '%s', mvdValue = 'uri.test:8080'", LUMO_CLOUD_WEB_PROXY));
  EXPECT_EQ(setting(loaded({"morvane.core.webproxy.port:8080"}), LUMO_CLOUD_WEB_PROXY), "-none-");
  EXPECT_EQ(setting(loaded({"morvane.mobile.proxyUri:https://uri.test:1"}), LUMO_CLOUD_WEB_PROXY), "-none-");
}

// The web proxy is composed of what the keywords said; the computer's name comes afterwards.
TEST_F(ConnectorRecord, TheComputersNameWinsOverTheKeywords) {
  addComputer("CONN1", "conn1.forest.test");
  const ADObjectPtr connector =
      loaded({"morvane.core.webproxy.port:8080", "morvane.mobile.proxyUri:https://uri.test:1"});
  EXPECT_EQ(setting(connector, LUMO_CLOUD_PROXY_FQDN), "conn1.forest.test");
  EXPECT_EQ(setting(connector, LUMO_CLOUD_WEB_PROXY), "uri.test:8080");
  EXPECT_THAT(logged(), ElementsAre(VS(KEPT, "morvane.core.webproxy.port", LUMO_CLOUD_CONNECTOR_PORT, "8080"),
                                    VS(KEPT, "morvane.mobile.proxyUri", LUMO_CLOUD_PROXY_FQDN, "https://uri.test:1"),
                                    VS("DEBUG loadAttributes: compose mvdName = '%s', mvdValue = 'uri.test:8080'",
                                       LUMO_CLOUD_WEB_PROXY),
                                    "DEBUG got FQDN from parent object: conn1.forest.test"));
}

TEST_F(ConnectorRecord, AComputerWithoutANameLeavesTheKeywords) {
  addComputer("CONN1", "");
  EXPECT_EQ(setting(loaded({"morvane.mobile.proxyUri:https://uri.test:1"}), LUMO_CLOUD_PROXY_FQDN), "uri.test");
  EXPECT_EQ(loggedWith("FQDN from parent"), Texts());
}

TEST_F(ConnectorRecord, TheNameIsTheParentsOwn) {
  const ADObjectPtr connector = connectorObject("CONN1", {});
  EXPECT_EQ(locator.getConnectorFqdn(connector), "");
  addComputer("CONN2", "conn2.forest.test");
  EXPECT_EQ(locator.getConnectorFqdn(connectorObject("CONN2", {})), "conn2.forest.test");
  EXPECT_EQ(logged(), Texts());
}

// The server would answer a question for no name with its own name.
TEST_F(ConnectorRecord, WithoutAParentNobodyIsAsked) {
  const std::size_t before = directory.searches().size();
  for (const char* dn : {"", "DC=test", "no name at all"}) {
    const auto connector = boost::make_shared<lumo::ADObject>(dn);
    connector->set(AD_DN, {dn});
    EXPECT_EQ(locator.getConnectorFqdn(connector), "") << dn;
  }
  EXPECT_EQ(locator.getConnectorFqdn(nullptr), "");
  EXPECT_EQ(directory.searches().size(), before);
}

TEST_F(ConnectorRecord, ADirectoryThatFailsLeavesTheKeywordsName) {
  addComputer("CONN1", "conn1.forest.test");
  directory.failSearch({testsupport::MemoryDirectory::Failure::Kind::Server, 50, "Insufficient access"});
  EXPECT_EQ(setting(loaded({"morvane.mobile.proxyUri:https://uri.test:1"}), LUMO_CLOUD_PROXY_FQDN), "uri.test");
  EXPECT_EQ(logged().back(), "DEBUG Failed to fetch DC object in AD");
}

TEST_F(ConnectorRecord, AComputerIsReadOnceAndThenRemembered) {
  addComputer("CONN1", "conn1.forest.test");
  const std::size_t before = directory.searches().size();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(locator.getConnectorFqdn(connectorObject("CONN1", {})), "conn1.forest.test");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(locator.getConnectorFqdn(connectorObject("CONN2", {})), "");
  EXPECT_EQ(directory.searches().size(), before + 2);
}

}  // namespace
