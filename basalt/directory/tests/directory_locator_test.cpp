#include "basalt/directory/directory_locator.h"

#include <gmock/gmock.h>

#include <map>

#include "base/include/exceptions.h"

namespace {

using lumo::DirectoryServer;
using lumo::NetlogonReply;
using lumo::SrvAnswer;
using lumo::SrvRecord;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char DOMAIN_NAME[] = "_ldap._tcp.dc._msdcs.sub.corp.test";

// A network of the test's own: DNS by name, one ping reply, one answer of the root object.
class Locator : public testing::Test {
 protected:
  Locator() {
    m_dns[DOMAIN_NAME] = {
        SrvAnswer::Status::Found, {{0, 1, 389, "dc1.sub.corp.test"}, {0, 1, 389, "dc2.sub.corp.test"}}, ""};
    m_dns["_gc._tcp.corp.test"] = {
        SrvAnswer::Status::Found, {{0, 1, 3268, "gc1.corp.test"}, {0, 1, 3268, "GC2.corp.test"}}, ""};
  }
  std::vector<std::string> locate(const DirectoryConnector::Target& target) {
    lumo::LocatorSources sources;
    sources.srv = [&](const std::string& name) {
      m_asked.push_back(name);
      return m_dns[name];
    };
    sources.ping = [&](const std::vector<DirectoryServer>& servers, const std::string& domain) {
      EXPECT_EQ(domain, "sub.corp.test");
      EXPECT_EQ(servers.size(), 2U);
      ++m_pings;
      return m_ping;
    };
    sources.forest = [&](const std::vector<DirectoryServer>&) {
      ++m_forestAsked;
      return m_forest;
    };
    sources.random = [](std::uint32_t) { return std::uint32_t{0}; };
    std::vector<std::string> result;
    for (const auto& server : lumo::locateServers(target, sources)) {
      result.push_back(server.host + ":" + std::to_string(server.port));
    }
    return result;
  }
  void pingTells(const std::string& forest, const std::string& site) {
    m_ping = NetlogonReply{0, forest, "sub.corp.test", "dc1.sub.corp.test", "Paris", site};
  }
  std::string failure(const DirectoryConnector::Target& target) {
    try {
      locate(target);
    } catch (const lumo::DNSUnavailableException& none) {
      return none.what();
    }
    return "";
  }

  const DirectoryConnector::Target m_domain{"sub.corp.test", false, "", "", ""};
  const DirectoryConnector::Target m_catalogue{"sub.corp.test", true, "", "", ""};
  std::map<std::string, SrvAnswer> m_dns;
  std::optional<NetlogonReply> m_ping;
  std::string m_forest;
  std::vector<std::string> m_asked;
  int m_pings = 0;
  int m_forestAsked = 0;
};

TEST_F(Locator, TakesTheDomainsServersWhenThereIsNoSite) {
  EXPECT_THAT(locate(m_domain), ElementsAre("dc1.sub.corp.test:389", "dc2.sub.corp.test:389"));
  EXPECT_THAT(m_asked, ElementsAre(DOMAIN_NAME));
}

TEST_F(Locator, PutsTheServersOfTheSiteFirst) {
  pingTells("corp.test", "Berlin");
  m_dns["_ldap._tcp.Berlin._sites.dc._msdcs.sub.corp.test"] = {
      SrvAnswer::Status::Found, {{0, 1, 389, "DC2.sub.corp.test"}, {0, 1, 389, "dc3.sub.corp.test"}}, ""};
  EXPECT_THAT(locate(m_domain), ElementsAre("DC2.sub.corp.test:389", "dc3.sub.corp.test:389", "dc1.sub.corp.test:389"));
}

TEST_F(Locator, GoesOnWhenDnsDoesNotKnowTheSiteOrFallsSilent) {
  pingTells("corp.test", "Berlin");
  EXPECT_THAT(locate(m_domain), ElementsAre("dc1.sub.corp.test:389", "dc2.sub.corp.test:389"));
  m_dns["_ldap._tcp.Berlin._sites.dc._msdcs.sub.corp.test"] = {SrvAnswer::Status::Silent, {}, "x"};
  EXPECT_THAT(locate(m_domain), ElementsAre("dc1.sub.corp.test:389", "dc2.sub.corp.test:389"));
}

TEST_F(Locator, AsksForNoSiteWhoseNameIsNoLabel) {
  for (const std::string& site : {std::string("a.b"), std::string("a\\b"), std::string("a\nb"), std::string(64, 'a')}) {
    m_asked.clear();
    pingTells("corp.test", site);
    locate(m_domain);
    EXPECT_THAT(m_asked, ElementsAre(DOMAIN_NAME)) << site;
  }
}

TEST_F(Locator, NeedsNoPingForAGivenSite) {
  auto target = m_domain;
  target.site = "Rome";
  m_dns["_ldap._tcp.Rome._sites.dc._msdcs.sub.corp.test"] = {
      SrvAnswer::Status::Found, {{0, 1, 389, "dc9.sub.corp.test"}}, ""};
  EXPECT_EQ(locate(target).front(), "dc9.sub.corp.test:389");
  EXPECT_EQ(m_pings, 0);
}

TEST_F(Locator, LooksForACatalogueInTheForestOfThePing) {
  pingTells("corp.test", "Berlin");
  m_dns["_gc._tcp.Berlin._sites.corp.test"] = {SrvAnswer::Status::Found, {{0, 1, 3268, "gc2.corp.test"}}, ""};
  EXPECT_THAT(locate(m_catalogue), ElementsAre("gc2.corp.test:3268", "gc1.corp.test:3268"));
  EXPECT_EQ(m_forestAsked, 0);
}

TEST_F(Locator, AsksTheServersForTheForestWhenThePingFails) {
  m_forest = "corp.test";
  EXPECT_THAT(locate(m_catalogue), ElementsAre("gc1.corp.test:3268", "GC2.corp.test:3268"));
  EXPECT_EQ(m_forestAsked, 1);
}

TEST_F(Locator, TakesTheDomainForTheForestWhenNobodyTells) {
  m_dns["_gc._tcp.sub.corp.test"] = {SrvAnswer::Status::Found, {{0, 1, 3268, "gc5.sub.corp.test"}}, ""};
  EXPECT_THAT(locate(m_catalogue), ElementsAre("gc5.sub.corp.test:3268"));
}

TEST_F(Locator, SaysThatTheDomainHasNoServers) {
  m_dns[DOMAIN_NAME] = {SrvAnswer::Status::NoRecords, {}, ""};
  EXPECT_EQ(failure(m_domain),
            "No directory server of the domain 'sub.corp.test' was found: DNS has no SRV records for "
            "_ldap._tcp.dc._msdcs.sub.corp.test; check the domain's name and the nameservers in /etc/resolv.conf");
}

TEST_F(Locator, SaysThatDnsDoesNotAnswer) {
  m_dns[DOMAIN_NAME] = {SrvAnswer::Status::Silent, {}, "Host name lookup failure"};
  EXPECT_EQ(failure(m_domain),
            "No directory server of the domain 'sub.corp.test' was found: the DNS query for "
            "_ldap._tcp.dc._msdcs.sub.corp.test failed (Host name lookup failure); check the nameservers in "
            "/etc/resolv.conf");
}

TEST_F(Locator, SaysThatTheForestHasNoCatalogue) {
  pingTells("other.test", "");
  EXPECT_EQ(failure(m_catalogue),
            "No directory server of the domain 'other.test' was found: DNS has no SRV records for "
            "_gc._tcp.other.test; check the domain's name and the nameservers in /etc/resolv.conf");
}

TEST_F(Locator, SaysThatThereIsNoDomainToLookFor) {
  EXPECT_EQ(failure({"", false, "", "", ""}), "No directory server was found: the name of the domain is empty");
}

struct GivenServer {
  const char* server;
  bool globalCatalog;
  const char* found;
};

TEST_F(Locator, TakesAGivenServerAlone) {
  for (const GivenServer& one : {GivenServer{"dc7.corp.test", false, "dc7.corp.test:389"},
                                 {"dc7.corp.test", true, "dc7.corp.test:3268"},
                                 {"dc7.corp.test:1389", true, "dc7.corp.test:1389"},
                                 {"[::1]:1389", false, "::1:1389"},
                                 {"[::1]", false, "::1:389"},
                                 {"fe80::1", false, "fe80::1:389"}}) {
    EXPECT_THAT(locate({"sub.corp.test", one.globalCatalog, one.server, "", ""}), ElementsAre(one.found)) << one.server;
  }
  EXPECT_THAT(m_asked, IsEmpty());
  EXPECT_EQ(m_pings, 0);
}

TEST_F(Locator, RefusesAGivenServerWithABadPort) {
  for (const char* server : {"dc7:", "dc7:0", "dc7:65536", "dc7:ldap", "dc7:389x", "[::1]:"}) {
    EXPECT_THROW(locate({"sub.corp.test", false, server, "", ""}), lumo::BadDataException) << server;
  }
}

}  // namespace
