// The connectors of a real forest: each is found, judged and stands where it belongs.
#include "cloud/rest/tests/cloudconnectorlocator_lab.h"

#include <gmock/gmock.h>

#include <chrono>
#include <map>
#include <set>

#include "basalt/process/clock.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;
using namespace labtest;

namespace {

// The real clock, eleven minutes on.
class LaterClock : public lumo::Clock {
 public:
  LaterClock() : m_real(getInstance()) { setInstance(this); }
  ~LaterClock() override { setInstance(nullptr); }
  LaterClock(const LaterClock&) = delete;
  LaterClock& operator=(const LaterClock&) = delete;

  std::chrono::system_clock::time_point now() override { return m_real.now(); }
  std::chrono::steady_clock::time_point steadyNow() override {
    return m_real.steadyNow() + ADAgent::SITE_LIFE + std::chrono::minutes(1);
  }
  void sleepFor(std::chrono::milliseconds duration) override { m_real.sleepFor(duration); }
  void waitUntil(std::condition_variable& woken, std::unique_lock<std::mutex>& lock, std::time_t due) override {
    m_real.waitUntil(woken, lock, due);
  }

 private:
  lumo::Clock& m_real;
};

// What is reported of a connector; the ports as the report shows them.
struct Row {
  std::string url, site, tenant, port, iwaHttp, iwaHttps;
};

std::map<std::string, Row> labConnectors() {
  const std::string platform = lab("PLATFORM_URL");
  const std::string odd = lab("ODD_URL");
  const std::string site = lab("SITE");
  const std::string tenant = lab("TENANT");
  return {
      {"connector1", {platform, site, tenant, "8080", "80", "443"}},
      {"connector2", {platform, site, tenant, "8080", "80", "443"}},
      {"branch1", {platform, lab("SITE_BRANCH"), tenant, "8080", "80", "443"}},
      {"other", {lab("OTHER_URL"), site, tenant, "8080", "80", "443"}},
      {"near", {platform.substr(0, platform.size() - 1), site, tenant, "8080", "80", "443"}},
      {"nourl", {"", site, tenant, "8080", "80", "443"}},
      {"notenant", {platform, site, "", "8080", "80", "443"}},
      {"noproxy", {platform, site, tenant, "", "80", "443"}},
      {"noscp", {platform, site, tenant, "8080", "80", "443"}},
      {"falsescp", {platform, site, tenant, "8080", "80", "443"}},
      {"nothingon", {platform, site, tenant, "-", "-", "-"}},
      {"iwaonly", {odd, site, tenant, "-", "80", "443"}},
      {"proxyoff", {odd, site, tenant, "-", "80", "443"}},
      {"webonly", {odd, site, tenant, "8080", "-", "-"}},
      {"noiwa", {odd, site, tenant, "8080", "-", "-"}},
      {"iwaoff", {odd, site, tenant, "8080", "-", "-"}},
      {"noiwahost", {odd, site, tenant, "8080", "80", "443"}},
      {"noiwatls", {odd, site, tenant, "8080", "80", "-"}},
      {"iwatlsoff", {odd, site, tenant, "8080", "80", "-"}},
      {"noiwaport", {odd, site, tenant, "8080", "80", ""}},
      {"upperscp", {odd, site, tenant, "8080", "80", "443"}},
      {"unknown", {odd, site, tenant, "8080", "80", "443"}},
      {"sitecase", {odd, upper(site), tenant, "8080", "80", "443"}},
      {"composed", {odd, site, tenant, "8080", "80", "443"}},
      {"nodnsname", {odd, site, tenant, "8080", "80", "443"}},
  };
}

const Row& rowOf(const std::string& host) {
  static const auto rows = labConnectors();
  return rows.at(host.substr(0, host.find('.')));
}

std::string blockOf(const std::string& host) {
  const Row& row = rowOf(host);
  return "      Morvane Connector: " + host + "\n        Morvane Identity Platform URL: " + row.url +
         "\n        Connector Site: " + row.site + "\n        Connector FQDN: " + host +
         "\n        Tenant ID: " + row.tenant + "\n        Connector port: " + row.port +
         "\n        Connector IWA HTTP port: " + row.iwaHttp + "\n        Connector IWA HTTPS port: " + row.iwaHttps +
         "\n";
}

// A record as one text.
std::string textOf(const CloudConnectorInfo& info) {
  return info.cloudUrl + "|" + info.site + "|" + info.fqdn + "|" + info.tenantId + "|" + info.port + "|" +
         info.iwaHttpPort + "|" + info.iwaHttpsPort + "|" + std::to_string(info.state) + "|" +
         std::to_string(info.inUse);
}

std::string recordOf(const std::string& host, int state, int inUse) {
  const Row& row = rowOf(host);
  const auto shown = [](const std::string& port) { return port == "-" ? std::string("Disabled") : port; };
  return textOf(
      {row.url, row.site, host, row.tenant, shown(row.port), shown(row.iwaHttp), shown(row.iwaHttps), state, inUse});
}

Texts recordsOf(CloudConnectorLocator& locator, const std::string& filter) {
  std::vector<CloudConnectorInfo> found;
  locator.getConnectors(filter, found);
  Texts texts;
  for (const auto& info : found) texts.push_back(textOf(info));
  return texts;
}

Texts hostsOf(const std::vector<std::pair<std::string, std::string>>& entries) {
  Texts hosts;
  for (const auto& entry : entries) hosts.push_back(entry.second);
  return hosts;
}

std::string warned(const std::string& name, const std::string& url, const std::string& reason) {
  return "WARN Morvane Agent will not use Morvane Connector '" + hostOf(name) +
         "' to provide connectivity to Morvane Identity Platform URL '" + url + "' because " + reason + ".";
}

Texts hosts(const Texts& names) {
  Texts found;
  for (const auto& name : names) found.push_back(hostOf(name));
  return found;
}

const Texts BAD = {"nourl", "notenant", "noproxy", "noscp", "falsescp", "nothingon"};
const Texts ODD_WITH_IWA = {"iwaonly", "proxyoff", "upperscp", "unknown", "sitecase", "composed", "nodnsname"};
const Texts ODD_WITHOUT_IWA = {"webonly", "noiwa", "iwaoff", "noiwahost", "noiwatls", "iwatlsoff", "noiwaport"};

}  // namespace

TEST_F(ConnectorLab, EachConnectorStandsOnItsListAndBadOnesAreTold) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const CloudConnectorLocatorAccess state(locator());
  EXPECT_EQ(state.cloudUrl, lab("PLATFORM_URL"));
  const std::string near = lab("PLATFORM_URL").substr(0, lab("PLATFORM_URL").size() - 1);
  EXPECT_THAT(state.cloudUrls, UnorderedElementsAre(lab("PLATFORM_URL"), near, lab("OTHER_URL"), lab("ODD_URL")));
  EXPECT_THAT(state.currentSiteTryList, UnorderedElementsAre(connector1, connector2));
  EXPECT_EQ(state.currentConnector, state.currentSiteTryList.at(0));
  EXPECT_THAT(state.otherSiteTryList, ElementsAre(branch1));
  EXPECT_THAT(state.discardedList, IsEmpty());
  Texts unused = hosts({"other", "near"});
  for (const auto& host : hosts(ODD_WITH_IWA)) unused.push_back(host);
  for (const auto& host : hosts(ODD_WITHOUT_IWA)) unused.push_back(host);
  EXPECT_THAT(hostsOf(state.currentSiteUnusedList), UnorderedElementsAreArray(unused));
  EXPECT_THAT(state.otherSiteUnusedList, IsEmpty());
  EXPECT_THAT(hostsOf(state.invalidList), UnorderedElementsAreArray(hosts(BAD)));
  // All but the two that nothing gives a name.
  EXPECT_EQ(std::to_string(state.connectors.size() + 2), lab("CONNECTOR_COUNT"));

  const Texts records = logged();
  EXPECT_THAT(
      textsWith(records, {"DEBUG "}, false),
      UnorderedElementsAre(
          warned("nourl", "", "keywords 'morvane.core.cloudurl' are missing"),
          warned("notenant", lab("PLATFORM_URL"), "keywords 'morvane.mobile.proxySysId' are missing"),
          warned("noproxy", lab("PLATFORM_URL"), "keywords 'morvane.core.webproxy' are missing"),
          warned("noscp", lab("PLATFORM_URL"), "keywords 'morvane.mobile.proxyScp' are missing"),
          warned("falsescp", lab("PLATFORM_URL"), "the value of keywords 'morvane.mobile.proxyScp' are incorrect"),
          warned("nothingon", lab("PLATFORM_URL"),
                 "keywords 'morvane.core.webproxyenabled, morvane.core.iwa.hostname' are missing and the value of "
                 "keywords 'morvane.core.iwa.enabled' are incorrect"),
          "WARN Morvane Connector '" + hostOf("near") +
              "' is associated with Morvane Identity Platform specified by URL '" + near +
              "', which is different from the URL '" + lab("PLATFORM_URL") +
              "' configured in the zone property page in Zone Console. Please verify the settings of the Morvane "
              "Connector."));
  const Texts nameless(2, "DEBUG Invalid cloud connector SCP for cloudUrl: fqdn is empty");
  EXPECT_EQ(textsWith(records, {"fqdn is empty"}), nameless);
  EXPECT_THAT(textsWith(records, {"unexpected keyword"}),
              ElementsAre("DEBUG loadAttributes: unexpected keyword 'morvane.core.shoesize'"));
  EXPECT_THAT(textsWith(records, {"loadAttributes: compose"}),
              ElementsAre("DEBUG loadAttributes: compose mvdName = 'lumo_cloud_web_proxy', mvdValue = '" +
                          hostOf("composed") + ":8080'"));
  EXPECT_THAT(textsWith(records, {"Refresh cloud", "Using cloud", "kset", "SetRefresh"}),
              ElementsAre("DEBUG Refresh cloud connector information for cloudurl '" + lab("PLATFORM_URL") +
                              "' with IWA enabled",
                          "DEBUG Using cloud URL: " + lab("PLATFORM_URL"), "DEBUG Update cloud connectors kset file.",
                          "DEBUG Refresh cloud connectors info done"));
}

TEST_F(ConnectorLab, WhatThisHostNeedsDecidesWhichConnectorsAreTried) {
  zone.set(lab("ODD_URL"));
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const CloudConnectorLocatorAccess state(locator());
  EXPECT_THAT(state.currentSiteTryList, UnorderedElementsAreArray(hosts(ODD_WITH_IWA)));
  EXPECT_THAT(state.discardedList, UnorderedElementsAreArray(hosts(ODD_WITHOUT_IWA)));
  EXPECT_THAT(hostsOf(state.currentSiteUnusedList),
              UnorderedElementsAreArray(hosts({"connector1", "connector2", "other", "near"})));
  EXPECT_THAT(hostsOf(state.otherSiteUnusedList), ElementsAre(branch1));

  const testsupport::Setting version(lumo::PN::CLOUD_REST_VERSION, "1.0");
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_THAT(state.discardedList, UnorderedElementsAreArray(hosts({"iwaonly", "proxyoff"})));
  EXPECT_EQ(state.currentSiteTryList.size(), ODD_WITH_IWA.size() + ODD_WITHOUT_IWA.size() - 2);
}

TEST_F(ConnectorLab, WithoutAnUrlTheFourPlatformsLeaveNothingToTry) {
  zone.set("");
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const CloudConnectorLocatorAccess state(locator());
  EXPECT_EQ(state.cloudUrl, "");
  EXPECT_EQ(state.currentConnector, "");
  EXPECT_EQ(state.currentSiteUnusedList.size() + state.otherSiteUnusedList.size() + state.invalidList.size(),
            state.connectors.size());
  EXPECT_THAT(
      textsWith(logged(), {"FATAL "}),
      ElementsAre("FATAL Failed to choose a Morvane Connector for Morvane Identity Platform connectivity. Morvane "
                  "agent found (4) connectors serving different platform instances in the forest. Please specify "
                  "the platform URL in ferrod.legacyzone.mfa.cloudurl property."));
}

TEST_F(ConnectorLab, HostThatMovedHasOtherConnectorsNear) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const CloudConnectorLocatorAccess state(locator());
  change({"move-host", lab("SITE_BRANCH")}, {"move-host", lab("SITE")});
  const LaterClock whenTheSiteIsAskedAnew;
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_THAT(state.currentSiteTryList, ElementsAre(branch1));
  EXPECT_THAT(state.otherSiteTryList, UnorderedElementsAre(connector1, connector2));
  EXPECT_EQ(state.currentConnector, branch1);
  EXPECT_THAT(textsWith(logged(), {branch1 + " of cloud connector"}),
              ElementsAre("DEBUG insertIntoTryList: push in FQDN " + branch1 + " of cloud connector in other sites",
                          "DEBUG insertIntoTryList: push in FQDN " + branch1 + " of cloud connector in current site"));
}

TEST_F(ConnectorLab, SiteInAnotherCaseIsTheSameSite) {
  endProcess();
  change({"rename-site", lab("SITE"), "LABsite"}, {"rename-site", "LABsite", lab("SITE")});
  startProcess();
  ASSERT_EQ(ADAgent::GetADAgent(false, true)->siteName(), "LABsite");
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const CloudConnectorLocatorAccess state(locator());
  EXPECT_THAT(state.currentSiteTryList, UnorderedElementsAre(connector1, connector2));
  EXPECT_THAT(state.otherSiteTryList, ElementsAre(branch1));
}

TEST_F(ConnectorLab, RenamedComputerGivesTheConnectorItsNewName) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const CloudConnectorLocatorAccess state(locator());
  change({"rename-parent", "connector2", "renamed"}, {"rename-parent", "renamed", "connector2"});
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_THAT(state.currentSiteTryList, UnorderedElementsAre(connector1, hostOf("renamed")));
  EXPECT_EQ(state.connectors.count(connector2), 0U);
  EXPECT_THAT(textsWith(logged(), {"got FQDN from parent object: " + hostOf("renamed")}),
              ElementsAre("DEBUG got FQDN from parent object: " + hostOf("renamed")));
  mend();
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_THAT(state.currentSiteTryList, UnorderedElementsAre(connector1, connector2));
}

TEST_F(ConnectorLab, ConnectorThatStopsServingLeavesTheLists) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const CloudConnectorLocatorAccess state(locator());
  change({"set-keywords", "connector1", "morvane.core.iwa.enabled=False"},
         {"set-keywords", "connector1", "morvane.core.iwa.enabled=True"});
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_THAT(state.currentSiteTryList, ElementsAre(connector2));
  EXPECT_THAT(state.discardedList, ElementsAre(connector1));
  EXPECT_THAT(textsWith(logged(), {"Cloud connector '"}),
              ElementsAre("DEBUG Cloud connector '" + connector1 +
                          "' is unavailable: IWA is required, but IWA is not configured correctly. sevices = 1"));
}

TEST_F(ConnectorLab, ReportTellsTheWholeForest) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const CloudConnectorLocatorAccess state(locator());
  std::string expected =
      "==============Morvane Identity Platform Instances/Morvane Connectors info============\n"
      "Morvane Identity Platform Instances:\n"
      "   Morvane Identity Platform Instances in zone: " +
      lab("PLATFORM_URL") + "\n";
  for (const auto& url : state.cloudUrls) expected += "   Morvane Identity Platform Instances: " + url + "\n";
  expected += "Proxy to Morvane Identity Platform:\n   Proxy server: " + state.currentConnector +
              ":8080\n   Proxy authentication method: None\nMorvane Connectors:\n   Current used connector: " +
              state.currentConnector + "\n";
  const auto list = [&](const char* heading, const Texts& names) {
    expected += heading;
    for (const auto& name : names) expected += blockOf(name);
  };
  list("   Morvane Connectors in current site:\n", state.currentSiteTryList);
  list("   Morvane Connectors in other site:\n", {branch1});
  list("   Morvane Connectors discarded:\n", {});
  list("   Morvane Connectors in current site and unused:\n", hostsOf(state.currentSiteUnusedList));
  list("   Morvane Connectors in other site and unused:\n", {});
  list("   Morvane Connectors invalid:\n", hostsOf(state.invalidList));
  EXPECT_EQ(dumpCloudConnectors(), expected);
}

TEST_F(ConnectorLab, RecordsTellTheWholeForest) {
  zone.set(lab("ODD_URL"));
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const CloudConnectorLocatorAccess state(locator());
  Texts ofOdd;
  for (const auto& host : state.currentSiteTryList) ofOdd.push_back(recordOf(host, 0, ofOdd.empty() ? 1 : 0));
  for (const auto& host : state.discardedList) ofOdd.push_back(recordOf(host, 1, 0));
  EXPECT_EQ(recordsOf(locator(), lab("ODD_URL")), ofOdd);
  Texts all = ofOdd;
  for (const auto& host : hostsOf(state.currentSiteUnusedList)) all.push_back(recordOf(host, 0, 0));
  all.push_back(recordOf(branch1, 0, 0));
  for (const auto& host : hostsOf(state.invalidList)) all.push_back(recordOf(host, 2, 0));
  EXPECT_EQ(recordsOf(locator(), ""), all);
  EXPECT_THAT(recordsOf(locator(), lab("OTHER_URL")), ElementsAre(recordOf(hostOf("other"), 0, 0)));
}
