// The tests' own directory: what it answers must be what a server answers.
#include "testsupport/memory_directory.h"

#include <gmock/gmock.h>

#include "base/include/exceptions.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using testsupport::matchesFilter;
using testsupport::MemoryDirectory;

class Filter : public testing::Test {
 protected:
  Filter() {
    m_object.set("objectClass", {"top", "serviceConnectionPoint"});
    m_object.set("cn", {"proxy"});
    m_object.set("keywords", {"a:One", "b:two*"});
    m_object.set("empty", {});
  }
  bool matches(const std::string& filter) const { return matchesFilter(m_object, filter); }
  lumo::ADObject m_object{"CN=proxy,DC=corp,DC=test"};
};

TEST_F(Filter, ComparesWithoutCaseAndWithAnyValue) {
  EXPECT_TRUE(matches("(OBJECTCLASS=serviceconnectionpoint)"));
  EXPECT_TRUE(matches("(keywords=A:one)"));
  EXPECT_FALSE(matches("(cn=prox)"));
  EXPECT_FALSE(matches("(missing=x)"));
}

TEST_F(Filter, JoinsBranches) {
  EXPECT_TRUE(matches("(&(objectclass=serviceConnectionPoint)(cn=proxy))"));
  EXPECT_FALSE(matches("(&(objectclass=serviceConnectionPoint)(cn=other))"));
  EXPECT_TRUE(matches("(|(cn=other)(cn=proxy))"));
  EXPECT_FALSE(matches("(|(cn=other)(cn=third))"));
  EXPECT_TRUE(matches("(!(cn=other))"));
  EXPECT_TRUE(matches("(&(|(cn=a)(cn=proxy))(!(&(cn=proxy)(cn=b))))"));
}

TEST_F(Filter, TellsPresence) {
  EXPECT_TRUE(matches("(keywords=*)"));
  EXPECT_FALSE(matches("(missing=*)"));
}

TEST_F(Filter, FindsSubstrings) {
  EXPECT_TRUE(matches("(cn=pr*)"));
  EXPECT_TRUE(matches("(cn=*XY)"));
  EXPECT_TRUE(matches("(cn=p*o*y)"));
  EXPECT_FALSE(matches("(cn=prox*oxy)"));
  EXPECT_FALSE(matches("(cn=*z*)"));
}

TEST_F(Filter, TakesEscapedCharactersAsTheyAre) {
  EXPECT_TRUE(matches("(keywords=b:two\\2a)"));
  EXPECT_FALSE(matches("(cn=\\2a)"));
  EXPECT_TRUE(matches("(cn=\\70roxy)"));
}

TEST_F(Filter, RefusesWhatIsNoFilter) {
  for (const char* filter : {"", "cn=proxy", "(cn=proxy", "(cn=proxy))", "(cn)", "()", "(=x)", "(cn=\\2)", "(cn=\\zz)",
                             "(&(cn=proxy)", "(!cn=proxy)", "(cn=a)(cn=b)", "(cn>=5)", "(cn=a(b)", "(&)"}) {
    EXPECT_THROW(matches(filter), LDAPException) << filter;
  }
}

class Forest : public testing::Test {
 protected:
  Forest() {
    m_directory.add("DC=corp,DC=test", {{"objectClass", {"domain"}}});
    m_directory.add("CN=Computers,DC=corp,DC=test", {{"objectClass", {"container"}}});
    m_directory.add("CN=h1\\,x,CN=Computers,DC=corp,DC=test", {{"objectClass", {"computer"}}, {"secret", {"s"}}});
    m_directory.add("CN=h2,DC=sub,DC=corp,DC=test", {{"objectClass", {"computer"}}});
  }
  std::vector<std::string> names(const DirectoryConnector::Target& target, const DirectorySearch& what) {
    std::vector<std::string> result;
    for (const auto& object : m_directory.open(target)->search(what)) result.push_back(object->dn());
    return result;
  }
  const DirectoryConnector::Target m_domain{"corp.test", false, "", "", "cache"};
  const DirectoryConnector::Target m_catalogue{"corp.test", true, "", "", "cache"};
  MemoryDirectory m_directory{"corp.test"};
};

TEST_F(Forest, ShowsADomainItsOwnObjectsAndACatalogueAll) {
  const DirectorySearch computers{"", SearchScope::Subtree, "(objectClass=computer)", {}};
  EXPECT_THAT(names(m_domain, computers), ElementsAre("CN=h1\\,x,CN=Computers,DC=corp,DC=test"));
  EXPECT_THAT(names(m_catalogue, computers),
              UnorderedElementsAre("CN=h1\\,x,CN=Computers,DC=corp,DC=test", "CN=h2,DC=sub,DC=corp,DC=test"));
}

TEST_F(Forest, KeepsToTheScope) {
  const std::string all = "(objectClass=*)";
  EXPECT_THAT(names(m_domain, {"cn=computers,dc=corp,dc=test", SearchScope::Base, all, {}}),
              ElementsAre("CN=Computers,DC=corp,DC=test"));
  EXPECT_THAT(names(m_domain, {"DC=corp,DC=test", SearchScope::OneLevel, all, {}}),
              ElementsAre("CN=Computers,DC=corp,DC=test"));
  EXPECT_THAT(names(m_domain, {"CN=Computers,DC=corp,DC=test", SearchScope::OneLevel, all, {}}),
              ElementsAre("CN=h1\\,x,CN=Computers,DC=corp,DC=test"));
  EXPECT_THAT(names(m_domain, {"CN=Computers,DC=corp,DC=test", SearchScope::Subtree, all, {}}),
              UnorderedElementsAre("CN=Computers,DC=corp,DC=test", "CN=h1\\,x,CN=Computers,DC=corp,DC=test"));
  EXPECT_THAT(names(m_domain, {"CN=none,DC=corp,DC=test", SearchScope::Base, all, {}}), IsEmpty());
}

TEST_F(Forest, GivesTheAttributesAskedFor) {
  const auto connection = m_directory.open(m_domain);
  const auto found = connection->search({"", SearchScope::Subtree, "(objectClass=computer)", {"SECRET", "none"}});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found.front()->attributes().size(), 1U);
  EXPECT_EQ((*found.front())["secret"].toString(), "s");
}

TEST_F(Forest, HidesAttributesFromTheCatalogueOnly) {
  m_directory.hideFromCatalogue("Secret");
  const DirectorySearch what{"", SearchScope::Subtree, "(secret=s)", {}};
  EXPECT_FALSE(m_directory.open(m_catalogue)->search(what).at(0)->attributeExists("secret", false));
  EXPECT_TRUE(m_directory.open(m_domain)->search(what).at(0)->attributeExists("secret", false));
}

TEST_F(Forest, HandsOutCopies) {
  const auto connection = m_directory.open(m_domain);
  const DirectorySearch what{"", SearchScope::Subtree, "(secret=s)", {}};
  connection->search(what).at(0)->set("secret", {"changed"});
  EXPECT_EQ((*connection->search(what).at(0))["secret"].toString(), "s");
}

TEST_F(Forest, NamesItsRoots) {
  const auto root = m_directory.open({"sub.corp.test", false, "", "", ""})->rootDse();
  EXPECT_EQ((*root)["defaultNamingContext"].toString(), "DC=sub,DC=corp,DC=test");
  EXPECT_EQ((*root)["rootDomainNamingContext"].toString(), "DC=corp,DC=test");
}

TEST_F(Forest, FailsOnDemand) {
  using Kind = MemoryDirectory::Failure::Kind;
  m_directory.failOpen({Kind::NoServers, -1, ""});
  EXPECT_THROW(m_directory.open(m_domain), lumo::DNSUnavailableException);
  m_directory.failOpen({Kind::Unreachable, -1, ""});
  EXPECT_THROW(m_directory.open(m_domain), lumo::IOException);
  m_directory.failOpen({Kind::Refused, -1, ""}, 1);
  EXPECT_THROW(m_directory.open(m_domain), LDAPException);
  const auto connection = m_directory.open(m_domain);
  m_directory.failSearch({Kind::Server, 53, "Server is unwilling to perform"});
  try {
    connection->search({});
    FAIL();
  } catch (const LDAPException& failure) {
    EXPECT_STREQ(failure.what(), "Server is unwilling to perform");
    EXPECT_EQ(failure.rc(), 53);
    EXPECT_FALSE(isServerUnavailable(failure));
  }
  for (const Kind kind : {Kind::NoServers, Kind::Unreachable}) {
    m_directory.failSearch({kind, -1, ""});
    try {
      connection->search({"DC=corp,DC=test", SearchScope::Base, "(cn=a)", {}});
      FAIL();
    } catch (const LDAPException& failure) {
      EXPECT_STREQ(failure.what(), "Cannot search 'DC=corp,DC=test': no answer in time");
      EXPECT_TRUE(isServerUnavailable(failure));
      EXPECT_FALSE(isConnectionLost(failure));
    }
  }
  m_directory.clearFailures();
  EXPECT_NO_THROW(connection->search({}));
}

TEST_F(Forest, RemembersWhatItWasAsked) {
  names(m_catalogue, {"", SearchScope::Subtree, "(cn=a)", {}});
  ASSERT_EQ(m_directory.opened().size(), 1U);
  EXPECT_EQ(m_directory.opened().front().ccacheName, "cache");
  ASSERT_EQ(m_directory.searches().size(), 1U);
  EXPECT_TRUE(m_directory.searches().front().globalCatalog);
  EXPECT_EQ(m_directory.searches().front().what.filter, "(cn=a)");
}

TEST_F(Forest, FailsForTheCatalogueOrTheDomainsAlone) {
  using Kind = MemoryDirectory::Failure::Kind;
  using Servers = MemoryDirectory::Servers;
  m_directory.failOpen({Kind::Unreachable, -1, ""}, -1, Servers::Catalogue);
  EXPECT_NO_THROW(m_directory.open(m_domain));
  EXPECT_THROW(m_directory.open(m_catalogue), lumo::IOException);
  m_directory.failOpen({Kind::NoServers, -1, ""}, 1, Servers::Domain);
  EXPECT_THROW(m_directory.open(m_catalogue), lumo::IOException);
  EXPECT_THROW(m_directory.open(m_domain), lumo::DNSUnavailableException);
  EXPECT_NO_THROW(m_directory.open(m_domain));
  // One count for all servers.
  m_directory.failOpen({Kind::Unreachable, -1, ""}, 2);
  EXPECT_THROW(m_directory.open(m_domain), lumo::IOException);
  EXPECT_THROW(m_directory.open(m_catalogue), lumo::IOException);
  EXPECT_NO_THROW(m_directory.open(m_domain));
  EXPECT_NO_THROW(m_directory.open(m_catalogue));
}

TEST_F(Forest, FindsByNamesWhatAFilterOfAnotherShapeFinds) {
  const std::vector<std::string> both{"CN=h1\\,x,CN=Computers,DC=corp,DC=test", "CN=h2,DC=sub,DC=corp,DC=test"};
  const std::string terms =
      "(distinguishedName=cn=H1\\5c,x,CN=Computers,DC=corp,DC=test)"
      "(DistinguishedName=CN=h2,DC=sub,DC=corp,DC=test)"
      "(distinguishedName=CN=none,DC=corp,DC=test)";
  const std::string commonNames = "(cn=H1\\2c\\78)(CN=h2)(cn=none)";
  for (const std::string& filter :
       {"(|" + terms + ")", "(|" + terms + "(cn=x))", "(|" + terms + terms + ")", "(|" + commonNames + ")",
        "(|" + terms + commonNames + ")", "(|" + commonNames + "(sn=x))"}) {
    EXPECT_THAT(names(m_catalogue, {"", SearchScope::Subtree, filter, {}}), testing::UnorderedElementsAreArray(both));
    EXPECT_THAT(names(m_domain, {"", SearchScope::Subtree, filter, {}}), ElementsAre(both[0]));
    EXPECT_THAT(names(m_catalogue, {"CN=Computers,DC=corp,DC=test", SearchScope::Subtree, filter, {}}),
                ElementsAre(both[0]));
  }
  EXPECT_THAT(names(m_domain, {both[0], SearchScope::Base, "(objectClass=domain)", {}}), IsEmpty());
}

TEST(NamesAskedFor, AreReadFromAFilterOfNamesAlone) {
  using testsupport::namesAskedFor;
  EXPECT_THAT(namesAskedFor("(distinguishedName=CN=a\\2a)")->whole, ElementsAre("cn=a*"));
  const auto several = namesAskedFor("(|(distinguishedName=CN=a)(Cn=A)(DISTINGUISHEDNAME=CN=b)(cn=b\\2a))");
  EXPECT_THAT(several->whole, ElementsAre("cn=a", "cn=b"));
  EXPECT_THAT(several->common, ElementsAre("a", "b*"));
  EXPECT_THAT(namesAskedFor("(cn=a)")->common, ElementsAre("a"));
  for (const char* other :
       {"", "(cn=a*)", "(|(distinguishedName=CN=a)(sn=b))", "(|(cn=a)(|(cn=b)))", "(|)", "(distinguishedName=*)",
        "(&(distinguishedName=CN=a))", "(distinguishedName=CN=a)(distinguishedName=CN=b)", "(|(distinguishedName=CN=a)",
        "(|(distinguishedName=CN=a"}) {
    EXPECT_FALSE(namesAskedFor(other)) << other;
  }
}

TEST_F(Forest, ShowsThatAnAttributeCannotBeRead) {
  m_directory.makeUnreadable("CN=h1\\,x,CN=Computers,DC=corp,DC=test", "secret");
  const auto host = m_directory.open(m_domain)->search(
      {"CN=h1\\,x,CN=Computers,DC=corp,DC=test", SearchScope::Base, "(objectClass=*)", {}});
  ASSERT_EQ(host.size(), 1U);
  EXPECT_TRUE((*host.front())["secret"].isNull());
}

TEST_F(Forest, TellsTheSiteAndCountsWhoAsks) {
  m_directory.setSite("Paris");
  EXPECT_EQ(m_directory.site("corp.test"), "Paris");
  EXPECT_EQ(m_directory.sitesAsked(), 1);
}

}  // namespace
