// Negotiate in a process with an agent: the agent's bindings, its KDC locator.
#include <gmock/gmock.h>

#include <memory>

#include "cloud/http/curl_gsssetup.h"
#include "testsupport/agent_in_force.h"

using testing::IsEmpty;
using testing::SizeIs;
using testsupport::MemoryDirectory;

namespace {

constexpr char ASKED_FOR[] = "HTTP/proxy1.CORP.test";
constexpr char CANONICAL[] = "HTTP/Proxy1.corp.test@CORP.TEST";

class NegotiateWithAgent : public testing::Test {
 protected:
  NegotiateWithAgent() {
    directory.add("CN=PROXY1,CN=Computers,DC=corp,DC=test", {{"servicePrincipalName", {"HTTP/Proxy1.corp.test"}}});
  }

  MemoryDirectory directory{"corp.test"};
  std::unique_ptr<testsupport::AgentInForce> agent = std::make_unique<testsupport::AgentInForce>(directory);
  CurlProxyNegotiateHelper helper;
};

}  // namespace

TEST_F(NegotiateWithAgent, ServiceNameIsLookedUpOverTheAgentsBindings) {
  directory.forgetQuestions();
  EXPECT_EQ(helper.canonicalizeSpn(ASKED_FOR), CANONICAL);
  EXPECT_THAT(directory.opened(), IsEmpty());
  { CurlProxyNegotiateHelper().canonicalizeSpn(ASKED_FOR); }
  EXPECT_EQ(helper.canonicalizeSpn(ASKED_FOR), CANONICAL);
  EXPECT_THAT(directory.searches(), SizeIs(1)) << "the agent remembers it for all";
  EXPECT_THAT(directory.opened(), IsEmpty()) << "they are the agent's to open and to close";
}

TEST_F(NegotiateWithAgent, ServiceNameThatCannotBeLookedUpIsNone) {
  directory.failSearch({MemoryDirectory::Failure::Kind::Server, 53, "not now"});
  EXPECT_EQ(helper.canonicalizeSpn(ASKED_FOR), "");
}

TEST_F(NegotiateWithAgent, BindingsOfAnAgentThatEndedAreNotUsed) {
  EXPECT_EQ(helper.canonicalizeSpn(ASKED_FOR), CANONICAL);
  agent.reset();
  {
    const testsupport::DirectoryInForce inForce(directory);
    const testsupport::FakeCredentialSource source;
    directory.forgetQuestions();
    EXPECT_EQ(helper.canonicalizeSpn(ASKED_FOR), CANONICAL);
    EXPECT_THAT(directory.opened(), SizeIs(2)) << "its own ones";
  }
}

TEST_F(NegotiateWithAgent, NextAgentsBindingsTakeThePlaceOfTheFormerOnes) {
  EXPECT_EQ(helper.canonicalizeSpn(ASKED_FOR), CANONICAL);
  agent.reset();
  agent = std::make_unique<testsupport::AgentInForce>(directory);
  directory.forgetQuestions();
  EXPECT_EQ(helper.canonicalizeSpn(ASKED_FOR), CANONICAL);
  EXPECT_THAT(directory.opened(), IsEmpty());
}

TEST_F(NegotiateWithAgent, AgentsLocatorStandsInTheSetUpBlock) {
  helper.setCredentials("alice@CORP.TEST", lumo::Shredder2("secret"));
  helper.initGSSCredential();
  EXPECT_EQ(helper.callbackBlock()->kdcLocator, reinterpret_cast<void*>(&krb5_dc_locator_callback));
  EXPECT_EQ(helper.callbackBlock()->initialCredentials, nullptr);
  agent.reset();
  const testsupport::FakeCredentialSource source;
  helper.initGSSCredential();
  EXPECT_EQ(helper.callbackBlock()->kdcLocator, nullptr);
}
