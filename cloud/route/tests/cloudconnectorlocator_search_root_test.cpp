// Searches that succeed write the state of the next process; addresses are looked up in a hosts file of the test's own.
#include <algorithm>
#include <fstream>

#include "basalt/run_queue.h"
#include "basalt/settings/settings_store.h"
#include "cloud/route/tests/cloudconnectorlocator_forest.h"
#include "testsupport/private_host.h"

namespace {

using locatortest::bothServices;
using locatortest::Keywords;
using locatortest::Setting;
using locatortest::Texts;
using locatortest::with;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char POD1[] = "https://pod1.example.test/";
constexpr char IN_900[] = "DEBUG SetRefresh: refresh task is scheduled to execute in 900 seconds";
constexpr char CONNECTOR_FILTER[] = "(&(objectclass=serviceConnectionPoint)(cn=proxy))";

class PrivateHost {
 public:
  PrivateHost() {
    testsupport::cleanPrivateHost();
    std::ofstream("/etc/hosts") << "127.0.0.1 localhost\n192.0.2.7 gate.forest.test gate\n";
    std::ofstream("/etc/resolv.conf") << "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n";
    std::ofstream("/etc/nsswitch.conf") << "hosts: files dns\n";
  }
};

class ConnectorSearchRoot : private PrivateHost, public locatortest::LocatorTest {
 protected:
  void search(const char* url = POD1, bool iwaRequired = true) {
    locator.locator.searchCloudConnetors(url, iwaRequired);
  }
  static std::string stateFile() { return lumo::GetSetting(SETTING_CLOUD_CONNECTORS, "", true); }

 private:
  const lumo::RunningQueues m_queues{lumo::MAIN_RUN_QUEUE};
};

TEST_F(ConnectorSearchRoot, FindsRemembersAndUsesConnectors) {
  addConnector("CONN1", bothServices(POD1));
  addConnector("CONN2", bothServices("https://pod2.example.test/"));
  addComputer("NONE", "none.forest.test");
  search();
  EXPECT_EQ(locator.zoneCloudUrl, POD1);
  EXPECT_EQ(locator.cloudUrl, POD1);
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("conn1.forest.test"));
  EXPECT_EQ(locator.connectors.size(), 2u);
  EXPECT_EQ(locator.locator.getCloudConnector(), "conn1.forest.test:8080");
  EXPECT_EQ(stateFile(), "https://pod1.example.test/|Berlin|conn1.forest.test|TENANT|8080|8081|8443\n");
  EXPECT_THAT(logged(), Not(Contains(IN_900)));
}

TEST_F(ConnectorSearchRoot, GoesToTheControllerWhereTheCatalogueIsAway) {
  addConnector("CONN1", bothServices(POD1));
  watched.onSearch = [](const DirectoryConnector::Target& target, const DirectorySearch& what) {
    if (what.filter == CONNECTOR_FILTER && target.globalCatalog) {
      LUMO_THROW(LDAPException, -1, "Can't contact LDAP server");
    }
  };
  search();
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("conn1.forest.test"));
  EXPECT_EQ(logged().front(), "DEBUG Failed to search cloud connectors in GC, trying DC");
}

TEST_F(ConnectorSearchRoot, TakesWhatIsRequiredFromItsCaller) {
  addConnector("CONN1", with(bothServices(POD1), "morvane.core.iwa.enabled", "False"));
  search(POD1, false);
  EXPECT_FALSE(locator.iwaRequired);
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("conn1.forest.test"));
  search(POD1, true);
  EXPECT_TRUE(locator.iwaRequired);
  EXPECT_THAT(locator.currentSiteTryList, IsEmpty());
}

TEST_F(ConnectorSearchRoot, ComesAgainSoonerWhenAllAreDiscarded) {
  addConnector("CONN1", with(bothServices(POD1), "morvane.core.iwa.enabled", "False"));
  search(POD1, true);
  EXPECT_THAT(locator.discardedList, ElementsAre("conn1.forest.test"));
  const Texts records = logged();
  ASSERT_GE(records.size(), 2u);
  EXPECT_EQ(records[records.size() - 2], IN_900);
  EXPECT_EQ(records.back(), "DEBUG Update cloud connectors kset file.");
}

TEST_F(ConnectorSearchRoot, DoesNotComeAgainSoonerWhenOneIsLeftOrNoneIsKnown) {
  addConnector("CONN1", with(bothServices(POD1), "morvane.core.iwa.enabled", "False"));
  addConnector("CONN2", bothServices(POD1, "Hamburg"));
  search();
  EXPECT_THAT(locator.otherSiteTryList, ElementsAre("conn2.forest.test"));
  EXPECT_THAT(logged(), Not(Contains(IN_900)));
  directory.remove(locatortest::connectorDn("CONN1"));
  addConnector("CONN2", {"morvane.core.cloudurl:x"});
  search();
  EXPECT_THAT(locator.discardedList, IsEmpty());
  EXPECT_THAT(logged(), Not(Contains(IN_900)));
}

TEST_F(ConnectorSearchRoot, AsksTheDirectoryAnewEachTime) {
  addConnector("CONN1", bothServices(POD1));
  search();
  addConnector("CONN2", bothServices(POD1));
  search();
  EXPECT_EQ(locator.connectors.size(), 2u);
}

TEST_F(ConnectorSearchRoot, AnAddressIsTriedByItsName) {
  const Setting parameter(lumo::PN::CLOUD_CONNECTOR_OVERRIDE, "192.0.2.7:3128");
  addConnector("CONN1", bothServices(POD1));
  search();
  EXPECT_EQ(locator.overrideHost, "gate.forest.test");
  EXPECT_EQ(locator.connectorPort, "3128");
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("gate.forest.test", "conn1.forest.test"));
  EXPECT_THAT(loggedWith("ferrod.cloud.connector"),
              ElementsAre("DEBUG Set cloud connectors from ferrod.cloud.connector parameter as: gate.forest.test"));
}

TEST_F(ConnectorSearchRoot, AnAddressWithoutANameLeavesTheFormerHost) {
  const Setting parameter(lumo::PN::CLOUD_CONNECTOR_OVERRIDE, "192.0.2.8:3128");
  addConnector("CONN1", bothServices(POD1));
  locator.overrideHost = "former.forest.test";
  search();
  EXPECT_EQ(locator.overrideHost, "former.forest.test");
  EXPECT_EQ(locator.connectorPort, "3128");
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("former.forest.test", "conn1.forest.test"));
  const Texts records = logged();
  const auto said = std::find(records.begin(), records.end(),
                              "WARN Cannot get the host name from the address: 192.0.2.8 will not use it");
  ASSERT_NE(said, records.end());
  EXPECT_EQ(*(said + 1), "DEBUG Set cloud connectors from ferrod.cloud.connector parameter as: former.forest.test");
}

// A host without a name cannot be remembered, so the search ends there.
TEST_F(ConnectorSearchRoot, AnAddressWithoutANameAndWithoutAFormerHostStandsAsAnEmptyOne) {
  const Setting parameter(lumo::PN::CLOUD_CONNECTOR_OVERRIDE, "192.0.2.8");
  addConnector("CONN1", bothServices(POD1));
  try {
    search();
    ADD_FAILURE() << "nothing thrown";
  } catch (const lumo::CloudConnectorException& failure) {
    EXPECT_STREQ(failure.what(), "Null host DC FQDN when fetching the Morvane Connector object");
  }
  EXPECT_EQ(locator.overrideHost, "");
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("", "conn1.forest.test"));
}

}  // namespace
