#include <chrono>
#include <cstdlib>

#include "cloud/route/cloudconnectorlocator_order.h"
#include "cloud/route/tests/cloudconnectorlocator_waiting.h"

namespace {

using locatortest::POD;
using locatortest::refreshIn;
using locatortest::Setting;
using locatortest::Texts;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Entries = CloudConnectorLocatorAccess::Entries;

constexpr char OTHER_POD[] = "https://other.example.test/tenant";

Entries entriesOf(const std::string& url, const Texts& fqdns) {
  Entries entries;
  for (const auto& fqdn : fqdns) entries.emplace_back(url, fqdn);
  return entries;
}

Texts numbered(const std::string& name, int count) {
  Texts fqdns;
  for (int i = 0; i < count; ++i) fqdns.push_back(name + std::to_string(i));
  return fqdns;
}

// The order that the draws give: each takes one out of those that are left.
Texts drawn(Texts from) {
  Texts order;
  while (!from.empty()) {
    const auto at = from.begin() + static_cast<std::ptrdiff_t>(static_cast<std::size_t>(std::rand()) % from.size());
    order.push_back(*at);
    from.erase(at);
  }
  return order;
}

class ConnectorLists : public locatortest::WaitingLocatorTest {};

struct Draw {
  unsigned seed;
  int near, far;
};

class DrawnOrder : public ConnectorLists, public testing::WithParamInterface<Draw> {};

TEST_P(DrawnOrder, IsThatOfOneDrawForEachConnectorOfTheSiteAndThenOfTheOthers) {
  const Draw draw = GetParam();
  const Texts near = numbered("near", draw.near), far = numbered("far", draw.far);
  for (const auto& fqdn : near) know(fqdn);
  for (const auto& fqdn : far) know(fqdn);
  std::srand(draw.seed);
  const Texts expectedNear = drawn(near), expectedFar = drawn(far);
  const int next = std::rand();

  std::srand(draw.seed);
  locator.inserIntoTryList(entriesOf(POD, near), entriesOf(POD, far));
  EXPECT_EQ(locator.currentSiteTryList, expectedNear);
  EXPECT_EQ(locator.otherSiteTryList, expectedFar);
  EXPECT_EQ(std::rand(), next) << "as many draws as connectors";

  std::srand(draw.seed);
  locator.inserIntoUnusedList(entriesOf(OTHER_POD, near), entriesOf(OTHER_POD, far));
  EXPECT_EQ(locator.currentSiteUnusedList, entriesOf(OTHER_POD, expectedNear));
  EXPECT_EQ(locator.otherSiteUnusedList, entriesOf(OTHER_POD, expectedFar));
  EXPECT_EQ(std::rand(), next);
}

INSTANTIATE_TEST_SUITE_P(Sizes, DrawnOrder,
                         testing::Values(Draw{1, 0, 0}, Draw{2, 1, 0}, Draw{3, 2, 1}, Draw{4, 3, 5}, Draw{5, 8, 7},
                                         Draw{6, 16, 9}, Draw{7, 100, 33}, Draw{8, 257, 64}));

TEST_F(ConnectorLists, AConnectorThatCannotServeThisHostIsDiscarded) {
  know("near1");
  know("near2", locatortest::NO_IWA);
  know("far1", locatortest::NO_IWA);
  locator.inserIntoTryList(entriesOf(POD, {"near2"}), entriesOf(POD, {"far1"}));
  locator.inserIntoTryList(entriesOf(POD, {"near1"}), {});
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("near1"));
  EXPECT_THAT(locator.otherSiteTryList, IsEmpty());
  EXPECT_THAT(locator.discardedList, ElementsAre("near2", "far1"));
}

TEST_F(ConnectorLists, TellsOnWhichListEachConnectorGoes) {
  know("near1");
  know("near2", locatortest::NO_IWA);
  know("far1");
  know("far2", locatortest::NO_IWA);
  // One at a time: no order to be drawn.
  locator.inserIntoTryList(entriesOf(POD, {"near1"}), entriesOf(POD, {"far1"}));
  locator.inserIntoTryList(entriesOf(POD, {"near2"}), entriesOf(POD, {"far2"}));
  EXPECT_THAT(
      loggedWith("insertIntoTryList"),
      ElementsAre("DEBUG insertIntoTryList: push in FQDN near1 of cloud connector in current site",
                  "DEBUG insertIntoTryList: push in FQDN far1 of cloud connector in other sites",
                  "DEBUG insertIntoTryList: push in FQDN near2 of cloud connector in temporarily unavailable list",
                  "DEBUG insertIntoTryList: push in FQDN far2 of cloud connector in temporarily unavailable list"));
  EXPECT_EQ(locator.currentConnector, "near1");
}

TEST_F(ConnectorLists, WithoutAConnectorInTheSiteOneOfTheOthersIsUsed) {
  know("far1");
  locator.inserIntoTryList({}, entriesOf(POD, {"far1"}));
  EXPECT_EQ(locator.currentConnector, "far1");
  EXPECT_EQ(logged().back(), "DEBUG insertIntoTryList: no cloud connectors in current site. Use one in other sites.");
}

TEST_F(ConnectorLists, WithoutAnyConnectorTheOneInUseStays) {
  locator.currentConnector = "before";
  locator.inserIntoTryList({}, {});
  EXPECT_EQ(locator.currentConnector, "before");
  EXPECT_THAT(logged(), ElementsAre("DEBUG insertIntoTryList: no cloud connectors in current site or in other sites."));
}

TEST_F(ConnectorLists, TheOverrideStandsOnItsListOnceOnly) {
  know("near1");
  locator.overrideHost = "near1";
  locator.currentSiteTryList = {"near1"};
  locator.inserIntoTryList(entriesOf(POD, {"near1"}), entriesOf(POD, {"near1"}));
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("near1"));
  EXPECT_THAT(locator.otherSiteTryList, IsEmpty());
  EXPECT_THAT(locator.discardedList, IsEmpty());
  EXPECT_THAT(loggedWith("push in"), IsEmpty());
}

TEST_F(ConnectorLists, AConnectorWithoutARecordIsDiscardedAndARefreshComes) {
  locator.inserIntoTryList(entriesOf(POD, {"nobody"}), {});
  EXPECT_THAT(locator.discardedList, ElementsAre("nobody"));
  EXPECT_TRUE(refreshWaits(900));
}

TEST_F(ConnectorLists, TakesTheConnectorsOfOneUrlAndLeavesTheOthersInTheirOrder) {
  for (const char* fqdn : {"n1", "n2", "n3", "n4", "f1", "f2"}) know(fqdn);
  Entries current = {{OTHER_POD, "n1"}, {POD, "n2"}, {OTHER_POD, "n3"}, {POD, "n4"}};
  Entries other = {{POD, "f1"}, {OTHER_POD, "f2"}};
  std::srand(11);
  const Texts expected = drawn({"n2", "n4"});
  std::srand(11);
  locator.insertCloudConnectors(current, other, POD);
  EXPECT_EQ(current, (Entries{{OTHER_POD, "n1"}, {OTHER_POD, "n3"}}));
  EXPECT_EQ(other, (Entries{{OTHER_POD, "f2"}}));
  EXPECT_EQ(locator.currentSiteTryList, expected);
  EXPECT_THAT(locator.otherSiteTryList, ElementsAre("f1"));
  EXPECT_THAT(locator.currentSiteUnusedList, IsEmpty());
  EXPECT_EQ(locator.currentConnector, expected.front());
}

TEST_F(ConnectorLists, ConnectorsOfAnotherUrlAreKeptUnused) {
  Entries current = {{OTHER_POD, "n1"}}, other = {{OTHER_POD, "f1"}};
  locator.insertCloudConnectors(current, other, OTHER_POD);
  EXPECT_THAT(current, IsEmpty());
  EXPECT_THAT(other, IsEmpty());
  EXPECT_THAT(locator.currentSiteUnusedList, ElementsAre(Pair(OTHER_POD, "n1")));
  EXPECT_THAT(locator.otherSiteUnusedList, ElementsAre(Pair(OTHER_POD, "f1")));
  EXPECT_EQ(locator.currentConnector, "");
  EXPECT_THAT(logged(), ElementsAre("DEBUG inserIntoUnusedList: push in host DC FQDN(n1) of cloud connector for "
                                    "cloudURL(https://other.example.test/tenant) in current site",
                                    "DEBUG inserIntoUnusedList: push in host DC FQDN(f1) of cloud connector for "
                                    "cloudURL(https://other.example.test/tenant) in other sites"));
}

struct Match {
  const char *url, *configured;
  bool warns;
};

TEST_F(ConnectorLists, WarnsOfAUrlThatIsNearlyTheConfiguredOne) {
  const Match rows[] = {
      {"https://pod.test", "https://pod.test/", true},      // a slash
      {"https://pod.test/", "https://pod.test", true},      // the other way round
      {"https://pod.test/x", "pod", true},                  // in the middle
      {"https://pod1.test/", "https://pod2.test/", false},  // of one length
      {"https://pod.test/", "https://other.test/", false},  // nothing in common
      {"https://pod.test/", "https://pod.test/", false},    // the same
      {"https://POD.test", "https://pod.test/", false},     // case counts
      {"https://pod.test/", "", true},                      // nothing is part of everything
  };
  for (const auto& row : rows) {
    for (const bool near : {true, false}) {
      locator.cloudUrl = row.configured;
      logged();
      const Entries entry = {{row.url, "c1"}};
      locator.inserIntoUnusedList(near ? entry : Entries{}, near ? Entries{} : entry);
      const Texts warnings = loggedWith("Morvane Connector");
      if (row.warns) {
        EXPECT_THAT(warnings,
                    ElementsAre("WARN Morvane Connector 'c1' is associated with Morvane Identity Platform specified by "
                                "URL '" +
                                std::string(row.url) + "', which is different from the URL '" + row.configured +
                                "' configured in the zone property page in Zone Console. Please verify the settings "
                                "of the Morvane Connector."));
      } else {
        EXPECT_THAT(warnings, IsEmpty()) << row.url;
      }
    }
  }
}

TEST_F(ConnectorLists, WhatIsFitAgainGoesBackToTheListOfItsSiteInTheOrderOfDiscarding) {
  know("c1", {{LUMO_CLOUD_CONNECTOR_SITE, "BERLIN"}});
  know("c2", locatortest::NO_IWA);
  know("c3", {{LUMO_CLOUD_CONNECTOR_SITE, "Hamburg"}});
  know("c4");
  locator.currentSiteTryList = {"before"};
  locator.discardedList = {"c4", "c2", "c3", "c1", "unknown"};
  locator.rebuildTryList();
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("before", "c4", "c1"));
  EXPECT_THAT(locator.otherSiteTryList, ElementsAre("c3"));
  EXPECT_THAT(locator.discardedList, ElementsAre("c2", "unknown"));
  EXPECT_EQ(locator.currentConnector, "");
  EXPECT_THAT(logged(),
              ElementsAre("DEBUG rebuildTryList: insert c4 into site try list",
                          "DEBUG Cloud connector 'c2' is unavailable: IWA is required, but IWA is not configured "
                          "correctly. sevices = 1",
                          "DEBUG rebuildTryList: no need to insert c2 into try list",
                          "DEBUG rebuildTryList: insert c3 into other site try list",
                          "DEBUG rebuildTryList: insert c1 into site try list", refreshIn(900),
                          "DEBUG fetchCloudConnectorObject: Can't fetch cloud connector object in AD",
                          "DEBUG rebuildTryList: no need to insert unknown into try list"));
}

TEST_F(ConnectorLists, WhatStaysInUseAlthoughItIsUnfitIsDiscardedOnce) {
  know("x1", locatortest::NO_IWA);
  know("x2", locatortest::NO_IWA);
  locator.discardedList = {"x2"};
  locator.currentConnector = "x1";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(locator.locator.getCloudConnector(), "");
  EXPECT_THAT(locator.discardedList, ElementsAre("x2", "x1"));
  EXPECT_EQ(locator.currentConnector, "x1");
}

TEST_F(ConnectorLists, RebuildingAsksNobodyForTheSite) {
  know("c1");
  locator.discardedList = {"c1"};
  directory.setSite("Hamburg");
  clock.advance(ADAgent::SITE_LIFE + std::chrono::minutes(1));
  locator.rebuildTryList();
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("c1"));
  EXPECT_EQ(ADAgent::GetADAgent(false, true)->siteName(), "Hamburg");
}

TEST_F(ConnectorLists, TheRecoveryIntervalIsInMinutesUnlessTheSettingSaysOtherwise) {
  EXPECT_EQ(CloudConnectorLocatorAccess::getRecoverInterval(), 60);
  const struct {
    const char* text;
    long seconds;
  } rows[] = {{"5", 300}, {"90s", 90}, {"2h", 7200}, {"0", 1}, {"soon", 60}, {"99999999999", 2147483647}};
  for (const auto& row : rows) {
    const Setting setting(lumo::PN::CLOUD_CONNECTOR_RECOVER_INTERVAL, row.text);
    EXPECT_EQ(CloudConnectorLocatorAccess::getRecoverInterval(), row.seconds) << row.text;
  }
}

// An element that counts how often one of its kind is moved.
struct Counted {
  static std::size_t moves;
  Counted() = default;
  Counted(Counted&&) noexcept { ++moves; }
  Counted& operator=(Counted&&) noexcept {
    ++moves;
    return *this;
  }
};
std::size_t Counted::moves = 0;

// Taking each draw out of the middle of a vector would move 2,500,000,000 times.
TEST(ManyConnectors, AreMovedOnceEachToBeOrdered) {
  constexpr std::size_t MANY = 100000;
  RandomOrder<Counted> order{std::vector<Counted>(MANY)};
  Counted::moves = 0;
  std::size_t drawn = 0;
  for (; !order.empty(); ++drawn) order.next();
  EXPECT_EQ(drawn, MANY);
  EXPECT_EQ(Counted::moves, MANY);
}

}  // namespace
