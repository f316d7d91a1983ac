#include "basalt/ad_agent.h"

#include <gmock/gmock.h>

#include "basalt/directory/computer_object.h"
#include "base/include/exceptions.h"
#include "testsupport/agent_in_force.h"
#include "testsupport/manual_clock.h"
#include "testsupport/memory_directory.h"

namespace {

using testing::Contains;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StrCaseEq;
using testsupport::AgentInForce;
using testsupport::MemoryDirectory;
using Kind = MemoryDirectory::Failure::Kind;
using Servers = MemoryDirectory::Servers;

constexpr char HOST[] = "CN=h1,CN=Computers,DC=corp,DC=test";
constexpr char FAR_HOST[] = "CN=far,DC=sub,DC=corp,DC=test";
constexpr int USUAL = CACHE_READ | CACHE_STORE | CACHE_MISSES;

const char* const* computer() { return lumo::ComputerObjectHelper::getAttributes(); }

class Agent : public testing::Test {
 protected:
  Agent() {
    const auto add = [&](const std::string& dn, const std::string& dnsName) {
      m_directory.add(dn, {{AD_CN, {"x"}}, {AD_DNS_NAME, {dnsName}}, {AD_OBJECT_CATEGORY, {"computer"}}});
    };
    add(HOST, "h1.corp.test");
    add(FAR_HOST, "far.sub.corp.test");
    m_directory.setSite("Paris");
  }
  void bothAway() {
    m_directory.failSearch({Kind::Gone, -1, ""});
    m_directory.failOpen({Kind::Unreachable, -1, ""});
  }
  void catalogueAway() {
    m_directory.failSearch({Kind::Gone, -1, ""}, -1, Servers::Catalogue);
    m_directory.failOpen({Kind::Unreachable, -1, ""}, -1, Servers::Catalogue);
  }
  static std::string dnsName(const ADObjectPtr& object) {
    return lumo::ADObject::isValid(object) ? object->getString(AD_DNS_NAME, "") : "none";
  }
  static std::string findFailure(AgentInForce& agent, const std::string& dn) {
    try {
      agent->find(dn, computer(), USUAL);
    } catch (const LDAPException& failure) {
      EXPECT_TRUE(isServerUnavailable(failure));
      return failure.what();
    }
    return "none";
  }

  testsupport::ManualClock m_clock;
  MemoryDirectory m_directory{"corp.test"};
};

TEST_F(Agent, IsOneOfTheProcess) {
  EXPECT_EQ(ADAgent::GetADAgent(false, true), nullptr);
  {
    AgentInForce agent(m_directory);
    EXPECT_EQ(ADAgent::GetADAgent(false, true), &agent.agent());
    try {
      ADAgent::start({"corp.test", "", "", "", ""});
      FAIL();
    } catch (const lumo::BadDataException& failure) {
      EXPECT_STREQ(failure.what(), "This process has an agent already");
    }
  }
  EXPECT_EQ(ADAgent::GetADAgent(false, true), nullptr);
  ADAgent::stop();
  AgentInForce again(m_directory);
  EXPECT_TRUE(again->isConnected());
}

TEST_F(Agent, LivesAsLongAsItsOwner) {
  const testsupport::DirectoryInForce directory(m_directory);
  testsupport::FakeCredentialSource credentials;
  ADAgent::Options options;
  options.domain = "corp.test";
  {
    const RunningAgent running(options);
    EXPECT_NE(ADAgent::GetADAgent(false, true), nullptr);
  }
  EXPECT_EQ(ADAgent::GetADAgent(false, true), nullptr);
}

TEST_F(Agent, StartsWithBothBindingsAndTheSite) {
  AgentInForce agent(m_directory);
  ASSERT_THAT(m_directory.opened(), SizeIs(2));
  EXPECT_FALSE(m_directory.opened()[0].globalCatalog);
  EXPECT_TRUE(m_directory.opened()[1].globalCatalog);
  for (const auto& target : m_directory.opened()) {
    EXPECT_EQ(target.domain, "corp.test");
    EXPECT_EQ(target.ccacheName, "MEMORY:machine");
    EXPECT_EQ(target.server, "");
  }
  EXPECT_EQ(m_directory.sitesAsked(), 1);
  EXPECT_EQ(agent->siteName(), "Paris");
  EXPECT_EQ(m_directory.sitesAsked(), 1);
  EXPECT_TRUE(agent->isConnected());
  EXPECT_TRUE(agent->dcBinding()->isHealthy());
  EXPECT_TRUE(agent->gcBinding()->isHealthy());
  EXPECT_EQ(agent->domainBinding(), agent->dcBinding());
  EXPECT_EQ(agent->catalogueBinding(), agent->gcBinding());
}

TEST_F(Agent, TakesGivenServers) {
  testsupport::DirectoryInForce inForce(m_directory);
  testsupport::FakeCredentialSource credentials;
  ADAgent::start({"corp.test", "", "", "dc1.corp.test", "gc1.corp.test:3269"});
  ADAgent::stop();
  ASSERT_THAT(m_directory.opened(), SizeIs(2));
  EXPECT_EQ(m_directory.opened()[0].server, "dc1.corp.test");
  EXPECT_EQ(m_directory.opened()[1].server, "gc1.corp.test:3269");
}

// Keys that are not there: no connection, and no failure of the start.
TEST_F(Agent, TakesTicketsByItsOwnKeys) {
  testsupport::DirectoryInForce inForce(m_directory);
  ADAgent::start({"corp.test", "/nonexistent/keytab", "/nonexistent/ccache", "", ""});
  EXPECT_FALSE(ADAgent::GetADAgent(false, true)->isConnected());
  try {
    ADAgent::GetADAgent(false, true)->find(HOST, computer(), USUAL);
    ADD_FAILURE();
  } catch (const KerberosException& failure) {
    EXPECT_THAT(failure.what(), testing::HasSubstr("/nonexistent/keytab"));
  }
  ADAgent::stop();
  EXPECT_THAT(m_directory.opened(), IsEmpty());
}

TEST_F(Agent, StartsWithoutADirectoryAndComesUpByItself) {
  bothAway();
  m_directory.setSite("");
  AgentInForce agent(m_directory);
  EXPECT_FALSE(agent->isConnected());
  EXPECT_EQ(agent->siteName(), "");
  EXPECT_EQ(findFailure(agent, HOST), "No directory server of the domain 'corp.test' answers");
  m_directory.clearFailures();
  m_directory.setSite("Paris");
  EXPECT_FALSE(agent->isConnected());
  m_clock.advance(ADCacheBinding::RETRY_PAUSE);
  EXPECT_TRUE(agent->isConnected());
  EXPECT_EQ(agent->siteName(), "Paris");
  EXPECT_EQ(dnsName(agent->find(HOST, computer(), USUAL)), "h1.corp.test");
}

TEST_F(Agent, AsksTheSiteAnewWhenItIsOld) {
  AgentInForce agent(m_directory);
  m_directory.setSite("London");
  m_clock.advance(ADAgent::SITE_LIFE - std::chrono::milliseconds(1));
  EXPECT_EQ(agent->siteName(), "Paris");
  m_clock.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(agent->siteName(), "London");
  EXPECT_EQ(m_directory.sitesAsked(), 2);
}

TEST_F(Agent, AsksTheSiteAnewWhenTheDomainComesBack) {
  AgentInForce agent(m_directory);
  m_directory.setSite("London");
  m_directory.failSearch({Kind::Gone, -1, ""}, 1, Servers::Domain);
  EXPECT_EQ(agent->siteName(), "Paris");
  agent->dcBinding()->fetch(HOST, {});
  EXPECT_EQ(agent->siteName(), "London");
  EXPECT_EQ(m_directory.sitesAsked(), 2);
}

TEST_F(Agent, KeepsTheSiteWhileNobodyTells) {
  AgentInForce agent(m_directory);
  m_directory.setSite("");
  m_clock.advance(ADAgent::SITE_LIFE);
  EXPECT_EQ(agent->siteName(), "Paris");
  EXPECT_EQ(agent->siteName(), "Paris");
  EXPECT_EQ(m_directory.sitesAsked(), 2);
  m_directory.setSite("London");
  m_clock.advance(ADAgent::SITE_RETRY);
  EXPECT_EQ(agent->siteName(), "London");
}

TEST_F(Agent, FindsObjectsOfTheWholeForest) {
  AgentInForce agent(m_directory);
  EXPECT_EQ(dnsName(agent->find(HOST, computer(), USUAL)), "h1.corp.test");
  EXPECT_EQ(dnsName(agent->find(FAR_HOST, computer(), USUAL)), "far.sub.corp.test");
  EXPECT_FALSE(agent->find("CN=none,DC=corp,DC=test", computer(), USUAL));
  EXPECT_FALSE(agent->find("", computer(), USUAL));
  EXPECT_THAT(m_directory.searches(), SizeIs(3));
  agent->find(HOST, computer(), USUAL);
  agent->find("CN=none,DC=corp,DC=test", computer(), USUAL);
  EXPECT_THAT(m_directory.searches(), SizeIs(3));
  for (const auto& search : m_directory.searches()) EXPECT_TRUE(search.globalCatalog);
}

TEST_F(Agent, FindsInTheDomainWhatTheCatalogueCannotTell) {
  AgentInForce agent(m_directory);
  catalogueAway();
  EXPECT_EQ(dnsName(agent->find(HOST, computer(), USUAL)), "h1.corp.test");
  EXPECT_FALSE(agent->find(FAR_HOST, computer(), USUAL));
  m_directory.clearFailures();
  m_clock.advance(ADCacheBinding::RETRY_PAUSE);
  // A controller's word for "nothing" does not stand against the catalogue.
  EXPECT_EQ(dnsName(agent->find(FAR_HOST, computer(), USUAL)), "far.sub.corp.test");
}

TEST_F(Agent, DoesNotAskTheDomainForWhatTheCatalogueRefuses) {
  AgentInForce agent(m_directory);
  m_directory.failSearch({Kind::Server, 53, "unwilling"}, -1, Servers::Catalogue);
  EXPECT_THROW(agent->find(HOST, computer(), USUAL), LDAPException);
  EXPECT_THROW(agent->searchGCorDC("(cn=x)", "", computer(), computer(), USUAL), LDAPException);
  for (const auto& search : m_directory.searches()) EXPECT_TRUE(search.globalCatalog);
}

TEST_F(Agent, FailsWhenCatalogueAndDomainAreAway) {
  AgentInForce agent(m_directory);
  bothAway();
  EXPECT_EQ(findFailure(agent, HOST), "No directory server of the domain 'corp.test' answers");
  try {
    agent->searchGCorDC("(cn=x)", "", computer(), computer(), USUAL);
    FAIL();
  } catch (const LDAPException& failure) {
    EXPECT_STREQ(failure.what(), "No directory server of the domain 'corp.test' answers");
    EXPECT_TRUE(isServerUnavailable(failure));
  }
  EXPECT_THROW(agent->prefetch({HOST}, computer()), LDAPException);
}

TEST_F(Agent, ReadsAheadForFind) {
  AgentInForce agent(m_directory);
  agent->prefetch({HOST, FAR_HOST, "CN=none,DC=corp,DC=test"}, computer());
  EXPECT_THAT(m_directory.searches(), SizeIs(1));
  EXPECT_EQ(dnsName(agent->find(HOST, computer(), USUAL)), "h1.corp.test");
  EXPECT_EQ(dnsName(agent->find(FAR_HOST, computer(), USUAL)), "far.sub.corp.test");
  EXPECT_FALSE(agent->find("CN=none,DC=corp,DC=test", computer(), USUAL));
  EXPECT_THAT(m_directory.searches(), SizeIs(1));
}

TEST_F(Agent, RecallsWhatItKnowsAndAsksNobody) {
  AgentInForce agent(m_directory);
  agent->prefetch({HOST, "CN=none,DC=corp,DC=test"}, computer());
  m_directory.forgetQuestions();
  EXPECT_EQ(dnsName(agent->recall(HOST, computer()).value()), "h1.corp.test");
  EXPECT_FALSE(agent->recall("CN=none,DC=corp,DC=test", computer()).value());
  EXPECT_FALSE(agent->recall("", computer()).value());
  EXPECT_FALSE(agent->recall(FAR_HOST, computer()).has_value());
  EXPECT_THAT(m_directory.searches(), IsEmpty());
}

TEST_F(Agent, FindsWithoutTheCatalogueWhatWasReadAheadInTheDomain) {
  AgentInForce agent(m_directory);
  catalogueAway();
  agent->prefetch({HOST}, computer());
  m_directory.forgetQuestions();
  m_clock.advance(ADCacheBinding::RETRY_PAUSE);
  EXPECT_EQ(dnsName(agent->find(HOST, computer(), USUAL)), "h1.corp.test");
  EXPECT_THAT(m_directory.searches(), IsEmpty());
  EXPECT_THAT(m_directory.opened(), IsEmpty());
}

TEST_F(Agent, SearchesTheCatalogueFirst) {
  AgentInForce agent(m_directory);
  static constexpr const char* OF_DOMAIN[] = {AD_CN, nullptr};
  const std::string filter = std::string("(") + AD_DNS_NAME + "=far.sub.corp.test)";
  EXPECT_THAT(*agent->searchGCorDC(filter, "", computer(), OF_DOMAIN, USUAL), SizeIs(1));
  EXPECT_THAT(m_directory.searches().back().what.attributes, Contains(std::string(AD_DNS_NAME)));
  catalogueAway();
  const auto found = agent->searchGCorDC(filter, "", computer(), OF_DOMAIN, 0);
  ASSERT_TRUE(found);
  EXPECT_THAT(*found, IsEmpty());
  EXPECT_FALSE(m_directory.searches().back().globalCatalog);
  EXPECT_EQ(m_directory.searches().back().what.attributes, (std::vector<std::string>{AD_CN, AD_OBJECT_GUID}));
}

TEST_F(Agent, TakesTermsSideBySide) {
  AgentInForce agent(m_directory);
  const auto found =
      agent->searchGCorDC("(objectCategory=computer)(dNSHostName=h1.corp.test)", "", computer(), computer(), USUAL);
  ASSERT_THAT(*found, SizeIs(1));
  EXPECT_EQ(found->front()->getString(AD_DN, ""), HOST);
  EXPECT_EQ(m_directory.searches().back().what.filter, "(&(objectCategory=computer)(dNSHostName=h1.corp.test))");
  agent->searchGCorDC("(|(cn=a)(cn=b))", "", computer(), computer(), USUAL);
  EXPECT_EQ(m_directory.searches().back().what.filter, "(|(cn=a)(cn=b))");
  for (const char* damaged : {"", "(", ")(", "cn=a", "(cn=a)(cn=b"}) {
    EXPECT_THROW(agent->searchGCorDC(damaged, "", computer(), computer(), USUAL), LDAPException) << damaged;
  }
}

TEST_F(Agent, BindingsLeadToOtherDomains) {
  AgentInForce agent(m_directory);
  void (*deleter)(ADBind*) = nullptr;
  EXPECT_EQ(GetAgentDomainBind("CORP.test", *agent->dcBinding(), &deleter), agent->dcBinding());
  EXPECT_EQ(deleter, nullptr);
  for (ADBind* own : {agent->domainBinding(), agent->catalogueBinding()}) {
    ADBind* further = GetAgentDomainBind("sub.corp.test", *own, &deleter);
    ASSERT_NE(further, nullptr);
    ASSERT_NE(deleter, nullptr);
    EXPECT_EQ(further->domain(), "sub.corp.test");
    EXPECT_EQ(m_directory.opened().back().ccacheName, "MEMORY:machine");
    EXPECT_FALSE(m_directory.opened().back().globalCatalog);
    EXPECT_TRUE(further->fetch(FAR_HOST, {}));
    deleter(further);
  }
  m_directory.failOpen({Kind::Unreachable, -1, ""});
  EXPECT_THROW(OpenDomainBind("sub.corp.test", *agent->dcBinding(), &deleter), lumo::IOException);
  EXPECT_EQ(deleter, nullptr);
}

TEST_F(Agent, LendsItsKerberosContext) {
  AgentInForce agent(m_directory);
  krb5_context copy = agent->kerberosContext().clone();
  ASSERT_NE(copy, nullptr);
  krb5_free_context(copy);
}

TEST(ComputerObject, IsReadWithWhatALocatorNeeds) {
  std::vector<std::string> names;
  for (const char* const* one = computer(); *one != nullptr; ++one) names.emplace_back(*one);
  for (const char* needed : {AD_CN, AD_DN, AD_DNS_NAME, AD_OBJECT_CLASS}) EXPECT_THAT(names, Contains(needed));
  EXPECT_EQ(lumo::ComputerObjectHelper::getComputerAttributes(), computer());
}

}  // namespace
