#include "basalt/directory/canonical_spn.h"

#include <gmock/gmock.h>

#include "testsupport/memory_directory.h"

namespace {

using lumo::CanonicalSpn;
using testing::ElementsAre;
using testsupport::DirectoryInForce;
using testsupport::MemoryDirectory;

TEST(SpnForm, TakesServiceAndHostWithPortAndRealm) {
  for (const char* spn : {"HTTP/proxy", "HTTP/proxy.corp.test", "HTTP/proxy.corp.test:3128", "HTTP/proxy@CORP.TEST",
                          "HTTP/proxy.corp.test:65535@CORP.TEST", "http/10.1.2.3:1", "HTTP/[::1]",
                          "HTTP/[fe80::1]:3128", "HTTP/[2001:db8::1]:3128@CORP.TEST", "HTTP/pro*xy(1)"}) {
    EXPECT_TRUE(CanonicalSpn(spn).valid()) << spn;
  }
}

TEST(SpnForm, RefusesEmptyPiecesAndOtherForms) {
  for (const char* spn : {"",
                          "/",
                          "HTTP",
                          "HTTP/",
                          "/proxy",
                          "HTTP/proxy:",
                          "HTTP/:3128",
                          "HTTP/proxy@",
                          "HTTP/@CORP.TEST",
                          "HTTP@CORP.TEST",
                          "HTTP@proxy/x",
                          "HTTP/proxy:0",
                          "HTTP/proxy:65536",
                          "HTTP/proxy:http",
                          "HTTP/proxy:31:28",
                          "HTTP/proxy:-1",
                          "HTTP/proxy/x",
                          "HTTP/proxy@A@B",
                          "HTTP/proxy@CORP/TEST",
                          "HTTP/::1",
                          "HTTP/[::1",
                          "HTTP/::1]",
                          "HTTP/[]",
                          "HTTP/[proxy]",
                          "HTTP/[::1]x:3128",
                          "HTTP/[",
                          "HTTP/]",
                          "HTTP/pro xy",
                          "HT TP/proxy",
                          "HTTP/proxy\n",
                          "HTTP/proxy:3128@CORP TEST"}) {
    EXPECT_FALSE(CanonicalSpn(spn).valid()) << spn;
  }
}

int g_lookups = 0;
int g_deleted = 0;

ADBind* countingLookup(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*)) {
  ++g_lookups;
  *deleter = [](ADBind* opened) {
    ++g_deleted;
    delete static_cast<ADBinding*>(opened);
  };
  auto* further = new ADBinding(domain, dynamic_cast<ADBinding&>(binding));
  further->connect("", "", 0);
  return further;
}

class Canonical : public testing::Test {
 protected:
  Canonical() {
    g_lookups = g_deleted = 0;
    m_domain.connect("", "", 0);
    m_catalogue.connect("", "", 0);
  }
  void account(const std::string& dn, const std::vector<std::string>& names) {
    m_directory.add(dn, {{"servicePrincipalName", names}});
  }
  // The canonical form, "-" when there is none.
  std::string of(const std::string& spn, CanonicalSpn::Lookup lookup = countingLookup) {
    std::string out = "old";
    const bool done = CanonicalSpn(spn).canonicalize(out, m_domain, m_catalogue, lookup);
    EXPECT_EQ(done, !out.empty());
    return done ? out : "-";
  }
  std::vector<std::string> filters() const {
    std::vector<std::string> result;
    for (const auto& search : m_directory.searches()) result.push_back(search.what.filter);
    return result;
  }
  MemoryDirectory m_directory{"corp.test"};
  DirectoryInForce m_inForce{m_directory};
  ADBinding m_domain{"corp.test", "c", false, "", "", nullptr};
  ADBinding m_catalogue{"corp.test", "c", true, "", "", nullptr};
};

TEST_F(Canonical, TakesTheRealmFromTheAccountsDomain) {
  account("CN=P,DC=sub,DC=corp,DC=test", {"HOST/p", "HTTP/proxy.corp.test"});
  EXPECT_EQ(of("HTTP/proxy.corp.test"), "HTTP/proxy.corp.test@SUB.CORP.TEST");
  EXPECT_THAT(filters(), ElementsAre("(servicePrincipalName=HTTP/proxy.corp.test)"));
  EXPECT_TRUE(m_directory.searches().front().globalCatalog);
  EXPECT_EQ(m_directory.searches().front().what.base, "");
  EXPECT_EQ(g_lookups, 0);
}

TEST_F(Canonical, PrefersTheNameWithItsPort) {
  account("CN=P,DC=corp,DC=test", {"HTTP/proxy.corp.test", "HTTP/proxy.corp.test:3128"});
  EXPECT_EQ(of("HTTP/proxy.corp.test:3128"), "HTTP/proxy.corp.test:3128@CORP.TEST");
}

TEST_F(Canonical, GoesOnWithoutThePort) {
  account("CN=P,DC=corp,DC=test", {"HTTP/proxy.corp.test"});
  EXPECT_EQ(of("HTTP/proxy.corp.test:3128"), "HTTP/proxy.corp.test@CORP.TEST");
  EXPECT_THAT(filters(), ElementsAre("(servicePrincipalName=HTTP/proxy.corp.test:3128)",
                                     "(servicePrincipalName=HTTP/proxy.corp.test)"));
}

TEST_F(Canonical, PutsTheDomainBehindAShortName) {
  account("CN=P,DC=corp,DC=test", {"HTTP/proxy.corp.test"});
  EXPECT_EQ(of("HTTP/proxy:3128"), "HTTP/proxy.corp.test@CORP.TEST");
  EXPECT_THAT(filters(), ElementsAre("(servicePrincipalName=HTTP/proxy:3128)", "(servicePrincipalName=HTTP/proxy)",
                                     "(servicePrincipalName=HTTP/proxy.corp.test:3128)",
                                     "(servicePrincipalName=HTTP/proxy.corp.test)"));
}

TEST_F(Canonical, LeavesAnAddressAsItIs) {
  EXPECT_EQ(of("HTTP/[::1]:3128"), "-");
  EXPECT_THAT(filters(), ElementsAre("(servicePrincipalName=HTTP/[::1]:3128)", "(servicePrincipalName=HTTP/[::1])"));
}

TEST_F(Canonical, UsesTheSpellingOfTheAccount) {
  account("CN=P,DC=corp,DC=test", {"HTTP/Proxy.Corp.test"});
  EXPECT_EQ(of("http/PROXY.corp.TEST"), "HTTP/Proxy.Corp.test@CORP.TEST");
}

TEST_F(Canonical, KeepsARealm) {
  account("CN=P,DC=corp,DC=test", {"HTTP/proxy.corp.test"});
  EXPECT_EQ(of("HTTP/proxy.corp.test@Other.Test"), "HTTP/proxy.corp.test@Other.Test");
}

TEST_F(Canonical, FailsWhenNobodyHoldsTheName) { EXPECT_EQ(of("HTTP/proxy.corp.test"), "-"); }

TEST_F(Canonical, FailsWhenMoreThanOneHoldsTheName) {
  account("CN=P1,DC=corp,DC=test", {"HTTP/proxy.corp.test"});
  account("CN=P2,DC=sub,DC=corp,DC=test", {"http/proxy.corp.test"});
  EXPECT_EQ(of("HTTP/proxy.corp.test"), "-");
}

TEST_F(Canonical, DoesNotGoOnBehindAnAmbiguousName) {
  account("CN=P1,DC=corp,DC=test", {"HTTP/proxy:3128"});
  account("CN=P2,DC=corp,DC=test", {"HTTP/proxy:3128"});
  account("CN=P3,DC=corp,DC=test", {"HTTP/proxy"});
  EXPECT_EQ(of("HTTP/proxy:3128"), "-");
}

TEST_F(Canonical, EscapesTheNameInTheFilter) {
  account("CN=P,DC=corp,DC=test", {"HTTP/proxy.corp.test"});
  EXPECT_EQ(of("HTTP/*.corp.test"), "-");
  EXPECT_EQ(of("HTTP/x)(objectClass=*"), "-");
  EXPECT_EQ(filters().front(), "(servicePrincipalName=HTTP/\\2a.corp.test)");
}

TEST_F(Canonical, AsksTheAccountsDomainWhenTheCatalogueDoesNotShowTheNames) {
  account("CN=P,DC=sub,DC=corp,DC=test", {"HTTP/Proxy.corp.test"});
  m_directory.hideFromCatalogue("servicePrincipalName");
  EXPECT_EQ(of("http/proxy.corp.test"), "HTTP/Proxy.corp.test@SUB.CORP.TEST");
  EXPECT_EQ(g_lookups, 1);
  EXPECT_EQ(g_deleted, 1);
  EXPECT_EQ(m_directory.opened().back().domain, "sub.corp.test");
}

TEST_F(Canonical, NeedsNoFurtherBindingForItsOwnDomain) {
  account("CN=P,DC=corp,DC=test", {"HTTP/Proxy.corp.test"});
  m_directory.hideFromCatalogue("servicePrincipalName");
  EXPECT_EQ(of("http/proxy.corp.test"), "HTTP/Proxy.corp.test@CORP.TEST");
  EXPECT_EQ(g_lookups, 0);
}

TEST_F(Canonical, FailsWithoutAWayToTheAccountsDomain) {
  account("CN=P,DC=sub,DC=corp,DC=test", {"HTTP/Proxy.corp.test"});
  m_directory.hideFromCatalogue("servicePrincipalName");
  EXPECT_EQ(of("http/proxy.corp.test", nullptr), "-");
}

TEST_F(Canonical, ReleasesTheFurtherBindingWhenItFails) {
  account("CN=P,DC=sub,DC=corp,DC=test", {"HTTP/Proxy.corp.test"});
  m_directory.hideFromCatalogue("servicePrincipalName");
  std::string out;
  const auto failing = [](const std::string& domain, ADBind& binding, void (**deleter)(ADBind*)) {
    return countingLookup(domain + ".none", binding, deleter);
  };
  EXPECT_FALSE(CanonicalSpn("HTTP/proxy.corp.test").canonicalize(out, m_domain, m_catalogue, failing));
  EXPECT_EQ(g_deleted, 1);
}

TEST_F(Canonical, PassesOnWhatTheBindingsThrow) {
  m_directory.failSearch({MemoryDirectory::Failure::Kind::Server, 1, "Operations error"});
  std::string out = "old";
  EXPECT_THROW(CanonicalSpn("HTTP/proxy").canonicalize(out, m_domain, m_catalogue, countingLookup), LDAPException);
  EXPECT_EQ(out, "");
}

TEST_F(Canonical, AsksNothingForANameThatIsNotValid) {
  EXPECT_EQ(of("proxy.corp.test"), "-");
  EXPECT_TRUE(m_directory.searches().empty());
}

}  // namespace
