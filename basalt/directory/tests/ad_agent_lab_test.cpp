// The agent in a real domain: its start, and what becomes of it when things break and come back.
#include <gmock/gmock.h>

#include "basalt/ad_agent.h"
#include "basalt/directory/computer_object.h"
#include "base/include/exceptions.h"
#include "testsupport/lab_control.h"
#include "testsupport/manual_clock.h"

namespace {

using testing::SizeIs;
using testsupport::env;
using testsupport::labControl;

constexpr int USUAL = CACHE_READ | CACHE_STORE | CACHE_MISSES;

const char* const* computer() { return lumo::ComputerObjectHelper::getAttributes(); }

// With the domain that the machine's keytab names and its own ticket.
class AgentLab : public testing::Test {
 protected:
  AgentLab() { ADAgent::start({}); }
  ~AgentLab() override {
    ADAgent::stop();
    labControl({"start", "dc", "gc", "ldap", "kdc", "dns"});
  }
  static ADAgent& agent() { return *ADAgent::GetADAgent(false, true); }
  // This host's own computer object.
  ADObjectPtr self(int cacheOps = 0) const {
    const std::string filter = std::string("(objectCategory=computer)(") + AD_DNS_NAME + "=" + m_host + ")";
    const auto found = agent().searchGCorDC(filter, "", computer(), computer(), cacheOps);
    return found->size() == 1 ? found->front() : nullptr;
  }
  // Whether a search says that no server is there; it must not say anything else.
  static bool away(ADCacheBinding* binding) {
    try {
      binding->search({"", SearchScope::Base, "(objectClass=*)", {AD_DN}});
      return false;
    } catch (const LDAPException& failure) {
      EXPECT_TRUE(LDAPBinding::isServerUnavailableException(failure)) << failure.what();
      return true;
    }
  }
  void pauseIsOver() { m_clock.advance(ADCacheBinding::RETRY_PAUSE); }

  testsupport::ManualClock m_clock;
  const std::string m_domain = env("FERRO_LAB_DOMAIN");
  const std::string m_host = env("FERRO_LAB_HOST");
};

TEST_F(AgentLab, StartsAsTheMachine) {
  EXPECT_TRUE(agent().isConnected());
  EXPECT_TRUE(agent().gcBinding()->isHealthy());
  EXPECT_EQ(agent().dcBinding()->domain(), m_domain);
  EXPECT_EQ(agent().siteName(), env("FERRO_LAB_SITE"));
  const ADObjectPtr own = self();
  ASSERT_TRUE(lumo::ADObject::isValid(own));
  EXPECT_EQ(own->getString(AD_DNS_NAME, ""), m_host);
  EXPECT_EQ(own->getString("sAMAccountName", ""), env("FERRO_LAB_MACHINE"));
  EXPECT_EQ(DN::domainFromDN(own->getString(AD_DN, "")), m_domain);
  EXPECT_NE(own->guid().toString(), lumo::Guid("").toString());
}

TEST_F(AgentLab, FindsAndReadsAhead) {
  const std::string dn = self()->dn();
  const std::string controllers = "OU=Domain Controllers," + env("FERRO_LAB_BASE_DN");
  const std::string none = "CN=none\\, of (that) name*," + env("FERRO_LAB_BASE_DN");
  for (const bool catalogue : {true, false}) {
    ADCacheBinding& binding = catalogue ? *agent().gcBinding() : *agent().dcBinding();
    binding.prefetch({dn, none, controllers, "<GUID=no identifier>"}, computer());
    const auto host = binding.recall("(objectClass=*)", dn, computer(), 0, 0);
    ASSERT_TRUE(host);
    ASSERT_THAT(*host, SizeIs(1));
    EXPECT_EQ(host->front()->getString(AD_DNS_NAME, ""), m_host);
    ASSERT_TRUE(binding.recall("(objectClass=*)", none, computer(), 0, 0));
    EXPECT_THAT(*binding.recall("(objectClass=*)", none, computer(), 0, 0), SizeIs(0));
    EXPECT_THAT(*binding.recall("(objectClass=*)", controllers, computer(), 0, 0), SizeIs(1));
  }
  EXPECT_EQ(agent().find(dn, computer(), USUAL)->getString(AD_DNS_NAME, ""), m_host);
  EXPECT_FALSE(agent().find(none, computer(), 0));
  EXPECT_EQ(agent().find(LDAPBinding::parent(dn), computer(), 0)->dn(), LDAPBinding::parent(dn));
}

TEST_F(AgentLab, AsksTheControllerWhileTheCatalogueIsGone) {
  labControl({"stop", "gc"});
  EXPECT_TRUE(lumo::ADObject::isValid(self()));
  EXPECT_TRUE(away(agent().gcBinding()));
  EXPECT_TRUE(agent().isConnected());
  labControl({"start", "gc"});
  EXPECT_TRUE(away(agent().gcBinding()));
  pauseIsOver();
  EXPECT_FALSE(away(agent().gcBinding()));
  EXPECT_TRUE(lumo::ADObject::isValid(self()));
}

TEST_F(AgentLab, RecoversByItselfFromAStoppedController) {
  ASSERT_TRUE(self(USUAL));
  labControl({"stop", "dc"});
  EXPECT_TRUE(away(agent().gcBinding()));
  EXPECT_TRUE(away(agent().dcBinding()));
  EXPECT_FALSE(agent().isConnected());
  EXPECT_THROW(self(), LDAPException);
  EXPECT_TRUE(self(USUAL)) << "from memory";
  EXPECT_EQ(agent().siteName(), env("FERRO_LAB_SITE"));
  labControl({"start", "dc"});
  EXPECT_FALSE(agent().isConnected());
  pauseIsOver();
  EXPECT_TRUE(agent().isConnected());
  EXPECT_TRUE(self());
  EXPECT_EQ(agent().siteName(), env("FERRO_LAB_SITE"));
}

TEST_F(AgentLab, DoesNotNoticeARestartedController) {
  ASSERT_TRUE(self());
  labControl({"restart", "dc"});
  EXPECT_TRUE(self());
  EXPECT_TRUE(agent().dcBinding()->fetch(env("FERRO_LAB_BASE_DN"), {AD_DN}));
  EXPECT_EQ(agent().dcBinding()->connections(), 2U);
}

TEST_F(AgentLab, StartsWithoutAControllerAndComesUpByItself) {
  ADAgent::stop();
  labControl({"stop", "dc"});
  ADAgent::start({});
  EXPECT_FALSE(agent().isConnected());
  EXPECT_EQ(agent().siteName(), "");
  labControl({"start", "dc"});
  pauseIsOver();
  EXPECT_TRUE(agent().isConnected());
  EXPECT_EQ(agent().siteName(), env("FERRO_LAB_SITE"));
  EXPECT_TRUE(self());
}

TEST_F(AgentLab, SignsInWithTheMachinesNewPassword) {
  labControl({"rotate-machine-password"});
  labControl({"expire-machine-ticket"});
  labControl({"restart", "dc"});
  EXPECT_TRUE(self());
  EXPECT_TRUE(agent().isConnected());
}

TEST_F(AgentLab, GetsANewTicketForANewConnection) {
  labControl({"expire-machine-ticket"});
  labControl({"stop", "gc"});
  labControl({"start", "gc"});
  EXPECT_FALSE(away(agent().gcBinding()));
  EXPECT_EQ(agent().gcBinding()->connections(), 2U);
}

TEST_F(AgentLab, LeadsToFurtherBindings) {
  void (*deleter)(ADBind*) = nullptr;
  ADBind* further = OpenDomainBind(m_domain, *agent().catalogueBinding(), &deleter);
  ASSERT_NE(further, nullptr);
  EXPECT_TRUE(further->fetch(env("FERRO_LAB_BASE_DN"), {AD_DN}));
  deleter(further);
}

}  // namespace
