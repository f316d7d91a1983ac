#include <gmock/gmock.h>

#include "basalt/ad_agent.h"
#include "basalt/directory/directory.h"
#include "base/include/exceptions.h"
#include "testsupport/memory_directory.h"

namespace {

using testsupport::DirectoryInForce;
using testsupport::MemoryDirectory;
using Kind = MemoryDirectory::Failure::Kind;

class Binding : public testing::Test {
 protected:
  Binding() {
    m_directory.add("CN=h1,DC=corp,DC=test", {{"dNSHostName", {"h1.corp.test"}}, {"cn", {"h1"}}});
    m_directory.add("CN=h2,DC=sub,DC=corp,DC=test", {{"dNSHostName", {"h2.sub.corp.test"}}});
  }
  MemoryDirectory m_directory{"corp.test"};
  DirectoryInForce m_inForce{m_directory};
};

TEST_F(Binding, OpensWhatItWasMadeFor) {
  ADBinding binding("corp.test", "FILE:/machine", true, "dc1.corp.test", "Berlin", nullptr);
  EXPECT_EQ(binding.domain(), "corp.test");
  EXPECT_TRUE(m_directory.opened().empty());
  binding.connect("", "", 0);
  ASSERT_EQ(m_directory.opened().size(), 1U);
  const auto target = m_directory.opened().front();
  EXPECT_EQ(target.domain, "corp.test");
  EXPECT_TRUE(target.globalCatalog);
  EXPECT_EQ(target.server, "dc1.corp.test");
  EXPECT_EQ(target.site, "Berlin");
  EXPECT_EQ(target.ccacheName, "FILE:/machine");
}

TEST_F(Binding, TakesAnothersIdentityToAFurtherDomain) {
  const ADBinding first("corp.test", "FILE:/machine", true, "dc1.corp.test", "Berlin", nullptr);
  ADBinding further("sub.corp.test", first);
  further.connect("", "", 0);
  const auto target = m_directory.opened().back();
  EXPECT_EQ(target.domain, "sub.corp.test");
  EXPECT_FALSE(target.globalCatalog);
  EXPECT_EQ(target.server, "");
  EXPECT_EQ(target.ccacheName, "FILE:/machine");
}

TEST_F(Binding, FetchesOneObject) {
  ADBinding binding("corp.test", "c", false, "", "", nullptr);
  binding.connect("", "", 0);
  const auto host = binding.fetch("CN=H1,DC=corp,DC=test", {AD_DNS_NAME});
  ASSERT_TRUE(host);
  EXPECT_EQ((*host)[AD_DNS_NAME].toString(), "h1.corp.test");
  EXPECT_FALSE(host->attributeExists("cn", false));
  EXPECT_FALSE(binding.fetch("CN=none,DC=corp,DC=test", {}));
}

TEST_F(Binding, SaysThatItIsNotConnected) {
  ADBinding binding("corp.test", "c", false, "", "", nullptr);
  try {
    binding.search({});
    FAIL();
  } catch (const lumo::IOException& failure) {
    EXPECT_STREQ(failure.what(), "The directory binding to 'corp.test' is not connected");
  }
}

TEST_F(Binding, PassesOnWhyItCouldNotBeOpened) {
  ADBinding binding("corp.test", "c", false, "", "", nullptr);
  m_directory.failOpen({Kind::NoServers, -1, ""});
  EXPECT_THROW(binding.connect("", "", 0), lumo::DNSUnavailableException);
  m_directory.failOpen({Kind::Refused, -1, ""});
  EXPECT_THROW(binding.connect("", "", 0), LDAPException);
}

TEST_F(Binding, OpensAnewOnceWhenTheConnectionWasLost) {
  ADBinding binding("corp.test", "c", false, "", "", nullptr);
  binding.connect("", "", 0);
  m_directory.failSearch({Kind::Gone, -1, ""}, 1);
  EXPECT_EQ(binding.search({"", SearchScope::Subtree, "(cn=h1)", {}}).size(), 1U);
  EXPECT_EQ(m_directory.opened().size(), 2U);

  m_directory.failSearch({Kind::Gone, -1, ""});
  EXPECT_THROW(binding.search({}), LDAPException);
  EXPECT_EQ(m_directory.opened().size(), 3U);
}

TEST_F(Binding, AsksASilentServerOnlyOnce) {
  ADBinding binding("corp.test", "c", false, "", "", nullptr);
  binding.connect("", "", 0);
  m_directory.failSearch({Kind::Server, -5, "Timed out"});
  EXPECT_THROW(binding.search({}), LDAPException);
  EXPECT_EQ(m_directory.searches().size(), 1U);
}

TEST_F(Binding, ReleasesItself) {
  auto* binding = new ADBinding("corp.test", "c", false, "", "", nullptr);
  binding->connect("", "", 0);
  binding->release();
}

TEST(ServerUnavailable, IsToldByTheResultCode) {
  const auto code = [](int rc) { return LDAPException("f", 1, "m", "LDAPException", rc); };
  for (const int rc : {-1, -5, -11, 51, 52}) EXPECT_TRUE(isServerUnavailable(code(rc))) << rc;
  for (const int rc : {1, 10, 32, 49, 50, 53, -2, -7}) EXPECT_FALSE(isServerUnavailable(code(rc))) << rc;
}

TEST_F(Binding, AgentsLookupKeepsTheBindingOfItsOwnDomain) {
  ADBinding binding("corp.test", "c", false, "", "", nullptr);
  void (*deleter)(ADBind*) = [](ADBind*) {};
  EXPECT_EQ(GetAgentDomainBind("CORP.test", binding, &deleter), &binding);
  EXPECT_EQ(deleter, nullptr);
}

TEST_F(Binding, AgentsLookupOpensAFurtherDomain) {
  ADBinding binding("corp.test", "FILE:/agent", false, "", "", nullptr);
  void (*deleter)(ADBind*) = nullptr;
  ADBind* further = GetAgentDomainBind("sub.corp.test", binding, &deleter);
  ASSERT_NE(further, nullptr);
  EXPECT_EQ(further->domain(), "sub.corp.test");
  EXPECT_EQ(m_directory.opened().back().ccacheName, "FILE:/agent");
  EXPECT_TRUE(further->fetch("CN=h2,DC=sub,DC=corp,DC=test", {}));
  ASSERT_NE(deleter, nullptr);
  deleter(further);
  deleter(nullptr);
}

TEST_F(Binding, AgentsLookupRefusesABindingOfAnotherKind) {
  class Other : public ADBind {
   public:
    std::vector<ADObjectPtr> search(const DirectorySearch&) override { return {}; }
    ADObjectPtr fetch(const std::string&, const std::vector<std::string>&) override { return nullptr; }
    const std::string& domain() const override { return m_domain; }

   private:
    std::string m_domain = "corp.test";
  } other;
  void (*deleter)(ADBind*) = [](ADBind*) {};
  try {
    GetAgentDomainBind("sub.corp.test", other, &deleter);
    FAIL();
  } catch (const lumo::BadDataException& failure) {
    EXPECT_STREQ(failure.what(), "Failed to downcast ADBind to ADBinding, incorrect binding type was supplied!");
    EXPECT_EQ(failure.rc(), 2);
  }
  EXPECT_EQ(deleter, nullptr);
}

TEST(ConnectionLost, IsToldByTheResultCode) {
  const auto code = [](int rc) { return LDAPException("f", 1, "m", "LDAPException", rc); };
  for (const int rc : {-1, -11, -2, 52}) EXPECT_TRUE(isConnectionLost(code(rc))) << rc;
  for (const int rc : {-5, 51, 1, 10, 32, 49, 50, 53, -7}) EXPECT_FALSE(isConnectionLost(code(rc))) << rc;
  EXPECT_TRUE(isServerUnavailable(serverUnavailable("away")));
  EXPECT_STREQ(serverUnavailable("away %s").what(), "away %s");
}

}  // namespace
