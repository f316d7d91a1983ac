// How long a client waits while the directory hangs. Its limits pass on a clock that the directory itself moves on.
#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>

#include "cloud/tests/cloudconnectorlocator_waiting.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

// Hangs in every question and every connection to their limit once `hang` was called; the first question waits until
// it is let go.
class HangingDirectory : public DirectoryConnector {
 public:
  HangingDirectory(DirectoryConnector& inner, testsupport::ManualClock& clock) : m_inner(inner), m_clock(clock) {}

  void hang() { m_hangs = true; }
  std::promise<void> entered, letGo;

  std::unique_ptr<DirectoryConnection> open(const Target& target) override {
    if (m_hangs) m_clock.advance(ADCacheBinding::CONNECT_LIMIT);
    return std::make_unique<Connection>(*this, m_inner.open(target));
  }
  std::string site(const std::string& domain) override { return m_inner.site(domain); }

 private:
  class Connection : public DirectoryConnection {
   public:
    Connection(HangingDirectory& directory, std::unique_ptr<DirectoryConnection> inner)
        : m_directory(directory), m_inner(std::move(inner)) {}
    std::vector<ADObjectPtr> search(const DirectorySearch& what) override {
      m_directory.answer();
      return m_inner->search(what);
    }
    ADObjectPtr rootDse() override { return m_inner->rootDse(); }

   private:
    HangingDirectory& m_directory;
    const std::unique_ptr<DirectoryConnection> m_inner;
  };

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

  DirectoryConnector& m_inner;
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

}  // namespace
