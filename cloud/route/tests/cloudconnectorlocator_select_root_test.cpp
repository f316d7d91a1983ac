#include "basalt/settings/settings_store.h"
#include "cloud/route/tests/cloudconnectorlocator_waiting.h"
#include "testsupport/private_host.h"

namespace {

using locatortest::POD;
using locatortest::refreshIn;
using locatortest::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

class ConnectorSelection : public locatortest::WaitingLocatorTest {
 protected:
  ConnectorSelection() { testsupport::cleanPrivateHost(); }
  ~ConnectorSelection() override { testsupport::cleanPrivateHost(); }

  // The connectors of the state file, in its order.
  static Texts remembered() {
    Texts fqdns;
    Texts lines;
    StringSplit('\n', lumo::GetSetting(SETTING_CLOUD_CONNECTORS, "", true), lines);
    for (const auto& line : lines) {
      Texts fields;
      StringSplit('|', line, fields);
      if (fields.size() == 7) fqdns.push_back(fields[2]);
    }
    return fqdns;
  }
  void fail(const std::string& fqdn) {
    locator.connectors[fqdn] = locatortest::connectorRecord(fqdn, locatortest::NO_IWA);
  }
};

// What a discard makes of the lists, transition by transition.
struct Transition {
  const char* name;
  Texts near, far, discarded;
  const char* current;
  Texts nearAfter, farAfter, discardedAfter;
  const char* currentAfter;
  const char* text;
  bool refresh;  // else the state file is written
};

const char ALL_NEAR_TRIED[] =
    "All connectors are tried in current site try list and there's no connectors in other sites. Will search AD and "
    "re-select again next time.";
const char ALL_FAR_TRIED[] =
    "All connectors are tried in current site try list and other sites' try list. Will search AD and re-select again "
    "next time.";
const char NONE_TO_TRY[] =
    "No connectors in current site try list or other sites' try list. Will search AD and re-select again next time.";

// n1, n2, n3 and f1, f2 are fit; x1 and x2 are not.
const Transition TRANSITIONS[] = {
    {"ToTheNextOfTheSite",
     {"n1", "n2"},
     {"f1"},
     {},
     "n1",
     {"n2"},
     {"f1"},
     {"n1"},
     "n2",
     "Connector(host DC FQDN=n2) in current site will be tried.",
     false},
    {"FromTheSiteToTheOthersWhichKeepTheirFirst",
     {"n1"},
     {"f1", "f2"},
     {"x1"},
     "n1",
     {},
     {"f1", "f2"},
     {"x1", "n1"},
     "f1",
     "All connectors are tried in current site try list and connector(host DC FQDN=f1) in other sites will be tried.",
     false},
    {"ToTheNextOfTheOthers",
     {},
     {"f1", "f2"},
     {"n1"},
     "f1",
     {},
     {"f2"},
     {"n1", "f1"},
     "f2",
     "Connector(host DC FQDN=f2) in other site will be tried.",
     false},
    {"TheOnlyOneOfTheSiteComesStraightBack", {"n1"}, {}, {}, "n1", {"n1"}, {}, {}, "n1", ALL_NEAR_TRIED, true},
    {"TheLastOfTheSiteAndWhatIsStillUnfit",
     {"n2"},
     {},
     {"n1", "x1"},
     "n2",
     {"n1", "n2"},
     {},
     {"x1"},
     "n2",
     ALL_NEAR_TRIED,
     true},
    {"TheLastOfTheOthers", {}, {"f2"}, {"n1", "f1"}, "f2", {"n1"}, {"f1", "f2"}, {}, "f2", ALL_FAR_TRIED, true},
    {"NothingOnTheLists", {}, {}, {}, "", {}, {}, {}, "", NONE_TO_TRY, true},
    {"RememberedFromTheLastProcess", {}, {}, {}, "n1", {"n1"}, {}, {}, "n1", NONE_TO_TRY, true},
    {"RememberedAndUnfit", {}, {}, {}, "x1", {}, {}, {"x1"}, "x1", NONE_TO_TRY, true},
    {"WithoutAConnectorInUseTheFirstOfTheSiteGoesAllTheSame",
     {"n1", "n2"},
     {},
     {},
     "",
     {"n2"},
     {},
     {},
     "n2",
     "Connector(host DC FQDN=n2) in current site will be tried.",
     false},
    {"TheOneInUseIsNotTheFirstOfItsList",
     {"n1", "n2", "n3"},
     {},
     {},
     "n3",
     {"n2", "n3"},
     {},
     {"n3"},
     "n2",
     "Connector(host DC FQDN=n2) in current site will be tried.",
     false},
};

// What is said of the discarded ones and the one in use when all of them are looked at again.
Texts rebuilding(const Transition& row) {
  Texts names = row.discarded;
  if (*row.current != '\0') names.emplace_back(row.current);
  Texts said;
  for (const std::string& name : names) {
    if (name[0] == 'x') {
      said.push_back("DEBUG Cloud connector '" + name +
                     "' is unavailable: IWA is required, but IWA is not configured correctly. sevices = 1");
      said.push_back("DEBUG rebuildTryList: no need to insert " + name + " into try list");
    } else {
      said.push_back("DEBUG rebuildTryList: insert " + name + " into " + (name[0] == 'n' ? "site" : "other site") +
                     " try list");
    }
  }
  return said;
}

class Discarding : public ConnectorSelection, public testing::WithParamInterface<Transition> {};

TEST_P(Discarding, MovesOn) {
  const Transition& row = GetParam();
  for (const char* fqdn : {"n1", "n2", "n3"}) know(fqdn);
  for (const char* fqdn : {"f1", "f2"}) know(fqdn, {{LUMO_CLOUD_CONNECTOR_SITE, "Hamburg"}});
  for (const char* fqdn : {"x1", "x2"}) fail(fqdn);
  locator.currentSiteTryList = row.near;
  locator.otherSiteTryList = row.far;
  locator.discardedList = row.discarded;
  locator.currentConnector = row.current;
  locator.locator.discardCurrentCloudConnector();
  EXPECT_EQ(locator.currentSiteTryList, row.nearAfter);
  EXPECT_EQ(locator.otherSiteTryList, row.farAfter);
  EXPECT_EQ(locator.discardedList, row.discardedAfter);
  EXPECT_EQ(locator.currentConnector, row.currentAfter);
  const Texts said = logged();
  const std::string text = std::string("DEBUG ") + row.text;
  if (row.refresh) {
    Texts all = rebuilding(row);
    all.push_back(refreshIn(60));
    all.push_back(text);
    EXPECT_EQ(said, all);
    EXPECT_TRUE(refreshWaits(60));
    EXPECT_THAT(remembered(), IsEmpty());
  } else {
    EXPECT_THAT(said, ElementsAre(text, "DEBUG Update cloud connectors kset file."));
    Texts all = row.nearAfter;
    all.insert(all.end(), row.farAfter.begin(), row.farAfter.end());
    all.insert(all.end(), row.discardedAfter.begin(), row.discardedAfter.end());
    EXPECT_EQ(remembered(), all);
  }
}

INSTANTIATE_TEST_SUITE_P(Transitions, Discarding, testing::ValuesIn(TRANSITIONS),
                         [](const testing::TestParamInfo<Transition>& row) { return std::string(row.param.name); });

TEST_F(ConnectorSelection, ThreeOfTheSiteAreTriedInTurnAndThenComeBackWhileTheLastStaysInUse) {
  tryInSite({"p", "q", "r"});
  EXPECT_EQ(locator.locator.getCloudConnector(), "p:8080");
  locator.locator.discardCurrentCloudConnector();
  EXPECT_EQ(locator.locator.getCloudConnector(), "q:8080");
  locator.locator.discardCurrentCloudConnector();
  EXPECT_EQ(locator.locator.getCloudConnector(), "r:8080");
  EXPECT_THAT(remembered(), ElementsAre("r", "p", "q"));
  locator.locator.discardCurrentCloudConnector();
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("p", "q", "r"));
  EXPECT_THAT(locator.discardedList, IsEmpty());
  EXPECT_EQ(locator.locator.getCloudConnector(), "r:8080");
  EXPECT_THAT(remembered(), ElementsAre("r", "p", "q")) << "an exhausted list is not remembered anew";
  EXPECT_TRUE(refreshWaits(60));
}

TEST_F(ConnectorSelection, TheFirstOfTheOtherSitesStaysOnItsListUntilItFailsToo) {
  tryInSite({"n1"});
  tryElsewhere({"f1", "f2"});
  locator.locator.discardCurrentCloudConnector();
  EXPECT_EQ(locator.locator.getCloudConnector(), "f1:8080");
  EXPECT_THAT(locator.otherSiteTryList, ElementsAre("f1", "f2"));
  locator.locator.discardCurrentCloudConnector();
  EXPECT_EQ(locator.locator.getCloudConnector(), "f2:8080");
  EXPECT_THAT(locator.otherSiteTryList, ElementsAre("f2"));
}

TEST_F(ConnectorSelection, HandsOutHostAndPortOfTheRecordAndKeepsWhatItSays) {
  tryInSite({"n1"});
  know("n1", {{LUMO_CLOUD_PROXY_FQDN, "other.name"},
              {LUMO_CLOUD_CONNECTOR_PORT, "3128"},
              {LUMO_CLOUD_TENANT_ID, "T1"},
              {LUMO_CLOUD_CONNECTOR_SITE, "Bern"}});
  locator.connectorPort = "99";  // as an override leaves it
  EXPECT_EQ(locator.locator.getCloudConnector(), "other.name:3128");
  EXPECT_EQ(locator.connectorFqdn, "other.name");
  EXPECT_EQ(locator.connectorPort, "3128");
  EXPECT_EQ(locator.tenantId, "T1");
  EXPECT_EQ(locator.site, "Bern");
  EXPECT_THAT(logged(), ElementsAre("DEBUG getCloudConnector: current cloud connector host DC FQDN=n1"));
  EXPECT_THAT(remembered(), IsEmpty());
}

TEST_F(ConnectorSelection, AConnectorWithIwaAloneIsHandedOutWithWhateverPortItHas) {
  tryInSite({"n1"});
  know("n1", {{LUMO_CLOUD_WEB_PROXYENABLED, "False"}, {LUMO_CLOUD_CONNECTOR_PORT, ""}});
  EXPECT_EQ(locator.locator.getCloudConnector(), "n1:");
}

TEST_F(ConnectorSelection, AConnectorThatBecameUnfitGoesAtItsTurnAndTheNextCallGivesTheNextOne) {
  tryInSite({"n1", "n2", "n3"});
  fail("n1");
  fail("n2");
  EXPECT_EQ(locator.locator.getCloudConnector(), "");
  EXPECT_EQ(locator.currentConnector, "n2") << "one step for each call";
  EXPECT_THAT(logged(),
              ElementsAre("DEBUG getCloudConnector: current cloud connector host DC FQDN=n1",
                          "DEBUG Cloud connector 'n1' is unavailable: IWA is required, but IWA is not configured "
                          "correctly. sevices = 1",
                          "DEBUG Connector(host DC FQDN=n2) in current site will be tried.",
                          "DEBUG Update cloud connectors kset file.",
                          "DEBUG getCloudConnector: Can't get a valid cloud connector for this time"));
  EXPECT_EQ(locator.locator.getCloudConnector(), "");
  EXPECT_EQ(locator.locator.getCloudConnector(), "n3:8080");
}

TEST_F(ConnectorSelection, AConnectorWithoutARecordGoesAtItsTurnAndARefreshComes) {
  tryInSite({"n1", "n2"});
  locator.connectors.erase("n1");
  EXPECT_EQ(locator.locator.getCloudConnector(), "");
  EXPECT_EQ(locator.locator.getCloudConnector(), "n2:8080");
  EXPECT_TRUE(refreshWaits(900));
}

TEST_F(ConnectorSelection, WithoutAConnectorInUseTheListIsRebuiltAndNothingHandedOut) {
  know("n1");
  locator.discardedList = {"n1"};
  EXPECT_EQ(locator.locator.getCloudConnector(), "");
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("n1"));
  EXPECT_EQ(locator.currentConnector, "");
  EXPECT_THAT(logged(), ElementsAre("DEBUG rebuildTryList: insert n1 into site try list", refreshIn(60),
                                    "DEBUG getCloudConnector:  no valid connectors in try list"));
  EXPECT_EQ(locator.locator.getCloudConnector(), "") << "only a search or a discard names one";
  EXPECT_TRUE(refreshWaits(60));
}

TEST_F(ConnectorSelection, TheRecoveryIntervalIsTheSettingsOne) {
  const locatortest::Setting setting(lumo::PN::CLOUD_CONNECTOR_RECOVER_INTERVAL, "7");
  locator.locator.getCloudConnector();
  EXPECT_TRUE(refreshWaits(420));
}

TEST_F(ConnectorSelection, AStateFileThatCannotBeWrittenKeepsNobodyFromTheNextConnector) {
  tryInSite({"n1", "n2"});
  testsupport::mountReadOnly(lumo::path::STATE_FOLDER);
  EXPECT_NO_THROW(locator.locator.discardCurrentCloudConnector());
  EXPECT_EQ(locator.locator.getCloudConnector(), "n2:8080");
  const Texts errors = loggedWith("ERROR ");
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_THAT(errors[0], testing::StartsWith("ERROR The connectors cannot be remembered: "));
}

TEST_F(ConnectorSelection, TheNextProcessBeginsWithTheConnectorInUse) {
  tryInSite({"n1", "n2"});
  locator.locator.discardCurrentCloudConnector();
  CloudConnectorLocatorAccess next;
  EXPECT_EQ(next.currentConnector, "n2");
  EXPECT_EQ(next.cloudUrl, POD);
  EXPECT_THAT(next.currentSiteTryList, IsEmpty());
  EXPECT_THAT(next.discardedList, IsEmpty());
  EXPECT_EQ(next.locator.getCloudConnector(), "n2:8080");
}

}  // namespace
