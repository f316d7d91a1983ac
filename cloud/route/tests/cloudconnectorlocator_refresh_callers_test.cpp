// Who asks for a refresh, and when it comes.
#include <functional>
#include <future>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/route/tests/cloudconnectorlocator_waiting.h"

namespace {

using locatortest::Setting;
using locatortest::Texts;
using testing::IsEmpty;

using Kind = testsupport::MemoryDirectory::Failure::Kind;

constexpr char POD[] = "https://pod.example.test/";

// The process's locator over an empty forest, a main queue and a clock that stands still.
class Refresh : public testing::Test {
 protected:
  Refresh() { CloudConnectorLocatorAccess::resetProcess(); }
  ~Refresh() override {
    lumo::RunQueue::shutdownAll();
    CloudConnectorLocatorAccess::resetProcess();
  }

  Texts logged() { return log.newTexts(LOCATOR_LOGGER); }
  // The one refresh that waits is due in so many seconds.
  bool waits(long seconds) { return clock.awaitWaiting(clock.seconds() + seconds); }

  testsupport::ManualClock clock;
  const SettingsScope zone{{lumo::PN::ZONE_HIERARCHICAL, "true"}, {lumo::PN::ZONE_CLOUDURL, ""}};
  testsupport::FakeCredentialSource credentials;
  testsupport::MemoryDirectory directory{"forest.test"};
  testsupport::DirectoryInForce inForce{directory};
  testsupport::LogCapture log;
  locatortest::AgentInForce agent;
  CloudCurlPoolAccess pool;
  boost::shared_ptr<lumo::RunQueue> queue = lumo::RunQueue::getRunQueue(lumo::MAIN_RUN_QUEUE, true, 1);
};

TEST_F(Refresh, TakesIdleConnectionsAwayWhereItSucceeds) {
  pool.pool.releaseCurl(pool.pool.getCurl("user", "program"));
  directory.failSearch({Kind::Server, 50, "Insufficient access"}, 1);
  EXPECT_FALSE(RefreshCloudConnectorsInfo());
  EXPECT_EQ(pool.connections.size(), 1u);
  EXPECT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_THAT(pool.connections, IsEmpty());
}

TEST_F(Refresh, ComesAgainByItsInterval) {
  for (const auto& [text, seconds] :
       {std::pair{"", 8L * 3600}, {"soon", 8L * 3600}, {"-1", 8L * 3600}, {"2", 7200L}, {"90m", 5400L}, {"30s", 30L}}) {
    const Setting interval(lumo::PN::CLOUD_CONNECTOR_REFRESH_INTERVAL, text);
    UpdateCloudConnectors();
    EXPECT_TRUE(waits(seconds)) << text;
  }
}

// An item of the queue that holds its end up.
class Holder : public lumo::QueueAble {
 public:
  explicit Holder(std::function<void()> body) : m_body(std::move(body)) {}
  void run() override { m_body(); }

 private:
  std::function<void()> m_body;
};

TEST_F(Refresh, IsSilentWhereTheQueueShutsDown) {
  std::promise<void> done;
  Texts said;
  queue->enqueue(boost::make_shared<Holder>([&] {
    queue->shutdown();
    SetRefresh(60);
    UpdateCloudConnectors();
    said = logged();
    done.set_value();
  }));
  done.get_future().wait();
  for (const auto& record : said) EXPECT_EQ(record.find("ERROR"), std::string::npos) << record;
}

struct Caller {
  const char* name;
  std::function<void(CloudConnectorLocator&, testsupport::MemoryDirectory&)> call;
  long seconds;
};

class RefreshCaller : public Refresh, public testing::WithParamInterface<Caller> {};

TEST_P(RefreshCaller, AsksForARefreshInItsTime) {
  const Setting recovery(lumo::PN::CLOUD_CONNECTOR_RECOVER_INTERVAL, "7m");
  GetParam().call(*CloudConnectorLocator::getInstance(""), directory);
  EXPECT_TRUE(waits(GetParam().seconds));
}

void search(CloudConnectorLocator& locator, const char* url) {
  try {
    locator.searchCloudConnetors(url, true);
  } catch (const lumo::CloudConnectorException&) {
  }
}

void setCurrent(CloudConnectorLocator& locator, const char* fqdn) {
  CloudConnectorLocatorAccess access(locator);
  access.currentConnector = fqdn;
  access.currentSiteTryList = {fqdn};
}

INSTANTIATE_TEST_SUITE_P(
    All, RefreshCaller,
    testing::Values(
        Caller{"ConnectionCheck",
               [](auto& locator, auto& directory) {
                 directory.failOpen({Kind::NoServers, -1, {}});
                 directory.failSearch({Kind::Gone, -1, {}});
                 try {
                   g_adAgent.load()->dcBinding()->fetch("CN=x", {});
                 } catch (const LDAPException&) {
                   // The domain's binding knows now that it is away.
                 }
                 locator.searchCloudConnetors("", true);
               },
               420},
        Caller{"SearchThatThrew",
               [](auto& locator, auto& directory) {
                 directory.failSearch({Kind::Server, 50, "Insufficient access"});
                 search(locator, "");
               },
               900},
        Caller{"NothingFoundForAUrl", [](auto& locator, auto&) { search(locator, POD); }, 900},
        Caller{"NoRecord",
               [](auto& locator, auto&) { CloudConnectorLocatorAccess(locator).fetchCloudConnectorObject("c1"); }, 900},
        Caller{"AllTried",
               [](auto& locator, auto&) {
                 CloudConnectorLocatorAccess(locator).connectors["c1"] = locatortest::connectorRecord("c1");
                 setCurrent(locator, "c1");
                 locator.discardCurrentCloudConnector();
               },
               420},
        Caller{"NoConnector", [](auto& locator, auto&) { locator.getCloudConnector(); }, 420},
        Caller{"NoConnectorForIwa",
               [](auto& locator, auto&) {
                 std::string spn;
                 locator.getIwaUrl(spn);
               },
               420}),
    [](const auto& one) { return one.param.name; });

}  // namespace
