// The search for connectors while the directory breaks: what still works, what is said, how long it takes, and that it
// comes back by itself.
#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <future>
#include <optional>

#include "cloud/rest/tests/cloudconnectorlocator_lab.h"
#include "testsupport/manual_clock.h"

using std::chrono::seconds;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using namespace labtest;

namespace {

using Duration = std::chrono::steady_clock::duration;

Duration timeOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::steady_clock::now() - start;
}

const std::string REFRESH =
    "DEBUG Refresh cloud connector information for cloudurl '" + lab("PLATFORM_URL") + "' with IWA enabled";
const std::string TO_CONTROLLER = "DEBUG Failed to search cloud connectors in GC, trying DC";
const std::string DONE = "DEBUG Refresh cloud connectors info done";

Texts foundBy(const Texts& road) {
  Texts whole = {REFRESH};
  whole.insert(whole.end(), road.begin(), road.end());
  whole.insert(whole.end(),
               {"DEBUG Using cloud URL: " + lab("PLATFORM_URL"), "DEBUG Update cloud connectors kset file.", DONE});
  return whole;
}

Texts failedWhole() {
  return {REFRESH, TO_CONTROLLER, "DEBUG SetRefresh: refresh task is scheduled to execute in 900 seconds",
          "DEBUG Failed to search cloud connectors in AD",
          "ERROR Fail to refresh Morvane Connector information: Failed to search Morvane Connectors in AD"};
}

Texts unhealthy(int retrySeconds) {
  return {REFRESH, "DEBUG Connection healthy check failed.",
          "DEBUG SetRefresh: refresh task is scheduled to execute in " + std::to_string(retrySeconds) + " seconds",
          DONE};
}

class ConnectorFaultLab : public ConnectorLab {
 protected:
  // No thread lives on when a test's clock goes.
  ~ConnectorFaultLab() override {
    mend();
    endProcess();
  }

  // All lists and the one in use, as text.
  static std::string knowledge() { return locator().dump(); }
  void expectConnectors() {
    const CloudConnectorLocatorAccess state(locator());
    EXPECT_THAT(state.currentSiteTryList, UnorderedElementsAre(connector1, connector2));
    EXPECT_THAT(state.otherSiteTryList, ElementsAre(branch1));
    EXPECT_EQ(std::to_string(state.connectors.size() + 2), lab("CONNECTOR_COUNT"));
  }
  // Stands still.
  std::optional<testsupport::ManualClock> clock;

  // The connections of both bindings are gone; the next search opens them anew.
  void breakConnections() {
    stop({"gc", "ldap"});
    mend();
  }
};

}  // namespace

TEST_F(ConnectorFaultLab, ControllerAnswersWhereTheCatalogueIsStopped) {
  stop({"gc"});
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_EQ(loggedRoad(), foundBy({TO_CONTROLLER}));
  expectConnectors();
  mend();
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_THAT(textsWith(logged(), {"in GC"}), ElementsAre(TO_CONTROLLER)) << "it is asked again only after a pause";
}

TEST_F(ConnectorFaultLab, CatalogueAnswersWhereTheControllersDirectoryIsStopped) {
  stop({"ldap"});
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_EQ(loggedRoad(), foundBy({}));
  expectConnectors();
}

TEST_F(ConnectorFaultLab, KnowledgeStaysWhileAllIsStoppedAndTheQueueLooksAgain) {
  const testsupport::Setting recover(lumo::PN::CLOUD_CONNECTOR_RECOVER_INTERVAL, "7s");
  endProcess();
  clock.emplace();
  startProcess();
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const std::string before = knowledge();
  logged();
  stop({"gc", "ldap"});
  EXPECT_FALSE(RefreshCloudConnectorsInfo());
  EXPECT_THAT(loggedRoad(), failedWhole());
  EXPECT_EQ(knowledge(), before);
  logged();
  EXPECT_TRUE(clock->awaitWaiting(clock->seconds() + 900)) << "the queue's thread waits for the next search";
  try {
    locator().searchCloudConnetors(lab("OTHER_URL"), true);
    EXPECT_THAT(logged(), ElementsAre("DEBUG Connection healthy check failed.",
                                      "DEBUG SetRefresh: refresh task is scheduled to execute in 7 seconds"));
  } catch (const LUMOException& failure) {
    ADD_FAILURE() << failure.what();
  }
  EXPECT_EQ(knowledge(), before) << "not even the zone's URL";
  logged();
  EXPECT_TRUE(clock->awaitWaiting(clock->seconds() + 7)) << "the earlier search counts";

  clock->advance(seconds(7));
  EXPECT_TRUE(clock->awaitWaiting(clock->seconds() + 7)) << "still nobody there";
  EXPECT_EQ(logged(), unhealthy(7));
  mend();
  locator().resetState();
  clock->advance(seconds(7));
  EXPECT_TRUE(clock->awaitWaiting(clock->seconds() + 8 * 3600));
  EXPECT_EQ(loggedRoad(), foundBy({}));
  expectConnectors();
}

TEST_F(ConnectorFaultLab, FailedSearchOfBothIsAnExceptionForItsCaller) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  stop({"gc", "ldap"});
  try {
    locator().searchCloudConnetors(lab("PLATFORM_URL"), true);
    FAIL();
  } catch (const lumo::CloudConnectorException& failure) {
    EXPECT_EQ(std::string(failure.what()), "Failed to search Morvane Connectors in AD");
    EXPECT_EQ(failure.rc(), -1);
  }
  expectConnectors();
}

TEST_F(ConnectorFaultLab, SilentCatalogueIsGivenUpForTheController) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  logged();
  stop({"gc"}, "hang");
  const auto silent = timeOf([] { EXPECT_TRUE(RefreshCloudConnectorsInfo()); });
  EXPECT_EQ(loggedRoad(), foundBy({TO_CONTROLLER}));
  EXPECT_LT(silent, seconds(30)) << "one page's time and what a new connection may take";
  expectConnectors();
  const auto known = timeOf([] { EXPECT_TRUE(RefreshCloudConnectorsInfo()); });
  EXPECT_LT(known, seconds(10)) << "nobody waits for what is known to be silent";
  expectConnectors();
}

TEST_F(ConnectorFaultLab, SilentControllerKeepsNobodyWaitingLongerThanItsLimit) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const std::string before = knowledge();
  logged();
  stop({"gc", "ldap"}, "hang");
  Duration waited{};
  auto client = std::async(std::launch::async, [&] {
    // A client that asks while the search holds the lock.
    comesTrue([&] { return log.text().find("Refresh cloud connector information") != std::string::npos; }, seconds(60));
    waited = timeOf([] { EXPECT_NE(locator().getCloudConnector(), ""); });
  });
  const auto silent = timeOf([] { EXPECT_FALSE(RefreshCloudConnectorsInfo()); });
  client.get();
  EXPECT_THAT(textsWith(loggedRoad(), {"getCloudConnector:"}, false), failedWhole());
  EXPECT_LT(silent, 2 * ADCacheBinding::SEARCH_LIMIT);
  EXPECT_LT(silent, seconds(60)) << "two searches of a page, two connections";
  // It begins later than the search, and ends a moment after it: it is woken by its end, and then looks and logs.
  EXPECT_LT(waited, silent + seconds(10));
  const auto known = timeOf([] { EXPECT_TRUE(RefreshCloudConnectorsInfo()); });
  EXPECT_LT(known, seconds(10)) << "nobody waits for what is known to be silent";
  EXPECT_THAT(logged(), unhealthy(60));
  EXPECT_EQ(knowledge(), before);
  RecordProperty("silent_ms", static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(silent).count()));
}

TEST_F(ConnectorFaultLab, ProcessThatStartsAtASilentControllerFindsItsConnectorsLater) {
  endProcess();
  stop({"gc", "ldap"}, "hang");
  const auto start = timeOf([] { startProcess(); });
  EXPECT_LT(start, seconds(30)) << "a step of the sign-in at each of the two, and the question for the site";
  logged();
  const auto search = timeOf([] { EXPECT_TRUE(RefreshCloudConnectorsInfo()); });
  EXPECT_LT(search, seconds(30));
  EXPECT_EQ(logged(), unhealthy(60));
  EXPECT_EQ(CloudConnectorLocatorAccess(locator()).connectors.size(), 0U);
  mend();
  const auto found = [] {
    RefreshCloudConnectorsInfo();
    return !CloudConnectorLocatorAccess(locator()).connectors.empty();
  };
  EXPECT_TRUE(comesTrue(found, 2 * ADCacheBinding::RETRY_PAUSE));
  expectConnectors();
}

TEST_F(ConnectorFaultLab, SecondControllerTakesOverFromTheFirst) {
  endProcess();
  change({"add-second-dc", "after"}, {"del-second-dc"});
  startProcess();
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  logged();
  stop({"gc", "ldap"});
  locator().resetState();
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_EQ(loggedRoad(), foundBy({})) << "its catalogue answers";
  expectConnectors();
}

TEST_F(ConnectorFaultLab, FirstControllerTakesOverFromTheSecond) {
  endProcess();
  change({"add-second-dc", "before"}, {"del-second-dc"});
  startProcess();
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  logged();
  stop({"dc2"});
  locator().resetState();
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_EQ(loggedRoad(), foundBy({}));
  expectConnectors();
}

TEST_F(ConnectorFaultLab, NewPasswordOfTheMachineIsTakenFromTheKeytab) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  control({"rotate-machine-password"});
  control({"expire-machine-ticket"});
  breakConnections();
  logged();
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_EQ(loggedRoad(), foundBy({}));
  expectConnectors();
}

TEST_F(ConnectorFaultLab, EndedTicketOfTheMachineIsRenewed) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  for (const char* remaining : {"0", "60"}) {
    control({"expire-machine-ticket", remaining});
    breakConnections();
    logged();
    ASSERT_TRUE(RefreshCloudConnectorsInfo()) << remaining;
    EXPECT_EQ(loggedRoad(), foundBy({})) << remaining;
    expectConnectors();
  }
}
