// What waits for nobody while the directory takes its time.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "testsupport/agent_in_force.h"
#include "testsupport/held_directory.h"
#include "testsupport/manual_clock.h"
#include "testsupport/memory_directory.h"

namespace {

using std::chrono::seconds;
using testsupport::HeldDirectory;
using testsupport::MemoryDirectory;

class AgentThatWaits : public testing::Test {
 protected:
  static MemoryDirectory& filled(MemoryDirectory& directory) {
    directory.add("CN=h1,DC=corp,DC=test", {{AD_CN, {"h1"}}});
    directory.setSite("Paris");
    return directory;
  }
  // Whether the result was there while the directory gave no answer, which ends now.
  template <class Result>
  bool isThere(const std::future<Result>& result) {
    const bool there = result.wait_for(seconds(20)) == std::future_status::ready;
    m_held.letGo();
    return there;
  }

  testsupport::ManualClock m_clock;
  MemoryDirectory m_directory{"corp.test"};
  testsupport::AgentInForce m_agent{filled(m_directory)};
  HeldDirectory m_held{m_directory};
  const testsupport::DirectoryInForce m_inForce{m_held};
};

TEST_F(AgentThatWaits, TellsTheLastSiteWhileItAsksForTheNext) {
  ASSERT_EQ(m_agent->siteName(), "Paris");
  m_directory.setSite("London");
  m_clock.advance(ADAgent::SITE_LIFE);
  m_held.hold();
  auto next = std::async(std::launch::async, [&] { return m_agent->siteName(); });
  EXPECT_TRUE(m_held.awaitQuestion());
  auto last = std::async(std::launch::async, [&] { return m_agent->lastSiteName(); });
  EXPECT_TRUE(isThere(last));
  EXPECT_EQ(last.get(), "Paris");
  EXPECT_EQ(next.get(), "London");
  EXPECT_EQ(m_agent->lastSiteName(), "London");
}

TEST_F(AgentThatWaits, AnswersFromMemoryWhileItAsksForSomethingElse) {
  ADCacheBinding binding({"corp.test", true, "", "", ""}, [] { return "FILE:/agent"; });
  const auto ask = [&](const char* filter) {
    return binding.search(filter, "", nullptr, 2, 0, CACHE_READ | CACHE_STORE | CACHE_MISSES, false, false)->size();
  };
  ASSERT_EQ(ask("(cn=h1)"), 1U);
  m_held.hold();
  auto other = std::async(std::launch::async, [&] { return ask("(cn=h2)"); });
  EXPECT_TRUE(m_held.awaitQuestion());
  auto known = std::async(std::launch::async, [&] { return ask("(cn=h1)"); });
  EXPECT_TRUE(isThere(known));
  EXPECT_EQ(known.get(), 1U);
  EXPECT_EQ(other.get(), 0U);
}

// Whoever asks for a name that is known goes on while somebody else waits for the directory.
TEST_F(AgentThatWaits, TellsAKnownServiceNameWhileItAsksForAnother) {
  m_directory.add("CN=p1,DC=corp,DC=test", {{"servicePrincipalName", {"HTTP/p1.corp.test"}}});
  ASSERT_EQ(m_agent->canonicalServiceName("HTTP/p1.corp.test"), "HTTP/p1.corp.test@CORP.TEST");
  m_held.hold();
  ADCacheBinding* const binding = m_agent->dcBinding();
  auto other = std::async(std::launch::async, [&] { return binding->search({}).size(); });
  auto known = std::async(std::launch::async, [&] { return m_agent->canonicalServiceName("HTTP/p1.corp.test"); });
  EXPECT_TRUE(isThere(known));
  EXPECT_EQ(known.get(), "HTTP/p1.corp.test@CORP.TEST");
  other.get();
}

}  // namespace
