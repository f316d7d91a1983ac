// Hand-outs in a process with an agent, while the directory takes its time or is away.
#include <gmock/gmock.h>

#include <future>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "testsupport/agent_in_force.h"
#include "testsupport/held_directory.h"
#include "testsupport/log_capture.h"
#include "testsupport/manual_clock.h"

namespace {

using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testsupport::MemoryDirectory;
using Failure = MemoryDirectory::Failure;

CloudProxyInfo proxyWithBasic(const std::string& host) { return proxyInfo(host + ":8080", "basic", "alice", "secret"); }

class PoolWithAgent : public testing::Test {
 protected:
  PoolWithAgent() {
    for (const char* name : {"proxy1", "proxy2"}) {
      directory.add(std::string("CN=") + name + ",DC=corp,DC=test",
                    {{"servicePrincipalName", {std::string("HTTP/") + name + ".corp.test"}}});
    }
    access.pool.setProxy(proxyWithBasic("proxy1.corp.test"));
    directory.forgetQuestions();
  }
  ~PoolWithAgent() override { held.letGo(); }

  std::future<CurlObject*> handOut() {
    return std::async(std::launch::async, [this] { return access.pool.getCurl("alice", "login"); });
  }
  // The servers are asked by these names, in order.
  std::vector<std::string> namesAsked() const {
    std::vector<std::string> filters;
    for (const auto& search : directory.searches()) filters.push_back(search.what.filter);
    return filters;
  }

  testsupport::ManualClock clock;
  MemoryDirectory directory{"corp.test"};
  testsupport::HeldDirectory held{directory};
  testsupport::AgentInForce agent{held};
  CloudCurlPoolAccess access;
};

}  // namespace

TEST_F(PoolWithAgent, AsksTheDirectoryOnceForAllHandOuts) {
  for (int i = 0; i < 5; ++i) access.pool.getCurl("alice", "login");
  access.pool.releaseCurl(access.connections.begin()->first);
  access.pool.getCurl("bob", "login");
  EXPECT_THAT(namesAsked(), ElementsAre("(servicePrincipalName=HTTP/proxy1.corp.test)"));
}

TEST_F(PoolWithAgent, HandsOutWithoutADirectory) {
  directory.failSearch({Failure::Kind::Gone, -1, ""});
  directory.failOpen({Failure::Kind::Unreachable, -1, ""});
  for (int i = 0; i < 3; ++i) {
    const CurlObject* const curl = access.pool.getCurl("alice", "login");
    EXPECT_THAT(curl->recordedOptions(), Contains(CURLOPT_PROXY_GSS_SPN)) << "the plain name";
  }
  EXPECT_EQ(access.occupiedCount, 3U);
}

// The lock is free: everything else goes on while one hand-out waits.
TEST_F(PoolWithAgent, HoldsNobodyUpWhileItWaitsForTheDirectory) {
  CurlObject* const idle = access.pool.getCurl("alice", "login");
  access.pool.setProxy(proxyWithBasic("proxy2.corp.test"));
  held.hold();
  auto waiting = handOut();
  EXPECT_TRUE(held.awaitQuestion());
  auto others = std::async(std::launch::async, [this, idle] {
    EXPECT_EQ(access.pool.getProxy().proxyServer, "proxy2.corp.test:8080");
    EXPECT_THAT(access.pool.dump(), HasSubstr("Current occupied count: 2\n")) << "the one that waits counts";
    access.pool.releaseCurl(idle);
    access.pool.setProxy(proxyInfo("connector.corp.test:8080"));
    access.pool.releaseCurl(access.pool.getCurl("bob", "login"));
    access.pool.reapCurls();
  });
  const bool wentOn = others.wait_for(seconds(20)) == std::future_status::ready;
  EXPECT_EQ(waiting.wait_for(seconds(0)), std::future_status::timeout);
  held.letGo();
  EXPECT_TRUE(wentOn);
  EXPECT_NE(waiting.get(), nullptr);
}

// The connector of before may be the one that has just been given up.
TEST_F(PoolWithAgent, FollowsASettingThatChangesWhileItWaits) {
  const testsupport::LogCapture log;
  held.hold();
  auto waiting = handOut();
  EXPECT_TRUE(held.awaitQuestion());
  access.pool.setProxy(proxyInfo("connector.corp.test:8080"));
  held.letGo();
  const CurlObject* const curl = waiting.get();
  EXPECT_EQ(curl->recordedOptions().count(CURLOPT_PROXYAUTH), 0U) << "nothing of the first proxy is left";
  EXPECT_THAT(log.texts(),
              Contains("DEBUG cloud.object: Set CURL web proxy to: 'connector.corp.test:8080' with auth: ''."));
}

TEST_F(PoolWithAgent, TakesTheSameSettingOnceMoreForNoChange) {
  const testsupport::LogCapture log;
  held.hold();
  auto waiting = handOut();
  EXPECT_TRUE(held.awaitQuestion());
  access.pool.setProxy(access.pool.getProxy());
  held.letGo();
  waiting.get();
  const std::string text = log.text();
  const std::string line = "Set CURL web proxy to";
  EXPECT_EQ(text.find(line), text.rfind(line)) << "set up once: with negotiate each time asks the KDC";
}

TEST_F(PoolWithAgent, LosesNoConnectionThatIsTakenAwayWhileItWaits) {
  access.maxConnections = 2;
  access.occupiedTimeout = 10;
  held.hold();
  auto waiting = handOut();
  EXPECT_TRUE(held.awaitQuestion());
  clock.advance(seconds(11));
  access.pool.reapCurls();
  EXPECT_EQ(access.occupiedCount, 0U);
  EXPECT_THAT(access.taken, SizeIs(1));
  held.letGo();
  CurlObject* const curl = waiting.get();
  ASSERT_NE(curl, nullptr);
  access.pool.releaseCurl(curl);
  EXPECT_THAT(access.taken, IsEmpty());
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(PoolWithAgent, DestroysWhatIsTakenAwayAndCannotBeSetUp) {
  access.maxConnections = 2;
  access.occupiedTimeout = 10;
  held.hold();
  auto waiting = handOut();
  EXPECT_TRUE(held.awaitQuestion());
  access.pool.setProxy(proxyInfo(std::string(8000001, 'x')));  // more than libcurl takes for one text
  clock.advance(seconds(11));
  access.pool.reapCurls();
  held.letGo();
  EXPECT_THAT(failureOf([&] { waiting.get(); }), HasSubstr("CurlException"));
  EXPECT_THAT(access.taken, IsEmpty());
  EXPECT_THAT(access.connections, IsEmpty());
  EXPECT_EQ(access.occupiedCount, 0U);
}
