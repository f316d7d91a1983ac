// The service names that an agent looks up, of whom it asks them, and what it remembers.
#include <gmock/gmock.h>

#include <future>
#include <string>
#include <vector>

#include "testsupport/agent_in_force.h"
#include "testsupport/held_directory.h"
#include "testsupport/log_capture.h"
#include "testsupport/manual_clock.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testsupport::MemoryDirectory;
using Failure = MemoryDirectory::Failure;
using Servers = MemoryDirectory::Servers;

constexpr char PROXY[] = "HTTP/proxy1.CORP.test";
constexpr char PROXY_CANONICAL[] = "HTTP/Proxy1.corp.test@CORP.TEST";
constexpr char FAR_AWAY[] = "HTTP/proxy2.sub.corp.test";

class AgentsServiceName : public testing::Test {
 protected:
  AgentsServiceName() {
    m_directory.add("CN=PROXY1,CN=Computers,DC=corp,DC=test", {{"servicePrincipalName", {"HTTP/Proxy1.corp.test"}}});
    m_directory.add("CN=PROXY2,DC=sub,DC=corp,DC=test", {{"servicePrincipalName", {FAR_AWAY}}});
    m_directory.forgetQuestions();
  }
  std::string of(const std::string& name) { return m_agent->canonicalServiceName(name); }
  // Since the last call: "catalogue" or the domain.
  std::vector<std::string> asked() {
    std::vector<std::string> result;
    for (const auto& search : m_directory.searches()) {
      result.push_back(search.globalCatalog ? "catalogue" : search.domain);
    }
    m_directory.forgetQuestions();
    return result;
  }

  testsupport::ManualClock m_clock;
  MemoryDirectory m_directory{"corp.test"};
  testsupport::AgentInForce m_agent{m_directory};
};

TEST_F(AgentsServiceName, IsAskedForOnce) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(of(PROXY), PROXY_CANONICAL);
  EXPECT_THAT(asked(), ElementsAre("catalogue"));
  m_clock.advance(lumo::SpnMemory::LIFE);
  EXPECT_EQ(of(PROXY), PROXY_CANONICAL);
  EXPECT_THAT(asked(), ElementsAre("catalogue"));
}

TEST_F(AgentsServiceName, ThatNobodyHoldsIsAskedForAgainSoon) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(of("HTTP/none.corp.test"), "");
  EXPECT_THAT(asked(), SizeIs(1));
  m_directory.add("CN=N,DC=corp,DC=test", {{"servicePrincipalName", {"HTTP/none.corp.test"}}});
  m_clock.advance(lumo::SpnMemory::MISS_LIFE);
  EXPECT_EQ(of("HTTP/none.corp.test"), "HTTP/none.corp.test@CORP.TEST");
}

TEST_F(AgentsServiceName, ThatIsNoneIsNotAskedFor) {
  EXPECT_EQ(of("no service name"), "");
  EXPECT_THAT(asked(), IsEmpty());
}

// The controller knows the names of its own domain.
TEST_F(AgentsServiceName, IsTheControllersWhereTheCatalogueIsAway) {
  const testsupport::LogCapture log;
  for (const auto kind : {Failure::Kind::Gone, Failure::Kind::Unreachable, Failure::Kind::Server}) {
    m_directory.failSearch({kind, 53, "not now"}, -1, Servers::Catalogue);
    m_directory.failOpen({Failure::Kind::Unreachable, -1, ""}, -1, Servers::Catalogue);
    EXPECT_EQ(of(PROXY), PROXY_CANONICAL);
    EXPECT_EQ(of(FAR_AWAY), "");
    EXPECT_THAT(asked(), Contains("corp.test"));
    EXPECT_EQ(of(PROXY), PROXY_CANONICAL);
    EXPECT_THAT(asked(), IsEmpty()) << "remembered like any other";
    m_directory.clearFailures();
    m_clock.advance(lumo::SpnMemory::LIFE);
    EXPECT_EQ(of(FAR_AWAY), std::string(FAR_AWAY) + "@SUB.CORP.TEST");
    m_clock.advance(lumo::SpnMemory::LIFE);
  }
  EXPECT_THAT(log.text(), HasSubstr("The catalogue cannot be asked for the service name HTTP/proxy1.CORP.test, asking "
                                    "the domain 'corp.test': "));
}

// A directory that cannot be asked gives an empty name, and is not asked again at each hand-out of a connection.
TEST_F(AgentsServiceName, IsNoneWhereNobodyCanBeAsked) {
  const testsupport::LogCapture log;
  m_directory.failSearch({Failure::Kind::Server, 53, "not\nnow"});
  for (int i = 0; i < 3; ++i) EXPECT_EQ(of(PROXY), "");
  EXPECT_THAT(asked(), ElementsAre("catalogue", "corp.test"));
  EXPECT_THAT(log.texts(), Contains(HasSubstr("WARN base.directory: The service name HTTP/proxy1.CORP.test cannot be "
                                              "looked up: ")));
  m_directory.clearFailures();
  m_clock.advance(lumo::SpnMemory::MISS_LIFE);
  EXPECT_EQ(of(PROXY), PROXY_CANONICAL);
}

TEST_F(AgentsServiceName, IsNoneWhereTheMachineHasNoTicket) {
  m_directory.failSearch({Failure::Kind::Gone, -1, ""}, 2);
  m_agent.credentials().machineCacheName.clear();
  EXPECT_EQ(of(PROXY), "");
}

TEST_F(AgentsServiceName, IsAskedForOnceByAnyNumberOfThreads) {
  testsupport::HeldDirectory held(m_directory);
  m_directory.failSearch({Failure::Kind::Gone, -1, ""}, 1, Servers::Catalogue);  // the next connection is a held one
  const testsupport::DirectoryInForce inForce(held);
  held.hold();
  std::vector<std::future<std::string>> names;
  for (int i = 0; i < 4; ++i) {
    names.push_back(std::async(std::launch::async, [&] { return of(PROXY); }));
  }
  EXPECT_TRUE(held.awaitQuestion());
  m_directory.forgetQuestions();
  held.letGo();
  for (auto& name : names) EXPECT_EQ(name.get(), PROXY_CANONICAL);
  EXPECT_THAT(asked(), ElementsAre("catalogue"));
}

}  // namespace
