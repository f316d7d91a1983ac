// What a large forest costs.
#include <ctime>

#include "cloud/route/tests/cloudconnectorlocator_forest.h"

namespace {

using locatortest::bothServices;
using locatortest::connectorObject;

// A controller for as many computers as are asked for.
class EndlessDirectory : public DirectoryConnector {
 public:
  std::size_t searches = 0;
  std::size_t computers = 0;

  std::unique_ptr<DirectoryConnection> open(const Target&) override { return std::make_unique<Connection>(*this); }
  std::string site(const std::string&) override { return "Berlin"; }

 private:
  class Connection : public DirectoryConnection {
   public:
    explicit Connection(EndlessDirectory& directory) : m_directory(directory) {}
    std::vector<ADObjectPtr> search(const DirectorySearch& what) override {
      ++m_directory.searches;
      std::vector<ADObjectPtr> found;
      const std::string before = std::string("(") + AD_CN + "=";
      for (std::size_t at = 0; (at = what.filter.find(before, at)) != std::string::npos;) {
        at += before.size();
        const std::string name = what.filter.substr(at, what.filter.find(')', at) - at);
        const std::string dn = locatortest::computerDn(name);
        found.push_back(boost::make_shared<lumo::ADObject>(dn));
        found.back()->set(AD_DN, {dn});
        found.back()->set(AD_DNS_NAME, {name + ".forest.test"});
      }
      m_directory.computers += found.size();
      return found;
    }
    ADObjectPtr rootDse() override { return boost::make_shared<lumo::ADObject>(""); }

   private:
    EndlessDirectory& m_directory;
  };
};

enum class Urls { One, OneEach };

class ConnectorCost : public testing::Test {
 protected:
  testsupport::FakeCredentialSource credentials;
  EndlessDirectory directory;
  testsupport::DirectoryInForce inForce{directory};
  locatortest::AgentInForce agent;

  // Processor seconds for so many connectors.
  double seconds(std::size_t count, Urls urls) {
    const auto found = boost::make_shared<ADObjectList>();
    for (std::size_t i = 0; i < count; ++i) {
      const std::string number = std::to_string(count) + "x" + std::to_string(i) + "r" + std::to_string(m_round);
      const std::string url = urls == Urls::One ? "https://pod.test/" : "https://pod" + number + ".test/";
      found->push_back(connectorObject("conn" + number, bothServices(url)));
    }
    ++m_round;
    CloudConnectorLocatorAccess locator;
    locator.zoneCloudUrl = "https://pod.test/";
    const std::clock_t start = std::clock();
    locator.processList(found);
    const std::clock_t end = std::clock();
    EXPECT_EQ(locator.connectors.size(), count);
    EXPECT_EQ(locator.cloudUrls.size(), urls == Urls::One ? 1 : count);
    EXPECT_EQ(locator.currentSiteTryList.size(), urls == Urls::One ? count : 0);
    EXPECT_EQ(locator.currentSiteUnusedList.size(), urls == Urls::One ? 0 : count);
    return static_cast<double>(end - start) / CLOCKS_PER_SEC;
  }

  // Eight times the connectors; sixty-four times the work would be a loop in a loop. The processor's time is measured,
  // which other processes disturb less than the clock's, and of five tries one counts.
  bool growsWithTheNumber(Urls urls) {
    for (int tries = 0; tries < 5; ++tries) {
      const double few = seconds(1000, urls);
      if (seconds(8000, urls) < 24 * few) return true;
    }
    return false;
  }

 private:
  int m_round = 0;
};

TEST_F(ConnectorCost, QuestionsAreAFewForManyConnectors) {
  const std::size_t before = directory.searches;
  seconds(2500, Urls::One);
  EXPECT_EQ(directory.computers, 2500u);
  EXPECT_EQ(directory.searches - before, 2500u / ADCacheBinding::PREFETCH_BATCH);
}

TEST_F(ConnectorCost, GrowsWithTheConnectors) { EXPECT_TRUE(growsWithTheNumber(Urls::One)); }

TEST_F(ConnectorCost, GrowsWithTheUrls) { EXPECT_TRUE(growsWithTheNumber(Urls::OneEach)); }

}  // namespace
