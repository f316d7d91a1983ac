// Searches that fail: what is said, when the next one comes, and that nothing is forgotten.
#include <future>
#include <stdexcept>

#include "basalt/run_queue.h"
#include "cloud/route/tests/cloudconnectorlocator_forest.h"
#include "testsupport/failure_of.h"

namespace {

using locatortest::bothServices;
using locatortest::connectorObject;
using locatortest::Setting;
using locatortest::Texts;
using testing::ElementsAre;

constexpr char IN_900[] = "DEBUG SetRefresh: refresh task is scheduled to execute in 900 seconds";
constexpr char CONNECTOR_FILTER[] = "(&(objectclass=serviceConnectionPoint)(cn=proxy))";
constexpr char URL[] = "https://other.example.test/";

enum class Answer { Objects, Unavailable, Refused, OtherFailure, Foreign };

// Everything but what the last search was told to require.
std::string stateOf(const CloudConnectorLocatorAccess& locator) {
  std::string text;
  for (const auto* field : {&locator.zoneCloudUrl, &locator.cloudUrl, &locator.currentConnector, &locator.overrideHost,
                            &locator.connectorFqdn, &locator.connectorPort, &locator.tenantId, &locator.site,
                            &locator.iwaHostname, &locator.iwaHttpsPort}) {
    text += *field + "\n";
  }
  for (const auto* list :
       {&locator.cloudUrls, &locator.currentSiteTryList, &locator.otherSiteTryList, &locator.discardedList}) {
    for (const auto& name : *list) text += name + " ";
    text += "\n";
  }
  for (const auto* list : {&locator.currentSiteUnusedList, &locator.otherSiteUnusedList, &locator.invalidList}) {
    for (const auto& [url, fqdn] : *list) text += url + "=" + fqdn + " ";
    text += "\n";
  }
  for (const auto& [fqdn, record] : locator.connectors)
    text += VS("%s@%p ", fqdn.c_str(), static_cast<void*>(&*record));
  return text;
}

class FailedSearch : public locatortest::LocatorTest {
 protected:
  FailedSearch() {
    addComputer("CONN1", "conn1.forest.test");
    addComputer("CONN2", "conn2.forest.test");
    const auto found = boost::make_shared<ADObjectList>();
    found->push_back(connectorObject("CONN1", bothServices("https://pod1.example.test/")));
    found->push_back(connectorObject("CONN2", bothServices("https://pod2.example.test/", "Hamburg")));
    found->push_back(connectorObject("CONN2", {"morvane.core.cloudurl:https://pod2.example.test/"}));
    locator.zoneCloudUrl = "https://pod1.example.test/";
    locator.processList(found);
    m_before = stateOf(locator);
    logged();
  }
  void answer(Answer catalogue, Answer controller) {
    watched.onSearch = [=](const DirectoryConnector::Target& target, const DirectorySearch& what) {
      if (what.filter != CONNECTOR_FILTER) return;
      ++(target.globalCatalog ? m_askedCatalogue : m_askedController);
      fail(target.globalCatalog ? catalogue : controller);
    };
  }
  // "CLASS RC TEXT" of what the search throws.
  std::string search(const std::string& url, bool iwaRequired = true) {
    return testsupport::failureOf([&] { locator.locator.searchCloudConnetors(url, iwaRequired); });
  }
  void expectNothingChanged() { EXPECT_EQ(stateOf(locator), m_before); }

  const lumo::RunningQueues m_queues{lumo::MAIN_RUN_QUEUE};
  int m_askedCatalogue = 0;
  int m_askedController = 0;

  static void fail(Answer answer) {
    switch (answer) {
      case Answer::Objects:
        return;
      case Answer::Unavailable:
        LUMO_THROW(LDAPException, -1, "Can't contact LDAP server");
      case Answer::Refused:
        LUMO_THROW(LDAPException, 50, "Insufficient access");
      case Answer::OtherFailure:
        LUMO_THROW(lumo::BadDataException, -1, "not what was asked for");
      case Answer::Foreign:
        throw std::runtime_error("of another tree");
    }
  }

 private:
  std::string m_before;
};

TEST_F(FailedSearch, OfADirectoryThatIsAwayLeavesAllAsItWas) {
  directory.failOpen({testsupport::MemoryDirectory::Failure::Kind::Unreachable, -1, ""});
  directory.failSearch({testsupport::MemoryDirectory::Failure::Kind::Gone, -1, ""});
  EXPECT_THROW(g_adAgent.load()->dcBinding()->search(DirectorySearch()), LDAPException);
  EXPECT_EQ(search(URL, false), "nothing thrown");
  EXPECT_THAT(logged(), ElementsAre("DEBUG Connection healthy check failed.",
                                    "DEBUG SetRefresh: refresh task is scheduled to execute in 60 seconds"));
  EXPECT_FALSE(locator.iwaRequired);
  expectNothingChanged();
}

TEST_F(FailedSearch, OfADirectoryThatIsAwayComesAgainAfterTheRecoverInterval) {
  const Setting interval(lumo::PN::CLOUD_CONNECTOR_RECOVER_INTERVAL, "5");
  g_adAgent = nullptr;
  EXPECT_EQ(search(URL), "nothing thrown");
  EXPECT_THAT(logged(), ElementsAre("DEBUG Connection healthy check failed.",
                                    "DEBUG SetRefresh: refresh task is scheduled to execute in 300 seconds"));
  g_adAgent = ADAgent::GetADAgent(false, true);
  expectNothingChanged();
}

TEST_F(FailedSearch, InBothEndsAsOneOfTheDirectory) {
  for (const Answer controller : {Answer::Unavailable, Answer::Refused, Answer::OtherFailure}) {
    answer(Answer::Unavailable, controller);
    EXPECT_EQ(search(URL), "CloudConnectorException -1 Failed to search Morvane Connectors in AD");
    EXPECT_THAT(logged(), ElementsAre("DEBUG Failed to search cloud connectors in GC, trying DC", IN_900,
                                      "DEBUG Failed to search cloud connectors in AD"));
    EXPECT_TRUE(locator.iwaRequired);
    expectNothingChanged();
    // The bindings are as new for the next row.
    g_adAgent = nullptr;
    ADAgent::stop();
    ADAgent::Options options;
    options.domain = "forest.test";
    ADAgent::start(options);
    g_adAgent = ADAgent::GetADAgent(false, true);
  }
}

TEST_F(FailedSearch, ThatTheCatalogueRefusesDoesNotGoToTheController) {
  answer(Answer::Refused, Answer::Objects);
  EXPECT_EQ(search(URL), "CloudConnectorException -1 Failed to search Morvane Connectors in GC due to LDAP exception");
  EXPECT_THAT(logged(), ElementsAre(IN_900, "DEBUG Failed to search cloud connectors in GC due to LDAP exception"));
  EXPECT_EQ(m_askedController, 0);
  expectNothingChanged();
}

TEST_F(FailedSearch, ByAnotherFailureDoesNotGoToTheController) {
  answer(Answer::OtherFailure, Answer::Objects);
  EXPECT_EQ(search(URL), "CloudConnectorException -1 Failed to search Morvane Connectors in GC");
  EXPECT_THAT(logged(), ElementsAre(IN_900, "DEBUG Failed to search cloud connectors in GC"));
  EXPECT_EQ(m_askedController, 0);
  expectNothingChanged();
}

TEST_F(FailedSearch, WithoutATicketIsAFailureOfTheCatalogue) {
  watched.onSearch = [this](const DirectoryConnector::Target& target, const DirectorySearch& what) {
    if (what.filter != CONNECTOR_FILTER || !target.globalCatalog) return;
    credentials.machineCacheName.clear();
    fail(Answer::Unavailable);
  };
  EXPECT_EQ(search(URL), "CloudConnectorException -1 Failed to search Morvane Connectors in GC");
  EXPECT_THAT(logged(), ElementsAre(IN_900, "DEBUG Failed to search cloud connectors in GC"));
  expectNothingChanged();
}

TEST_F(FailedSearch, ByAForeignExceptionPassesAndLetsGoOfTheLock) {
  answer(Answer::Foreign, Answer::Objects);
  EXPECT_THROW(search(URL), std::runtime_error);
  EXPECT_EQ(logged(), Texts());
  std::async(std::launch::async, [] { const LocatorLock held; }).get();
  expectNothingChanged();
}

TEST_F(FailedSearch, ThatFindsNothingComesAgainWhereAUrlIsSet) {
  EXPECT_EQ(search(URL), "nothing thrown");
  EXPECT_THAT(logged(), ElementsAre(IN_900, "DEBUG Failed to search cloud connectors in GC or DC"));
  expectNothingChanged();
}

TEST_F(FailedSearch, ThatFindsNothingIsNotRepeatedWithoutAUrl) {
  EXPECT_EQ(search(""), "nothing thrown");
  EXPECT_THAT(logged(), ElementsAre("DEBUG Failed to search cloud connectors in GC or DC"));
  expectNothingChanged();
}

TEST_F(FailedSearch, GoesToTheControllerWithTheSameQuestion) {
  std::vector<DirectorySearch> asked;
  watched.onSearch = [&](const DirectoryConnector::Target& target, const DirectorySearch& what) {
    if (what.filter != CONNECTOR_FILTER) return;
    asked.push_back(what);
    if (target.globalCatalog) fail(Answer::Unavailable);
  };
  EXPECT_EQ(search(""), "nothing thrown");
  EXPECT_THAT(logged(), ElementsAre("DEBUG Failed to search cloud connectors in GC, trying DC",
                                    "DEBUG Failed to search cloud connectors in GC or DC"));
  ASSERT_GE(asked.size(), 2u);
  for (const auto& what : {asked.front(), asked.back()}) {
    EXPECT_EQ(what.base, "");
    EXPECT_EQ(what.scope, SearchScope::Subtree);
    Texts attributes = what.attributes;
    attributes.resize(6);  // the binding adds the identifier
    EXPECT_THAT(attributes,
                ElementsAre("objectCategory", "objectClass", "uSNChanged", "cn", "distinguishedName", "keywords"));
  }
  expectNothingChanged();
}

TEST(ConnectorSearch, HasItsAttributesInOrder) {
  const char* const* const list = CloudConnectorLocatorAccess::getSearchAttributes();
  EXPECT_EQ(Texts(list, list + 6),
            (Texts{AD_OBJECT_CATEGORY, AD_OBJECT_CLASS, AD_USN_CHANGED, AD_CN, AD_DN, AD_KEYWORDS}));
  EXPECT_EQ(list[6], nullptr);
  EXPECT_EQ(list, CloudConnectorLocatorAccess::getSearchAttributes());
}

}  // namespace
