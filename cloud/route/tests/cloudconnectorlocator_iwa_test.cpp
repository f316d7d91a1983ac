#include <chrono>
#include <future>

#include "cloud/route/tests/cloudconnectorlocator_waiting.h"

namespace {

using locatortest::refreshIn;
using locatortest::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

class ConnectorIwa : public locatortest::WaitingLocatorTest {
 protected:
  // A connector in use that came from the directory.
  void useConnector(const std::string& fqdn, const locatortest::Settings& changes = {}) {
    tryInSite({fqdn});
    locatortest::Settings all = {{AD_DN, "CN=proxy,CN=" + fqdn + ",OU=Servers,DC=emea,DC=forest,DC=test"}};
    all.insert(changes.begin(), changes.end());
    know(fqdn, all);
  }
  void addAccount(const std::string& dn, const std::string& dnsName) {
    directory.add(dn, {{AD_OBJECT_CATEGORY, {"computer"}}, {AD_OBJECT_CLASS, {"computer"}}, {AD_DNS_NAME, {dnsName}}});
  }
  Texts filters() {
    Texts texts;
    for (const auto& search : directory.searches()) texts.push_back(search.what.filter);
    return texts;
  }
  // Can another thread have the locator?
  bool isFree() {
    auto other = std::async(std::launch::async, [this] { return locator.locator.cloudUrl(); });
    return other.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  }

  std::string spn = "before";
};

TEST_F(ConnectorIwa, UrlAndServiceNameAreThoseOfTheConnectorInUse) {
  useConnector("n1.forest.test");
  EXPECT_EQ(locator.locator.getIwaUrl(spn), "https://n1.forest.test:8443/");
  EXPECT_EQ(spn, "HTTP/n1.forest.test@EMEA.FOREST.TEST");
  EXPECT_EQ(locator.iwaHostname, "iwa.n1.forest.test");
  EXPECT_EQ(locator.iwaHttpsPort, "8443");
  EXPECT_EQ(locator.connectorFqdn, "n1.forest.test");
  EXPECT_EQ(locator.connectorPort, "") << "that is getCloudConnector's";
  EXPECT_THAT(logged(), ElementsAre("DEBUG getIwaUrl: current cloud connector FQDN=n1.forest.test"));
}

TEST_F(ConnectorIwa, WhereItIsNotRequiredThereIsNoUrl) {
  useConnector("n1.forest.test");
  locator.iwaRequired = false;
  EXPECT_EQ(locator.locator.getIwaUrl(spn), "");
  EXPECT_EQ(spn, "before");
  EXPECT_EQ(locator.iwaHttpsPort, "");
  EXPECT_THAT(logged(), ElementsAre("DEBUG getIwaUrl: IWA is not required"));
}

TEST_F(ConnectorIwa, WhereItIsNotRequiredNobodyWaitsForASearch) {
  locator.iwaRequired = false;
  std::future<std::string> other;
  std::future_status status;
  {
    const LocatorLock searching;
    other = std::async(std::launch::async, [this] { return locator.locator.getIwaUrl(spn); });
    status = other.wait_for(std::chrono::seconds(20));
  }
  EXPECT_EQ(status, std::future_status::ready);
  EXPECT_EQ(other.get(), "");
}

TEST_F(ConnectorIwa, TheNameOfTheConnectorIsPreferredToThatOfItsService) {
  useConnector("n1.forest.test",
               {{LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME, "elsewhere.test"}, {LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT, "9443"}});
  EXPECT_EQ(locator.locator.getIwaUrl(spn), "https://n1.forest.test:9443/");
  EXPECT_EQ(spn, "HTTP/n1.forest.test@EMEA.FOREST.TEST");
  EXPECT_EQ(locator.iwaHostname, "elsewhere.test");
}

TEST_F(ConnectorIwa, TheNameOfTheServiceIsTakenWhereTheRecordHasNoOther) {
  useConnector("n1.forest.test", {{LUMO_CLOUD_PROXY_FQDN, ""}});
  EXPECT_EQ(locator.locator.getIwaUrl(spn), "https://iwa.n1.forest.test:8443/");
  EXPECT_EQ(spn, "HTTP/@EMEA.FOREST.TEST");
  EXPECT_EQ(locator.connectorFqdn, "");
}

TEST_F(ConnectorIwa, AnEarlierConnectorsNameStaysUntilTheNextOneIsHandedOut) {
  useConnector("n1.forest.test");
  locator.connectorFqdn = "earlier.forest.test";
  EXPECT_EQ(locator.locator.getIwaUrl(spn), "https://earlier.forest.test:8443/");
  EXPECT_EQ(spn, "HTTP/earlier.forest.test@EMEA.FOREST.TEST");
  locator.locator.getCloudConnector();
  EXPECT_EQ(locator.locator.getIwaUrl(spn), "https://n1.forest.test:8443/");
}

TEST_F(ConnectorIwa, WithoutAConnectorInUseTheListIsRebuiltAndARefreshComes) {
  know("n1");
  locator.discardedList = {"n1"};
  EXPECT_EQ(locator.locator.getIwaUrl(spn), "");
  EXPECT_EQ(spn, "before");
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("n1"));
  EXPECT_THAT(logged(), ElementsAre("DEBUG rebuildTryList: insert n1 into site try list", refreshIn(60),
                                    "DEBUG getIwaUrl: no valid connectors in try list"));
  EXPECT_TRUE(refreshWaits(60));
}

TEST_F(ConnectorIwa, AConnectorThatCannotServeIsDiscarded) {
  useConnector("n1", locatortest::NO_IWA);
  EXPECT_EQ(locator.locator.getIwaUrl(spn), "");
  EXPECT_EQ(spn, "before");
  EXPECT_THAT(locator.currentSiteTryList, IsEmpty());
  EXPECT_THAT(locator.discardedList, ElementsAre("n1"));
  const Texts said = logged();
  EXPECT_EQ(said.front(), "DEBUG getIwaUrl: current cloud connector FQDN=n1");
  EXPECT_EQ(said.back(), "DEBUG getIwaUrl: Can't get a valid cloud connector for this time");
}

TEST_F(ConnectorIwa, OneRememberedFromTheLastProcessGetsItsServiceNameFromTheDirectory) {
  tryInSite({"n1.forest.test"});  // its record has no name in the directory
  addAccount("CN=N1,OU=Servers,DC=apac,DC=forest,DC=test", "n1.forest.test");
  EXPECT_EQ(locator.locator.getIwaUrl(spn), "https://n1.forest.test:8443/");
  EXPECT_EQ(spn, "HTTP/n1.forest.test@APAC.FOREST.TEST");
  EXPECT_THAT(logged(),
              ElementsAre("DEBUG getIwaUrl: current cloud connector FQDN=n1.forest.test",
                          "DEBUG getIwaUrl: fail to get SPN due to exception; err_msg ''' belongs to no domain'. Try "
                          "to get SPN from IWA URL.",
                          "DEBUG GetSPNFromIwaURL searches with filter "
                          "'(objectCategory=computer)(dNSHostName=n1.forest.test)'"));
}

TEST_F(ConnectorIwa, AnUnknownServiceNameComesEmptyWithTheUrl) {
  tryInSite({"n1.forest.test"});
  EXPECT_EQ(locator.locator.getIwaUrl(spn), "https://n1.forest.test:8443/");
  EXPECT_EQ(spn, "");
}

TEST_F(ConnectorIwa, ADirectoryThatFailsIsTheCallersToKnowAndTheLocatorIsFree) {
  tryInSite({"n1.forest.test"});
  directory.failSearch({testsupport::MemoryDirectory::Failure::Kind::Server, 50, "Insufficient access"});
  EXPECT_THROW(locator.locator.getIwaUrl(spn), LDAPException);
  EXPECT_EQ(spn, "before");
  EXPECT_TRUE(isFree());
}

TEST_F(ConnectorIwa, ServiceNameOfAUrlHasTheUrlsHostAndTheAccountsDomain) {
  addAccount("CN=N1,OU=Servers,DC=apac,DC=forest,DC=test", "N1.Forest.Test");
  EXPECT_EQ(GetSPNFromIwaURL("https://n1.forest.test:8443/iwa/"), "HTTP/n1.forest.test@APAC.FOREST.TEST");
  EXPECT_THAT(logged(), ElementsAre("DEBUG GetSPNFromIwaURL searches with filter "
                                    "'(objectCategory=computer)(dNSHostName=n1.forest.test)'"));
}

TEST_F(ConnectorIwa, AUrlWithoutAPortHasNoServiceName) {
  for (const char* url : {"https://n1.forest.test/", "n1.forest.test:8443", "https://:8443/", ""}) {
    EXPECT_EQ(GetSPNFromIwaURL(url), "");
    EXPECT_THAT(logged(),
                ElementsAre(std::string("DEBUG GetSPNFromIwaURL failed: retrieve empty FQDN from url = ") + url));
  }
}

TEST_F(ConnectorIwa, AHostThatNoComputerHasGetsNoServiceName) {
  addAccount("CN=N1,OU=Servers,DC=apac,DC=forest,DC=test", "n1.forest.test");
  directory.add("CN=S1,DC=forest,DC=test", {{AD_OBJECT_CLASS, {"contact"}}, {AD_DNS_NAME, {"s1.forest.test"}}});
  EXPECT_EQ(GetSPNFromIwaURL("https://s1.forest.test:443/"), "");
  EXPECT_EQ(logged().back(), "DEBUG GetSPNFromIwaURL failed: can't find any computer objects");
}

TEST_F(ConnectorIwa, OfSeveralComputersOfOneNameTheFirstDecides) {
  addAccount("CN=A,DC=apac,DC=forest,DC=test", "n1.forest.test");
  addAccount("CN=B,DC=emea,DC=forest,DC=test", "n1.forest.test");
  EXPECT_EQ(GetSPNFromIwaURL("https://n1.forest.test:8443/"), "HTTP/n1.forest.test@APAC.FOREST.TEST");
  EXPECT_EQ(logged().back(),
            "DEBUG GetSPNFromIwaURL: more than 1 computer objects(2) are found. Will use the first one");
}

TEST_F(ConnectorIwa, WhatMeansSomethingInAFilterIsEscaped) {
  addAccount("CN=N1,OU=Servers,DC=apac,DC=forest,DC=test", "n1.forest.test");
  EXPECT_EQ(GetSPNFromIwaURL("https://*:8443/"), "");
  EXPECT_EQ(GetSPNFromIwaURL("https://x)(objectClass=*:8443/"), "");
  EXPECT_THAT(loggedWith("filter"),
              ElementsAre("DEBUG GetSPNFromIwaURL searches with filter '(objectCategory=computer)(dNSHostName=\\2a)'",
                          "DEBUG GetSPNFromIwaURL searches with filter "
                          "'(objectCategory=computer)(dNSHostName=x\\29\\28objectClass=\\2a)'"));
  EXPECT_THAT(filters(), testing::Contains("(&(objectCategory=computer)(dNSHostName=\\2a))"));
}

TEST_F(ConnectorIwa, TheAgentIsAskedForWhereNobodyDidBefore) {
  addAccount("CN=N1,OU=Servers,DC=apac,DC=forest,DC=test", "n1.forest.test");
  g_adAgent = nullptr;
  EXPECT_EQ(GetSPNFromIwaURL("https://n1.forest.test:8443/"), "HTTP/n1.forest.test@APAC.FOREST.TEST");
  EXPECT_EQ(g_adAgent.load(), ADAgent::GetADAgent(false, true));
}

TEST(ServiceNameWithoutAnAgent, IsEmpty) {
  const testsupport::LogCapture log;
  g_adAgent = nullptr;
  EXPECT_EQ(GetSPNFromIwaURL("https://n1.forest.test:8443/"), "");
  EXPECT_THAT(log.texts(), ElementsAre("DEBUG base.cloudconnector.locator: GetSPNFromIwaURL failed: can't retrieve "
                                       "adagent"));
}

TEST_F(ConnectorIwa, ARecordIsSharedNotCopied) {
  know("n1");
  EXPECT_EQ(locator.fetchCloudConnectorObject("n1"), locator.connectors["n1"]);
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ConnectorIwa, AnUnknownNameLeavesAnEmptyRecordAndARefreshComesEachTime) {
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(locator.fetchCloudConnectorObject("nobody"), nullptr);
    EXPECT_THAT(logged(), ElementsAre(refreshIn(900),
                                      "DEBUG fetchCloudConnectorObject: Can't fetch cloud connector object in AD"));
    EXPECT_EQ(locator.connectors.count("nobody"), 1U);
  }
  EXPECT_TRUE(refreshWaits(900));
}

TEST_F(ConnectorIwa, ARecordWithoutAttributesIsNone) {
  locator.connectors["n1"] = boost::make_shared<lumo::ADObject>();
  EXPECT_EQ(locator.fetchCloudConnectorObject("n1"), nullptr);
  EXPECT_TRUE(refreshWaits(900));
}

TEST_F(ConnectorIwa, AnEmptyNameIsAFault) {
  try {
    locator.fetchCloudConnectorObject("");
    FAIL();
  } catch (const lumo::CloudConnectorException& failure) {
    EXPECT_STREQ(failure.what(), "Null host DC FQDN when fetching the Morvane Connector object");
    EXPECT_STREQ(failure.className(), "CloudConnectorException");
    EXPECT_EQ(failure.rc(), -1);
  }
}

}  // namespace
