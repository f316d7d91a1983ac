// Refreshes: what one does, when the next one comes, and which of two that wait stays.
#include "cloud/route/cloudconnectorlocator_refresh.h"

#include <climits>
#include <ctime>
#include <functional>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

#include "cloud/route/tests/cloudconnectorlocator_waiting.h"

namespace {

using locatortest::refreshIn;
using locatortest::Setting;
using locatortest::Texts;
using lumo::CloudConnectorsRefresh;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char URL[] = "https://zone.example.test/";
constexpr char NONE_FOUND[] = "DEBUG Failed to search cloud connectors in GC or DC";
constexpr char SUSPENDED[] =
    "WARN Background task of refreshing Morvane Connectors has been suspended due to the interval being set to 0.";
constexpr int EIGHT_HOURS = 8 * 3600;

std::string refreshing(const char* url, const char* iwa) {
  return VS("DEBUG Refresh cloud connector information for cloudurl '%s' with IWA %s", url, iwa);
}

// A forest without connectors, so that no search has anything to remember.
class ConnectorRefresh : public locatortest::WaitingLocatorTest {
 protected:
  ConnectorRefresh() {
    CloudConnectorLocatorAccess::resetProcess();
    CloudConnectorLocator::getInstance("");
    logged();
  }
  ~ConnectorRefresh() override {
    lumo::RunQueue::shutdownAll();
    CloudConnectorLocatorAccess::resetProcess();
  }
  bool nothingWaits() { return clock.awaitWaiting(std::numeric_limits<std::time_t>::max()); }
};

TEST(ConnectorRefreshItem, IsOneOfItsKindAndTheEarlierOneStays) {
  CloudConnectorsRefresh item(1000);
  EXPECT_EQ(item.getID(), "CloudConnectorsRefresh");
  EXPECT_TRUE(item.dedupMe());
  EXPECT_EQ(item.getTimeout(), 1000);
  EXPECT_FALSE(item.keepQueuedItem(999));
  EXPECT_FALSE(item.keepQueuedItem(1000));
  EXPECT_TRUE(item.keepQueuedItem(1001));
  item.setTimeout(5);
  item.updateTimeout();
  EXPECT_EQ(item.getTimeout(), 1000);
  EXPECT_FALSE(item.periodic());
  EXPECT_EQ(item.getRandomDelay(), 0);
  EXPECT_EQ(item.getLoggingThreadName(), "");
  item.setLoggingThreadName("refresh");
  EXPECT_EQ(item.getLoggingThreadName(), "refresh");
}

TEST_F(ConnectorRefresh, IsQueuedAndToldInTheLog) {
  SetRefresh(900);
  EXPECT_TRUE(refreshWaits(900));
  EXPECT_THAT(logged(), ElementsAre(refreshIn(900)));
}

TEST_F(ConnectorRefresh, TheEarliestStays) {
  SetRefresh(EIGHT_HOURS);
  EXPECT_TRUE(refreshWaits(EIGHT_HOURS));
  SetRefresh(900);
  EXPECT_TRUE(refreshWaits(900));
  SetRefresh(EIGHT_HOURS);
  SetRefresh(901);
  EXPECT_TRUE(refreshWaits(900));
}

TEST_F(ConnectorRefresh, WithoutAQueueThereIsNone) {
  queue->shutdown();
  SetRefresh(900);
  EXPECT_THAT(logged(), IsEmpty());
  UpdateCloudConnectors();
  EXPECT_THAT(logged(), ElementsAre(refreshing("", "enabled"), NONE_FOUND, "DEBUG Refresh cloud connectors info done"));
}

TEST_F(ConnectorRefresh, SearchesForTheZonesPlatformAndWhatTheRestVersionNeeds) {
  const struct {
    const char *version, *iwa;
  } rows[] = {{"0", "disabled"}, {"1.0", "disabled"}, {"", "enabled"}, {"1.1", "enabled"}, {"2.0", "enabled"}};
  CloudConnectorLocatorAccess one(*CloudConnectorLocator::getInstance(""));
  const Setting zone(lumo::PN::LEGACYZONE_CLOUDURL, URL);
  for (const auto& row : rows) {
    const Setting version(lumo::PN::CLOUD_REST_VERSION, row.version);
    EXPECT_TRUE(RefreshCloudConnectorsInfo());
    EXPECT_THAT(logged(), ElementsAre(refreshing(URL, row.iwa), refreshIn(900), NONE_FOUND,
                                      "DEBUG Refresh cloud connectors info done"));
    EXPECT_EQ(one.iwaRequired, std::string(row.iwa) == "enabled") << row.version;
  }
}

TEST_F(ConnectorRefresh, ReapsTheIdleConnectionsOfThePool) {
  log.newTexts("cloud.object");
  EXPECT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_THAT(log.newTexts("cloud.object"), Contains("DEBUG Free CURL connections now."));
}

TEST_F(ConnectorRefresh, ThatFailsSaysWhyAndTheNextOneIsQueued) {
  directory.failSearch({testsupport::MemoryDirectory::Failure::Kind::Server, 50, "Insufficient access"});
  log.newTexts("cloud.object");
  EXPECT_FALSE(RefreshCloudConnectorsInfo());
  EXPECT_EQ(logged().back(),
            "ERROR Fail to refresh Morvane Connector information: Failed to search Morvane Connectors in GC due to "
            "LDAP exception");
  EXPECT_THAT(log.newTexts("cloud.object"), IsEmpty());
  UpdateCloudConnectors();
  EXPECT_TRUE(refreshWaits(900));
}

TEST_F(ConnectorRefresh, WithoutAnAgentFails) {
  g_adAgent = nullptr;
  ADAgent::stop();
  EXPECT_FALSE(RefreshCloudConnectorsInfo());
  EXPECT_EQ(logged().back(), "ERROR Fail to refresh Morvane Connector information: Can not get ADAgent");
}

TEST_F(ConnectorRefresh, AForeignExceptionPasses) {
  watched.onSearch = [](const DirectoryConnector::Target&, const DirectorySearch&) {
    throw std::runtime_error("of another tree");
  };
  EXPECT_THROW(RefreshCloudConnectorsInfo(), std::runtime_error);
}

TEST_F(ConnectorRefresh, TheNextOneIsQueuedAlsoWhereAForeignExceptionPasses) {
  watched.onSearch = [](const DirectoryConnector::Target&, const DirectorySearch&) { throw std::bad_alloc(); };
  EXPECT_THROW(UpdateCloudConnectors(), std::bad_alloc);
  EXPECT_TRUE(refreshWaits(EIGHT_HOURS));
}

// Waits in the refresh's place, and fails where another one comes.
class Obstacle : public lumo::QueueAble {
 public:
  explicit Obstacle(std::function<void()> failure) : m_failure(std::move(failure)) {}
  void run() override {}
  bool dedupMe() const override { return true; }
  std::string getID() const override { return CloudConnectorsRefresh::ID; }
  long getTimeout() const override { return std::numeric_limits<long>::max(); }
  bool keepQueuedItem(long) const override {
    m_failure();
    return true;
  }

 private:
  std::function<void()> m_failure;
};

TEST_F(ConnectorRefresh, ThatCannotBeQueuedIsToldAndFailsNobody) {
  queue->enqueue(boost::make_shared<Obstacle>([] { throw std::runtime_error("no room"); }));
  SetRefresh(900);
  UpdateCloudConnectors();
  EXPECT_THAT(logged(),
              ElementsAre(refreshIn(900), "ERROR SetRefresh failed: no room", refreshing("", "enabled"), NONE_FOUND,
                          "DEBUG Refresh cloud connectors info done", "ERROR UpdateCloudConnectors failed: no room"));
}

TEST_F(ConnectorRefresh, ThatMeetsTheEndOfItsQueueIsGivenUpWithoutAWord) {
  queue->enqueue(
      boost::make_shared<Obstacle>([] { LUMO_THROW(lumo::EndOfFileException, -1, "The queue is shutting down."); }));
  SetRefresh(900);
  UpdateCloudConnectors();
  EXPECT_THAT(logged(), ElementsAre(refreshIn(900), refreshing("", "enabled"), NONE_FOUND,
                                    "DEBUG Refresh cloud connectors info done"));
}

TEST_F(ConnectorRefresh, TheNextOneComesAfterTheInterval) {
  UpdateCloudConnectors();
  EXPECT_TRUE(refreshWaits(EIGHT_HOURS));
  EXPECT_THAT(loggedWith("SetRefresh"), IsEmpty());
  const Setting interval(lumo::PN::CLOUD_CONNECTOR_REFRESH_INTERVAL, "2");
  UpdateCloudConnectors();
  EXPECT_TRUE(refreshWaits(2 * 3600));
}

TEST_F(ConnectorRefresh, OnItsQueueSearchesAndQueuesTheNext) {
  UpdateCloudConnectors();
  ASSERT_TRUE(refreshWaits(EIGHT_HOURS));
  logged();
  clock.advance(std::chrono::seconds(EIGHT_HOURS));
  EXPECT_TRUE(refreshWaits(EIGHT_HOURS));
  EXPECT_THAT(logged(), ElementsAre(refreshing("", "enabled"), NONE_FOUND, "DEBUG Refresh cloud connectors info done"));
}

TEST_F(ConnectorRefresh, WithAnIntervalOfNoneComesAfterAFailureAlone) {
  const Setting interval(lumo::PN::CLOUD_CONNECTOR_REFRESH_INTERVAL, "0");
  UpdateCloudConnectors();
  EXPECT_EQ(logged().back(), SUSPENDED);
  EXPECT_TRUE(nothingWaits());
  {
    const Setting zone(lumo::PN::LEGACYZONE_CLOUDURL, URL);
    UpdateCloudConnectors();
  }
  EXPECT_THAT(logged(), ElementsAre(refreshing(URL, "enabled"), refreshIn(900), NONE_FOUND,
                                    "DEBUG Refresh cloud connectors info done", SUSPENDED));
  ASSERT_TRUE(refreshWaits(900));
  clock.advance(std::chrono::seconds(900));
  EXPECT_TRUE(nothingWaits());
  EXPECT_THAT(logged(), ElementsAre(refreshing("", "enabled"), NONE_FOUND, "DEBUG Refresh cloud connectors info done",
                                    SUSPENDED));
}

TEST_F(ConnectorRefresh, AnIntervalWithoutEndIsNoSearchWithoutEnd) {
  const Setting interval(lumo::PN::CLOUD_CONNECTOR_REFRESH_INTERVAL, "9223372036854775807s");
  UpdateCloudConnectors();
  EXPECT_TRUE(refreshWaits(INT_MAX));
}

}  // namespace
