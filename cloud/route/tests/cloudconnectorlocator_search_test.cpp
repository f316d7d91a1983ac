// What is made of the objects that a search found.
#include "cloud/route/tests/cloudconnectorlocator_forest.h"

namespace {

using locatortest::bothServices;
using locatortest::connectorObject;
using locatortest::Keywords;
using locatortest::Setting;
using locatortest::Texts;
using locatortest::with;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr char POD1[] = "https://pod1.example.test/";
constexpr char POD2[] = "https://pod2.example.test/";

Keywords useless(const char* url = POD1) {
  return with(with(bothServices(url), "morvane.core.webproxyenabled", "False"), "morvane.core.iwa.enabled", "False");
}

class FoundConnectors : public locatortest::LocatorTest {
 protected:
  // Objects whose computers bear their names.
  void process(const std::vector<std::pair<const char*, Keywords>>& connectors) {
    const auto found = boost::make_shared<ADObjectList>();
    for (const auto& [name, keywords] : connectors) {
      addComputer(name, std::string(name) + ".forest.test");
      found->push_back(connectorObject(name, keywords));
    }
    locator.processList(found);
  }
  Texts known() const {
    Texts names;
    for (const auto& [name, record] : locator.connectors) names.push_back(name);
    return names;
  }
};

TEST_F(FoundConnectors, AreSortedBySiteAndUrl) {
  locator.zoneCloudUrl = POD1;
  process({{"near1", bothServices(POD1)},
           {"far1", bothServices(POD1, "Hamburg")},
           {"near2", bothServices(POD2)},
           {"far2", bothServices(POD2, "Hamburg")},
           {"bad", useless()}});
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("near1.forest.test"));
  EXPECT_THAT(locator.otherSiteTryList, ElementsAre("far1.forest.test"));
  EXPECT_THAT(locator.currentSiteUnusedList, ElementsAre(Pair(POD2, "near2.forest.test")));
  EXPECT_THAT(locator.otherSiteUnusedList, ElementsAre(Pair(POD2, "far2.forest.test")));
  EXPECT_THAT(locator.invalidList, ElementsAre(Pair(POD1, "bad.forest.test")));
  EXPECT_THAT(locator.discardedList, IsEmpty());
  EXPECT_THAT(locator.cloudUrls, ElementsAre(POD1, POD2));
  EXPECT_EQ(known().size(), 5u);
  EXPECT_EQ(locator.cloudUrl, POD1);
  EXPECT_EQ(locator.currentConnector, "near1.forest.test");
}

TEST_F(FoundConnectors, ThatDoNotServeThisHostAreDiscarded) {
  locator.iwaRequired = true;
  process({{"web", with(bothServices(POD1), "morvane.core.iwa.enabled", "False")}});
  EXPECT_THAT(locator.discardedList, ElementsAre("web.forest.test"));
  EXPECT_THAT(locator.currentSiteTryList, IsEmpty());
  EXPECT_EQ(locator.currentConnector, "");
}

TEST_F(FoundConnectors, AreToldInTheLog) {
  locator.zoneCloudUrl = POD1;
  process({{"good",
            {"morvane.core.cloudurl:https://pod1.example.test/", "morvane.mobile.proxyScp:true",
             "morvane.mobile.proxySite:Berlin", "morvane.mobile.proxySysId:T", "morvane.core.webproxyenabled:1",
             "morvane.core.webproxy:good.forest.test:8080"}},
           {"bad", {"morvane.core.cloudurl:https://pod2.example.test/"}}});
  const auto kept = [](const char* keyword, const char* setting, const char* value) {
    return VS("DEBUG loadAttributes: keyname = '%s', mvdName = '%s', mvdValue = '%s'", keyword, setting, value);
  };
  EXPECT_EQ(
      logged(),
      (Texts{
          kept("morvane.core.cloudurl", LUMO_CLOUD_URL, POD1),
          kept("morvane.mobile.proxyScp", LUMO_CLOUD_PROXY_SCP, "true"),
          kept("morvane.mobile.proxySite", LUMO_CLOUD_CONNECTOR_SITE, "Berlin"),
          kept("morvane.mobile.proxySysId", LUMO_CLOUD_TENANT_ID, "T"),
          kept("morvane.core.webproxyenabled", LUMO_CLOUD_WEB_PROXYENABLED, "1"),
          kept("morvane.core.webproxy", LUMO_CLOUD_WEB_PROXY, "good.forest.test:8080"),
          "DEBUG got FQDN from parent object: good.forest.test", kept("morvane.core.cloudurl", LUMO_CLOUD_URL, POD2),
          "DEBUG got FQDN from parent object: bad.forest.test",
          "DEBUG Invalid cloud connector SCP for cloudUrl: https://pod2.example.test/",
          "WARN Morvane Agent will not use Morvane Connector 'bad.forest.test' to provide connectivity to Morvane "
          "Identity Platform URL 'https://pod2.example.test/' because keywords 'morvane.mobile.proxySysId, "
          "morvane.core.webproxy, morvane.core.webproxyenabled, morvane.mobile.proxyScp, morvane.core.iwa.enabled, "
          "morvane.core.iwa.useHttps, morvane.core.iwa.hostname, morvane.core.iwa.httpsPort' are missing.",
          "DEBUG Using cloud URL: https://pod1.example.test/",
          "DEBUG Inserting cloud connectors for cloudurl: https://pod1.example.test/",
          "DEBUG Cloud connector 'good.forest.test' is unavailable: IWA is required, but IWA is not configured "
          "correctly. sevices = 1",
          "DEBUG insertIntoTryList: push in FQDN good.forest.test of cloud connector in temporarily unavailable list",
          "DEBUG insertIntoTryList: no cloud connectors in current site or in other sites."}));
}

TEST_F(FoundConnectors, WithoutAServiceAreAllInvalid) {
  locator.cloudUrls = {POD1};
  process({{"bad1", useless()}, {"bad2", useless(POD2)}});
  EXPECT_THAT(locator.invalidList, ElementsAre(Pair(POD1, "bad1.forest.test"), Pair(POD2, "bad2.forest.test")));
  EXPECT_THAT(locator.cloudUrls, ElementsAre(POD1));
  EXPECT_THAT(locator.currentSiteTryList, IsEmpty());
  EXPECT_THAT(locator.otherSiteTryList, IsEmpty());
  EXPECT_THAT(known(), ElementsAre("bad1.forest.test", "bad2.forest.test"));
  const Texts warnings = loggedWith("WARN ");
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_EQ(warnings[1],
            "WARN Morvane Agent will not use Morvane Connector 'bad2.forest.test' to provide connectivity to Morvane "
            "Identity Platform URL 'https://pod2.example.test/' because the value of keywords "
            "'morvane.core.webproxyenabled, morvane.core.iwa.enabled' are incorrect.");
}

TEST_F(FoundConnectors, OfOneUrlCountOnceWhateverTheirSites) {
  process({{"near", bothServices(POD1)}, {"far", bothServices(POD1, "Hamburg")}});
  EXPECT_THAT(locator.cloudUrls, ElementsAre(POD1));
  EXPECT_EQ(locator.cloudUrl, POD1);
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("near.forest.test"));
  EXPECT_THAT(locator.otherSiteTryList, ElementsAre("far.forest.test"));
  EXPECT_EQ(loggedWith("Inserting cloud connectors"),
            Texts{"DEBUG Inserting cloud connectors for cloudurl: https://pod1.example.test/"});
}

TEST_F(FoundConnectors, OfSeveralUrlsAreUnusedWhereNoneIsConfigured) {
  process({{"one", bothServices(POD1)}, {"two", bothServices(POD2)}});
  EXPECT_EQ(locator.cloudUrl, "");
  EXPECT_THAT(locator.currentSiteTryList, IsEmpty());
  EXPECT_THAT(locator.currentSiteUnusedList, ElementsAre(Pair(POD1, "one.forest.test"), Pair(POD2, "two.forest.test")));
  EXPECT_EQ(loggedWith("Morvane agent found (2) connectors").size(), 1u);
}

TEST_F(FoundConnectors, UrlsOnceSeenAreCountedForEver) {
  process({{"one", bothServices(POD1)}});
  EXPECT_EQ(locator.cloudUrl, POD1);
  process({{"one", bothServices(POD2)}});
  EXPECT_THAT(locator.cloudUrls, ElementsAre(POD1, POD2));
  EXPECT_EQ(locator.cloudUrl, "");
  EXPECT_THAT(loggedWith("Inserting"),
              ElementsAre("DEBUG Inserting cloud connectors for cloudurl: " + std::string(POD1),
                          "DEBUG Inserting cloud connectors for cloudurl: " + std::string(POD1),
                          "DEBUG Inserting cloud connectors for cloudurl: " + std::string(POD2)));
}

TEST_F(FoundConnectors, ReplaceThoseOfTheLastSearch) {
  locator.zoneCloudUrl = POD1;
  locator.currentSiteTryList = {"former"};
  locator.otherSiteTryList = {"former"};
  locator.discardedList = {"former"};
  locator.currentSiteUnusedList = {{POD2, "former"}};
  locator.otherSiteUnusedList = {{POD2, "former"}};
  locator.invalidList = {{POD2, "former"}};
  locator.connectors["former"] = connectorObject("former", {});
  locator.currentConnector = "former";
  locator.cloudUrl = POD2;
  process({{"bad", useless()}});
  EXPECT_THAT(locator.currentSiteTryList, IsEmpty());
  EXPECT_THAT(locator.otherSiteTryList, IsEmpty());
  EXPECT_THAT(locator.discardedList, IsEmpty());
  EXPECT_THAT(locator.currentSiteUnusedList, IsEmpty());
  EXPECT_THAT(locator.otherSiteUnusedList, IsEmpty());
  EXPECT_THAT(locator.invalidList, ElementsAre(Pair(POD1, "bad.forest.test")));
  EXPECT_THAT(known(), ElementsAre("bad.forest.test"));
  EXPECT_EQ(locator.currentConnector, "");
  EXPECT_EQ(locator.cloudUrl, POD1);
}

TEST_F(FoundConnectors, SitesAreComparedWithoutCase) {
  process({{"near", bothServices(POD1, "BERLIN")}});
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("near.forest.test"));
}

TEST_F(FoundConnectors, WithoutANameAreNowhere) {
  const Keywords nameless = with(with(bothServices(POD1), "morvane.mobile.proxyUri", "https://no.port.test/"),
                                 "morvane.core.webproxy.port", nullptr);
  const auto found = boost::make_shared<ADObjectList>();
  found->push_back(connectorObject("nameless", nameless));
  found->push_back(connectorObject("nameless", {}));
  found->push_back(boost::make_shared<lumo::ADObject>());
  found->push_back(nullptr);
  locator.processList(found);
  EXPECT_THAT(locator.cloudUrls, IsEmpty());
  EXPECT_THAT(locator.invalidList, IsEmpty());
  EXPECT_THAT(known(), IsEmpty());
  EXPECT_EQ(loggedWith("Invalid cloud connector"),
            Texts(4, "DEBUG Invalid cloud connector SCP for cloudUrl: fqdn is empty"));
}

TEST_F(FoundConnectors, TheLaterOneOfTheSameNameStands) {
  const auto found = boost::make_shared<ADObjectList>();
  found->push_back(connectorObject("one", with(bothServices(POD1), "morvane.mobile.proxySysId", "FIRST")));
  found->push_back(connectorObject("two", with(bothServices(POD1), "morvane.mobile.proxySysId", "SECOND")));
  locator.processList(found);  // both are named by their URI
  ASSERT_THAT(known(), ElementsAre("uri.example.test"));
  EXPECT_EQ(locator.connectors.begin()->second->getString(LUMO_CLOUD_TENANT_ID, ""), "SECOND");
}

TEST_F(FoundConnectors, AreKeptAsCopies) {
  const auto found = boost::make_shared<ADObjectList>();
  found->push_back(connectorObject("one", bothServices(POD1)));
  locator.processList(found);
  const ADObjectPtr kept = locator.connectors.at("uri.example.test");
  (*found->front())[LUMO_CLOUD_URL] = "changed";
  EXPECT_EQ(kept->getString(LUMO_CLOUD_URL, ""), POD1);
  EXPECT_EQ(kept->getString(AD_DN, ""), locatortest::connectorDn("one"));
}

TEST_F(FoundConnectors, ComputersAreReadAheadTogether) {
  std::size_t oneByOne = 0;
  std::size_t together = 0;
  watched.onSearch = [&](const DirectoryConnector::Target&, const DirectorySearch& what) {
    ++(what.scope == SearchScope::Base ? oneByOne : together);
  };
  std::vector<std::pair<std::string, Keywords>> many;
  const auto found = boost::make_shared<ADObjectList>();
  for (int i = 0; i < 500; ++i) {
    const std::string name = "conn" + std::to_string(i);
    if (i % 2 == 0) addComputer(name, name + ".forest.test");
    found->push_back(connectorObject(
        name, with(bothServices(POD1), "morvane.mobile.proxyUri", ("https://uri" + std::to_string(i) + ":1").c_str())));
  }
  locator.processList(found);
  EXPECT_EQ(locator.connectors.size(), 500u);
  EXPECT_EQ(locator.connectors.count("conn498.forest.test"), 1u);
  EXPECT_EQ(locator.connectors.count("uri499"), 1u);
  EXPECT_EQ(oneByOne, 0u);
  EXPECT_LE(together, 50u);
}

TEST_F(FoundConnectors, AreSortedAlsoWhenTheirComputersCannotBeReadAhead) {
  addComputer("one", "one.forest.test");
  const auto found = boost::make_shared<ADObjectList>();
  found->push_back(connectorObject("one", bothServices(POD1)));
  bool first = true;
  watched.onSearch = [&](const DirectoryConnector::Target&, const DirectorySearch&) {
    if (!first) return;
    first = false;
    LUMO_THROW(lumo::BadDataException, -1, "not understood");
  };
  locator.processList(found);
  EXPECT_FALSE(first);
  const Texts records = logged();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records[0], "DEBUG Failed to read the computers of 1 cloud connectors ahead: not understood");
  EXPECT_THAT(known(), ElementsAre("one.forest.test"));
}

TEST_F(FoundConnectors, OfADirectoryThatDiedAreNamedByTheirKeywords) {
  addComputer("one", "one.forest.test");
  addComputer("two", "two.forest.test");
  const auto found = boost::make_shared<ADObjectList>();
  found->push_back(connectorObject("one", bothServices(POD1)));
  found->push_back(connectorObject("two", with(bothServices(POD1), "morvane.mobile.proxyUri", "x://two:1")));
  directory.failOpen({testsupport::MemoryDirectory::Failure::Kind::Unreachable, -1, ""});
  directory.failSearch({testsupport::MemoryDirectory::Failure::Kind::Gone, -1, ""});
  const std::size_t before = directory.opened().size();
  locator.processList(found);
  EXPECT_THAT(known(), ElementsAre("two", "uri.example.test"));
  EXPECT_EQ(loggedWith("Failed to fetch DC object in AD").size(), 2u);
  // One attempt for each binding, not one for each connector.
  EXPECT_LE(directory.opened().size(), before + 2);
}

TEST_F(FoundConnectors, AnOverrideStandsFirst) {
  const struct {
    const char *parameter, *host, *port;
  } rows[] = {
      {"override.test", "override.test", ""},  {"override.test:3128", "override.test", "3128"},
      {"override.test:", "override.test", ""}, {"one:two:three", "one", ""},
      {"300.1.1.1:1", "300.1.1.1", "1"},
  };
  for (const auto& row : rows) {
    const Setting parameter(lumo::PN::CLOUD_CONNECTOR_OVERRIDE, row.parameter);
    locator.connectorPort = "";
    locator.overrideHost = "former";
    process({{"near", bothServices(POD1)}});
    EXPECT_EQ(locator.overrideHost, row.host) << row.parameter;
    EXPECT_EQ(locator.connectorPort, row.port) << row.parameter;
    EXPECT_THAT(locator.currentSiteTryList, ElementsAre(row.host, "near.forest.test"));
    EXPECT_EQ(locator.currentConnector, row.host);
    EXPECT_EQ(loggedWith("Set cloud connectors"),
              Texts{std::string("DEBUG Set cloud connectors from ferrod.cloud.connector parameter as: ") + row.host});
  }
}

TEST_F(FoundConnectors, AnOverrideOfOneOrThreePiecesLeavesThePort) {
  for (const char* text : {"override.test", "one:two:three"}) {
    const Setting parameter(lumo::PN::CLOUD_CONNECTOR_OVERRIDE, text);
    locator.connectorPort = "8080";
    process({});
    EXPECT_EQ(locator.connectorPort, "8080");
  }
}

TEST_F(FoundConnectors, AnOverrideWithoutAHostIsAPortAlone) {
  const Setting parameter(lumo::PN::CLOUD_CONNECTOR_OVERRIDE, ":3128");
  locator.overrideHost = "former";
  process({{"near", bothServices(POD1)}});
  EXPECT_EQ(locator.connectorPort, "3128");
  EXPECT_EQ(locator.overrideHost, "former");
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("near.forest.test"));
  EXPECT_EQ(loggedWith("Set cloud connectors"), Texts());
}

TEST_F(FoundConnectors, AnOverrideOfAKnownConnectorStandsOnce) {
  const Setting parameter(lumo::PN::CLOUD_CONNECTOR_OVERRIDE, "near2.forest.test");
  process({{"near1", bothServices(POD1)}, {"near2", bothServices(POD1)}});
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("near2.forest.test", "near1.forest.test"));
}

TEST_F(FoundConnectors, AnOverrideThatWasTakenAwayIsAConnectorLikeOthers) {
  {
    const Setting parameter(lumo::PN::CLOUD_CONNECTOR_OVERRIDE, "near.forest.test");
    process({{"near", bothServices(POD1)}});
    EXPECT_EQ(locator.overrideHost, "near.forest.test");
  }
  process({{"near", bothServices(POD1)}});
  EXPECT_EQ(locator.overrideHost, "");
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("near.forest.test"));
  EXPECT_EQ(locator.locator.getCloudConnector(), "near.forest.test:8080");
}

TEST_F(FoundConnectors, AnOverrideWithoutUsableConnectorsWaitsUnused) {
  const Setting parameter(lumo::PN::CLOUD_CONNECTOR_OVERRIDE, "override.test:3128");
  process({{"bad", useless()}});
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("override.test"));
  EXPECT_EQ(locator.currentConnector, "");
}

// The record's port is the one that is handed out.
TEST_F(FoundConnectors, TheOverridesPortReachesNobody) {
  const Setting parameter(lumo::PN::CLOUD_CONNECTOR_OVERRIDE, "near.forest.test:3128");
  process({{"near", bothServices(POD1)}});
  EXPECT_EQ(locator.connectorPort, "3128");
  EXPECT_EQ(locator.locator.getCloudConnector(), "near.forest.test:8080");
  EXPECT_EQ(locator.connectorPort, "8080");
}

}  // namespace
