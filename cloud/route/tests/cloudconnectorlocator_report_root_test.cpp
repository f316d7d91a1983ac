#include "basalt/settings/settings_store.h"
#include "cloud/include/opx.h"
#include "cloud/route/tests/cloudconnectorlocator_waiting.h"
#include "testsupport/private_host.h"

namespace {

using locatortest::POD;
using locatortest::refreshIn;
using locatortest::Setting;
using locatortest::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char OTHER_POD[] = "https://other.example.test/";

// The process-wide locator: its report names the proxy that clients get.
class ConnectorReport : private testsupport::CleanPrivateHost, public locatortest::WaitingLocatorTest {
 protected:
  ConnectorReport() { UpdateCloudHttpProxy(); }
  ~ConnectorReport() override {
    lumo::RunQueue::shutdownAll();
    CloudConnectorLocatorAccess::resetProcess();
  }

  void knowOne(const std::string& fqdn, const locatortest::Settings& changes = {}) {
    one.connectors[fqdn] = locatortest::connectorRecord(fqdn, changes);
  }
  // A connector on each list: two in the site, one elsewhere, one of each other kind.
  void fill() {
    one.cloudUrl = POD;
    one.cloudUrls = {POD, OTHER_POD};
    knowOne("n1");
    knowOne("n2", {{LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, "False"}});
    knowOne("f1", {{LUMO_CLOUD_CONNECTOR_SITE, "Hamburg"}, {LUMO_CLOUD_WEB_PROXYENABLED, "False"}});
    knowOne("d1", locatortest::NO_IWA);
    knowOne("u1", {{LUMO_CLOUD_URL, OTHER_POD}});
    knowOne("u2", {{LUMO_CLOUD_URL, OTHER_POD}, {LUMO_CLOUD_CONNECTOR_SITE, "Hamburg"}});
    auto invalid = boost::make_shared<lumo::ADObject>();
    (*invalid)[LUMO_CLOUD_PROXY_FQDN] = "i1";
    one.connectors["i1"] = invalid;
    one.currentSiteTryList = {"n1", "n2"};
    one.otherSiteTryList = {"f1"};
    one.discardedList = {"d1"};
    one.currentSiteUnusedList = {{OTHER_POD, "u1"}};
    one.otherSiteUnusedList = {{OTHER_POD, "u2"}};
    one.invalidList = {{"", "i1"}};
    one.currentConnector = "n1";
  }
  // The records as "FQDN STATE INUSE".
  Texts listed(const std::string& filter) {
    std::vector<CloudConnectorInfo> infos;
    one.locator.getConnectors(filter, infos);
    Texts texts;
    for (const auto& info : infos) {
      texts.push_back(info.fqdn + " " + std::to_string(info.state) + " " + std::to_string(info.inUse));
    }
    return texts;
  }

  CloudConnectorLocatorAccess one{*CloudConnectorLocator::getInstance("")};
};

constexpr char EMPTY_REPORT[] =
    R"(==============Morvane Identity Platform Instances/Morvane Connectors info============
Morvane Identity Platform Instances:
   Morvane Identity Platform Instances in zone: 
Proxy to Morvane Identity Platform:
   Proxy server: None
   Proxy authentication method: None
Morvane Connectors:
   Current used connector: 
   Morvane Connectors in current site:
   Morvane Connectors in other site:
   Morvane Connectors discarded:
   Morvane Connectors in current site and unused:
   Morvane Connectors in other site and unused:
   Morvane Connectors invalid:
)";

constexpr char FULL_REPORT[] =
    R"(==============Morvane Identity Platform Instances/Morvane Connectors info============
Morvane Identity Platform Instances:
   Morvane Identity Platform Instances in zone: https://pod.example.test/
   Morvane Identity Platform Instances: https://pod.example.test/
   Morvane Identity Platform Instances: https://other.example.test/
Proxy to Morvane Identity Platform:
   Proxy server: n1:8080
   Proxy authentication method: None
Morvane Connectors:
   Current used connector: n1
   Morvane Connectors in current site:
      Morvane Connector: n1
        Morvane Identity Platform URL: https://pod.example.test/
        Connector Site: Berlin
        Connector FQDN: n1
        Tenant ID: TENANT
        Connector port: 8080
        Connector IWA HTTP port: 80
        Connector IWA HTTPS port: 8443
      Morvane Connector: n2
        Morvane Identity Platform URL: https://pod.example.test/
        Connector Site: Berlin
        Connector FQDN: n2
        Tenant ID: TENANT
        Connector port: 8080
        Connector IWA HTTP port: 80
        Connector IWA HTTPS port: -
   Morvane Connectors in other site:
      Morvane Connector: f1
        Morvane Identity Platform URL: https://pod.example.test/
        Connector Site: Hamburg
        Connector FQDN: f1
        Tenant ID: TENANT
        Connector port: -
        Connector IWA HTTP port: 80
        Connector IWA HTTPS port: 8443
   Morvane Connectors discarded:
      Morvane Connector: d1
        Morvane Identity Platform URL: https://pod.example.test/
        Connector Site: Berlin
        Connector FQDN: d1
        Tenant ID: TENANT
        Connector port: 8080
        Connector IWA HTTP port: -
        Connector IWA HTTPS port: -
   Morvane Connectors in current site and unused:
      Morvane Connector: u1
        Morvane Identity Platform URL: https://other.example.test/
        Connector Site: Berlin
        Connector FQDN: u1
        Tenant ID: TENANT
        Connector port: 8080
        Connector IWA HTTP port: 80
        Connector IWA HTTPS port: 8443
   Morvane Connectors in other site and unused:
      Morvane Connector: u2
        Morvane Identity Platform URL: https://other.example.test/
        Connector Site: Hamburg
        Connector FQDN: u2
        Tenant ID: TENANT
        Connector port: 8080
        Connector IWA HTTP port: 80
        Connector IWA HTTPS port: 8443
   Morvane Connectors invalid:
      Morvane Connector: i1
        Morvane Identity Platform URL: 
        Connector Site: 
        Connector FQDN: i1
        Tenant ID: 
        Connector port: -
        Connector IWA HTTP port: -
        Connector IWA HTTPS port: -
)";

TEST_F(ConnectorReport, OfAHostWithoutConnectorsHasAllHeadings) { EXPECT_EQ(one.locator.dump(), EMPTY_REPORT); }

TEST_F(ConnectorReport, TellsAllThatIsKnown) {
  fill();
  EXPECT_EQ(one.locator.dump(), FULL_REPORT);
  EXPECT_EQ(dumpCloudConnectors(), FULL_REPORT);
}

TEST_F(ConnectorReport, NamesTheConfiguredProxyAndHowItIsAuthenticated) {
  const Setting server(lumo::PN::CLOUD_PROXY_SERVER, "proxy.test:3128");
  {
    const Setting required(lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, "true");
    const Setting type(lumo::PN::CLOUD_PROXY_AUTH_TYPE, "Basic");
    UpdateCloudHttpProxy();
  }
  fill();
  EXPECT_THAT(one.locator.dump(), testing::HasSubstr("\n   Proxy server: proxy.test:3128\n"
                                                     "   Proxy authentication method: basic\n"));
}

TEST_F(ConnectorReport, LeavesOutWhatHasNoRecordAndARefreshComes) {
  one.currentSiteTryList = {"nobody"};
  EXPECT_EQ(one.locator.dump(), EMPTY_REPORT);
  EXPECT_TRUE(refreshWaits(900));
  EXPECT_THAT(loggedWith("SetRefresh"), ElementsAre(refreshIn(900)));
}

// An override that no search found stands first and has no record; getCloudConnector would give it up.
TEST_F(ConnectorReport, ChangesNothingOfWhatItTells) {
  fill();
  one.currentSiteTryList.insert(one.currentSiteTryList.begin(), "override.test");
  one.currentConnector = "override.test";
  one.connectorFqdn = "f1";
  one.connectorPort = "1";
  std::string expected = FULL_REPORT;
  for (const auto& [is, becomes] : {std::pair{"Proxy server: n1:8080", "Proxy server: None"},
                                    std::pair{"connector: n1\n", "connector: override.test\n"}}) {
    expected.replace(expected.find(is), std::string(is).size(), becomes);
  }
  EXPECT_EQ(one.locator.dump(), expected);
  EXPECT_EQ(one.locator.dump(), expected);
  EXPECT_THAT(one.currentSiteTryList, ElementsAre("override.test", "n1", "n2"));
  EXPECT_THAT(one.discardedList, ElementsAre("d1"));
  EXPECT_EQ(one.connectorFqdn + ":" + one.connectorPort, "f1:1");
  EXPECT_EQ(lumo::GetSetting(SETTING_CLOUD_CONNECTORS, "none", true), "none");
}

// With no connector in use, getCloudConnector would bring back those that were discarded.
TEST_F(ConnectorReport, BringsBackNoneThatWasDiscarded) {
  knowOne("d1");
  one.discardedList = {"d1"};
  one.locator.dump();
  EXPECT_THAT(one.discardedList, ElementsAre("d1"));
  EXPECT_THAT(one.currentSiteTryList, IsEmpty());
  EXPECT_THAT(loggedWith("SetRefresh"), IsEmpty());
}

TEST_F(ConnectorReport, HasNoLineThatAValueMade) {
  one.cloudUrl = "https://a\n   Proxy server: good:1";
  one.cloudUrls = {"https://b\x1b[2J"};
  one.currentConnector = "c\r";
  const Setting server(lumo::PN::CLOUD_PROXY_SERVER, "proxy\n:1");
  UpdateCloudHttpProxy();
  EXPECT_THAT(one.locator.dump(), testing::HasSubstr(R"(
   Morvane Identity Platform Instances in zone: https://a\n   Proxy server: good:1
   Morvane Identity Platform Instances: https://b\x1b[2J
Proxy to Morvane Identity Platform:
   Proxy server: proxy\n:1
   Proxy authentication method: None
Morvane Connectors:
   Current used connector: c\r
)"));
}

TEST_F(ConnectorReport, ThatCannotBeFinishedIsGivenAsFarAsItCame) {
  fill();
  one.otherSiteTryList = {""};
  const std::string full = FULL_REPORT;
  const std::string heading = "   Morvane Connectors in other site:\n";
  EXPECT_EQ(one.locator.dump(), full.substr(0, full.find(heading) + heading.size()));
  EXPECT_THAT(loggedWith("Fail to dump"),
              ElementsAre("WARN Fail to dump Morvane Connector information: Null host DC FQDN when fetching the "
                          "Morvane Connector object"));
}

TEST_F(ConnectorReport, RecordsTellTheSameWithTheirOwnWordForWhatIsOff) {
  fill();
  const struct {
    const char *fqdn, *port, *http, *https;
  } rows[] = {{"n1", "8080", "80", "8443"},
              {"n2", "8080", "80", "Disabled"},
              {"f1", "Disabled", "80", "8443"},
              {"d1", "8080", "Disabled", "Disabled"},
              {"i1", "Disabled", "Disabled", "Disabled"}};
  for (const auto& row : rows) {
    CloudConnectorInfo info;
    info.state = info.inUse = 9;
    ASSERT_TRUE(one.getConnectorInfo(row.fqdn, info));
    EXPECT_EQ(info.fqdn, row.fqdn);
    EXPECT_EQ(info.port, row.port);
    EXPECT_EQ(info.iwaHttpPort, row.http);
    EXPECT_EQ(info.iwaHttpsPort, row.https);
    EXPECT_EQ(info.state, 0);
    EXPECT_EQ(info.inUse, 0);
  }
  CloudConnectorInfo info;
  ASSERT_TRUE(one.getConnectorInfo("f1", info));
  EXPECT_EQ(info.cloudUrl, POD);
  EXPECT_EQ(info.site, "Hamburg");
  EXPECT_EQ(info.tenantId, "TENANT");
  EXPECT_FALSE(one.getConnectorInfo("nobody", info));
}

TEST_F(ConnectorReport, AConnectorWithHttpsThatSaysNothingOfItHasNoHttpsPort) {
  knowOne("n1", {{LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, ""}});
  CloudConnectorInfo info;
  ASSERT_TRUE(one.getConnectorInfo("n1", info));
  EXPECT_EQ(info.iwaHttpPort, "80");
  EXPECT_EQ(info.iwaHttpsPort, "Disabled");
}

TEST_F(ConnectorReport, ListsAllInTheirOrderForNoFilter) {
  fill();
  EXPECT_THAT(listed(""), ElementsAre("n1 0 1", "n2 0 0", "f1 0 0", "d1 1 0", "u1 0 0", "u2 0 0", "i1 2 0"));
}

TEST_F(ConnectorReport, ListsWhatTheFilterOccursIn) {
  fill();
  one.invalidList = {{"", "i1"}, {"https://pod.invalid.test/", "i1"}};
  const struct {
    const char* filter;
    Texts listed;
  } rows[] = {{"pod.example", {"n1 0 1", "n2 0 0", "f1 0 0", "d1 1 0"}},
              {"other", {"u1 0 0", "u2 0 0"}},
              {"pod.", {"n1 0 1", "n2 0 0", "f1 0 0", "d1 1 0", "i1 2 0"}},
              {"invalid", {"i1 2 0"}},
              {"POD", {}},
              {"https://pod.example.test/x", {}}};
  for (const auto& row : rows) EXPECT_EQ(listed(row.filter), row.listed) << row.filter;
}

TEST_F(ConnectorReport, TheFirstRecordOfTheListsIsTheOneInUse) {
  fill();
  one.currentSiteTryList = {"nobody"};
  one.discardedList = {"nobody", "d1"};
  EXPECT_THAT(listed(POD), ElementsAre("f1 0 1", "d1 1 0"));
}

TEST_F(ConnectorReport, RecordsAreAppended) {
  fill();
  std::vector<CloudConnectorInfo> infos(1);
  infos[0].fqdn = "before";
  one.locator.getConnectors("invalid", infos);
  one.locator.getConnectors(OTHER_POD, infos);
  ASSERT_EQ(infos.size(), 3U);
  EXPECT_EQ(infos[0].fqdn, "before");
  EXPECT_EQ(infos[2].fqdn, "u2");
}

TEST(ReportWithoutAnAgent, IsRefused) {
  CloudConnectorLocatorAccess::resetProcess();
  EXPECT_THROW(dumpCloudConnectors(), lumo::CloudConnectorException);
  CloudConnectorLocatorAccess::resetProcess();
}

TEST(ReportWithoutAnAgent, IsWholeSinceItOnlyReads) {
  CloudConnectorLocatorAccess::resetProcess();
  UpdateCloudHttpProxy();
  CloudConnectorLocatorAccess own;
  EXPECT_EQ(own.locator.dump(), EMPTY_REPORT);
  CloudConnectorLocatorAccess::resetProcess();
}

}  // namespace
