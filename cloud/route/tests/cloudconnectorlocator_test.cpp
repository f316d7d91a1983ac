#include "cloud/include/cloudconnectorlocator.h"

#include <atomic>
#include <cstdlib>
#include <thread>

#include "cloud/route/tests/cloudconnectorlocator_waiting.h"
#include "testsupport/failure_of.h"

namespace {

using locatortest::Texts;
using testing::IsEmpty;
using testing::SizeIs;

// The process-wide instance, made anew for each test.
class OneLocator : public testing::Test {
 protected:
  OneLocator() { CloudConnectorLocatorAccess::resetProcess(); }
  ~OneLocator() override { CloudConnectorLocatorAccess::resetProcess(); }

  testsupport::FakeCredentialSource credentials;
  testsupport::MemoryDirectory directory{"forest.test"};
  testsupport::DirectoryInForce inForce{directory};
  testsupport::LogCapture log;
};

std::string refusal() {
  return testsupport::failureOf([] { CloudConnectorLocator::getInstance("https://late.test/"); });
}

TEST_F(OneLocator, IsRefusedWithoutAnAgentButMadeWithTheFirstUrl) {
  EXPECT_EQ(refusal(), "CloudConnectorException -1 Can not get ADAgent");
  const locatortest::AgentInForce agent;
  g_adAgent = nullptr;
  CloudConnectorLocatorAccess one(*CloudConnectorLocator::getInstance("https://second.test/"));
  EXPECT_EQ(one.zoneCloudUrl, "https://late.test/");
  EXPECT_EQ(g_adAgent.load(), ADAgent::GetADAgent(false, true));
}

TEST_F(OneLocator, FollowsTheAgentOfTheProcess) {
  ADAgent::Options options;
  options.domain = "forest.test";
  ADAgent::start(options);
  CloudConnectorLocator::getInstance("https://zone.test/");
  ADAgent::stop();
  EXPECT_EQ(refusal(), "CloudConnectorException -1 Can not get ADAgent");
  EXPECT_EQ(GetSPNFromIwaURL("https://c1.forest.test:8443/"), "");
  EXPECT_THAT(log.texts(),
              testing::Contains("DEBUG base.cloudconnector.locator: GetSPNFromIwaURL failed: can't retrieve adagent"));
  ADAgent::start(options);
  CloudConnectorLocator::getInstance("https://zone.test/");
  EXPECT_EQ(g_adAgent.load(), ADAgent::GetADAgent(false, true));
  ADAgent::stop();
}

TEST_F(OneLocator, IsTheSameForAllAndKnowsTheZonesUrlFromTheFirstCall) {
  const locatortest::AgentInForce agent;
  CloudConnectorLocator* const first = CloudConnectorLocator::getInstance("https://zone.test/");
  EXPECT_EQ(CloudConnectorLocator::getInstance("https://another.test/"), first);
  CloudConnectorLocatorAccess one(*first);
  EXPECT_EQ(one.zoneCloudUrl, "https://zone.test/");
  first->setZoneCloudUrl("https://moved.test/");
  EXPECT_EQ(one.zoneCloudUrl, "https://moved.test/");
  one.cloudUrl = "https://pod.test/";
  EXPECT_EQ(first->cloudUrl(), "https://pod.test/");
  EXPECT_THAT(directory.searches(), IsEmpty());
}

TEST_F(OneLocator, RequiresIwaUntilASearchKnowsBetterAndFillsTheKeywordsWhileItLives) {
  {
    CloudConnectorLocatorAccess locator("https://zone.test/");
    EXPECT_TRUE(locator.iwaRequired);
    EXPECT_THAT(g_keywordMap, SizeIs(13));
    EXPECT_THAT(locator.currentSiteTryList, IsEmpty());
  }
  EXPECT_THAT(g_keywordMap, IsEmpty());
}

TEST_F(OneLocator, ForgetsConnectorsAndListsAndKeepsUrlsAndOverride) {
  CloudConnectorLocatorAccess locator("https://zone.test/");
  locator.cloudUrl = "https://pod.test/";
  locator.cloudUrls = {"https://pod.test/"};
  locator.overrideHost = "override.test";
  locator.iwaRequired = false;
  for (auto* list : {&locator.currentSiteTryList, &locator.otherSiteTryList, &locator.discardedList}) *list = {"c1"};
  for (auto* list : {&locator.currentSiteUnusedList, &locator.otherSiteUnusedList, &locator.invalidList}) {
    *list = {{"https://pod.test/", "c1"}};
  }
  locator.connectors["c1"] = locatortest::connectorRecord("c1");
  for (auto* text : {&locator.currentConnector, &locator.connectorPort, &locator.connectorFqdn, &locator.tenantId,
                     &locator.site, &locator.iwaHostname, &locator.iwaHttpsPort}) {
    *text = "before";
  }
  locator.locator.resetState();
  for (auto* list : {&locator.currentSiteTryList, &locator.otherSiteTryList, &locator.discardedList}) {
    EXPECT_THAT(*list, IsEmpty());
  }
  for (auto* list : {&locator.currentSiteUnusedList, &locator.otherSiteUnusedList, &locator.invalidList}) {
    EXPECT_THAT(*list, IsEmpty());
  }
  EXPECT_THAT(locator.connectors, IsEmpty());
  for (auto* text : {&locator.currentConnector, &locator.connectorPort, &locator.connectorFqdn, &locator.tenantId,
                     &locator.site, &locator.iwaHostname, &locator.iwaHttpsPort}) {
    EXPECT_EQ(*text, "");
  }
  EXPECT_EQ(locator.cloudUrl, "https://pod.test/");
  EXPECT_EQ(locator.zoneCloudUrl, "https://zone.test/");
  EXPECT_EQ(locator.overrideHost, "override.test");
  EXPECT_EQ(locator.cloudUrls, (Texts{"https://pod.test/"}));
  EXPECT_FALSE(locator.iwaRequired);
}

TEST_F(OneLocator, GoesInGoodOrderWhenTheProcessEnds) {
  EXPECT_EXIT(
      {
        const locatortest::AgentInForce agent;
        CloudConnectorLocator::getInstance("https://zone.test/")->getCloudConnector();
        std::exit(7);  // NOLINT(concurrency-mt-unsafe)
      },
      testing::ExitedWithCode(7), "");
}

TEST_F(OneLocator, ServesManyThreads) {
  const locatortest::AgentInForce agent;
  CloudConnectorLocator* const one = CloudConnectorLocator::getInstance("");
  CloudConnectorLocatorAccess access(*one);
  // One connector: its discarding needs no state file.
  access.connectors["c1"] = locatortest::connectorRecord("c1");
  access.currentConnector = "c1";
  std::vector<std::thread> threads;
  threads.reserve(4);
  std::atomic<int> handedOut{0};
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        std::string spn;
        if (CloudConnectorLocator::getInstance("")->getCloudConnector() == "c1:8080") ++handedOut;
        one->getIwaUrl(spn);
        one->discardCurrentCloudConnector();
        std::vector<CloudConnectorInfo> infos;
        one->getConnectors("", infos);
        one->dump();
        one->setZoneCloudUrl("https://zone.test/");
        one->cloudUrl();
        access.rebuildTryList();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(handedOut, 200);
}

}  // namespace
