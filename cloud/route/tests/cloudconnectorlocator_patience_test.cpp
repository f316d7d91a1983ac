// How long a client waits while the directory hangs. Its limits pass on a clock that the directory itself moves on.
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>

#include "cloud/route/tests/cloudconnectorlocator_waiting.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

// Hangs in every question and every connection to their limit once `hang` was called; the first question waits until
// it is let go.
class HangingDirectory : public testsupport::WatchedDirectory {
 public:
  HangingDirectory(DirectoryConnector& inner, testsupport::ManualClock& clock)
      : WatchedDirectory(inner), m_clock(clock) {
    onOpen = [this](const Target&) {
      if (m_hangs) m_clock.advance(ADCacheBinding::CONNECT_LIMIT);
    };
    onSearch = [this](const Target&, const DirectorySearch&) { answer(); };
  }

  void hang() { m_hangs = true; }
  std::promise<void> entered, letGo;

 private:
  void answer() {
    if (!m_hangs) return;
    if (!m_first.test_and_set()) {
      entered.set_value();
      letGo.get_future().wait();
    }
    // Lost on its last page: worth a new connection, and the question anew.
    m_clock.advance(DIRECTORY_SEARCH_LIMIT);
    throw serverUnavailable("Can't contact LDAP server");
  }

  testsupport::ManualClock& m_clock;
  std::atomic<bool> m_hangs{false};
  std::atomic_flag m_first = ATOMIC_FLAG_INIT;
};

class HangingForest : public testing::Test {
 protected:
  testsupport::ManualClock clock;
  testsupport::FakeCredentialSource credentials;
  testsupport::MemoryDirectory directory{"forest.test"};
  HangingDirectory hanging{directory, clock};
  testsupport::DirectoryInForce inForce{hanging};
  testsupport::LogCapture log;
  locatortest::AgentInForce agent;
  CloudConnectorLocatorAccess locator;
};

TEST_F(HangingForest, ClientWaitsForTheLimitsOfCatalogueAndDomainAndNotAtAllWithinThePause) {
  locator.connectors["c1"] = locatortest::connectorRecord("c1");
  locator.currentConnector = "c1";
  hanging.hang();
  auto search = std::async(std::launch::async, [this] {
    try {
      locator.locator.searchCloudConnetors("https://pod.example.test/", true);
    } catch (const lumo::CloudConnectorException& failure) {
      return std::string(failure.what());
    }
    return std::string();
  });
  hanging.entered.get_future().wait();
  std::promise<void> asks;
  auto client = std::async(std::launch::async, [&] {
    const auto asked = clock.steadyNow();
    asks.set_value();
    const std::string connector = locator.locator.getCloudConnector();
    return std::make_pair(connector, clock.steadyNow() - asked);
  });
  asks.get_future().wait();
  hanging.letGo.set_value();
  EXPECT_EQ(search.get(), "Failed to search Morvane Connectors in AD");
  const auto [connector, waited] = client.get();
  EXPECT_EQ(connector, "c1:8080");
  EXPECT_EQ(waited, 2 * ADCacheBinding::SEARCH_LIMIT);

  // The domain failed last; the catalogue's pause is over meanwhile.
  const auto asked = clock.steadyNow();
  locator.locator.searchCloudConnetors("https://pod.example.test/", true);
  EXPECT_EQ(clock.steadyNow() - asked, steady_clock::duration::zero());
  EXPECT_EQ(locator.locator.getCloudConnector(), "c1:8080");
}

// Every answer takes so long as the test says.
class SlowForest : public locatortest::LocatorTest {
 protected:
  // So many connectors with their computers "cN.forest.test"; their keywords name "uriN".
  void process(std::size_t count) {
    const auto found = boost::make_shared<ADObjectList>();
    for (std::size_t i = 0; i < count; ++i) {
      const std::string number = std::to_string(i);
      addComputer("c" + number, "c" + number + ".forest.test");
      const std::string uri = "https://uri" + number + ":443/";
      const auto keywords = locatortest::with(locatortest::bothServices(), "morvane.mobile.proxyUri", uri.c_str());
      found->push_back(locatortest::connectorObject("c" + number, keywords));
    }
    const auto start = clock.steadyNow();
    locator.processList(found);
    taken = clock.steadyNow() - start;
  }
  std::size_t named(const std::string& beginning) const {
    return static_cast<std::size_t>(
        std::count_if(locator.connectors.begin(), locator.connectors.end(),
                      [&](const auto& one) { return one.first.compare(0, beginning.size(), beginning) == 0; }));
  }

  testsupport::ManualClock clock;
  steady_clock::duration taken{};
};

TEST_F(SlowForest, ComputersAreAskedForOneByOneForAMinuteAtTheMost) {
  unsigned questions = 0;
  watched.onSearch = [&](const DirectoryConnector::Target&, const DirectorySearch& what) {
    if (what.scope != SearchScope::Base) LUMO_THROW(lumo::BadDataException, -1, "not understood");
    ++questions;
    clock.advance(seconds(25));
  };
  process(5);
  EXPECT_EQ(questions, 3U) << "the third began at 50 seconds";
  EXPECT_EQ(taken, seconds(75));
  EXPECT_EQ(named("c"), 3U);
  EXPECT_EQ(named("uri"), 2U);
}

TEST_F(SlowForest, ComputersThatWereReadAheadAreKnownHoweverLongThatTook) {
  unsigned single = 0;
  watched.onSearch = [&](const DirectoryConnector::Target&, const DirectorySearch& what) {
    if (what.scope == SearchScope::Base) ++single;
    clock.advance(seconds(61));
  };
  process(ADCacheBinding::PREFETCH_BATCH + 5);
  EXPECT_EQ(single, 0U);
  EXPECT_EQ(taken, seconds(122)) << "a question to the catalogue, and one to the controller";
  EXPECT_EQ(named("c"), ADCacheBinding::PREFETCH_BATCH);
  EXPECT_EQ(named("uri"), 5U);
}

// Each pass has its own minute.
TEST_F(SlowForest, TheNextSearchAsksAgain) {
  unsigned questions = 0;
  watched.onSearch = [&](const DirectoryConnector::Target&, const DirectorySearch& what) {
    if (what.scope != SearchScope::Base) LUMO_THROW(lumo::BadDataException, -1, "not understood");
    ++questions;
    clock.advance(seconds(61));
  };
  process(2);
  process(2);
  EXPECT_EQ(questions, 2U);
  EXPECT_EQ(named("c"), 2U) << "the first one's computer is remembered";
}

}  // namespace
