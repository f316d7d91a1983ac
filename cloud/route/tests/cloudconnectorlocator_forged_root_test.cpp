// A computer publishes a connector that writes lines of its own into what the next process starts with.
#include "basalt/settings/settings_store.h"
#include "base/include/parameter_names.h"
#include "cloud/route/tests/cloudconnectorlocator_waiting.h"
#include "testsupport/private_host.h"

namespace {

using locatortest::bothServices;
using locatortest::POD;
using locatortest::Setting;
using locatortest::with;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char EVIL_LINE[] = "http://evil.test/|Berlin|evil.test|TENANT|8080|80|8443\n";
constexpr char GOOD_LINE[] = "https://pod.example.test/|Berlin|good.forest.test|TENANT|8080|8081|8443\n";

class ForgedState : private testsupport::CleanPrivateHost, public locatortest::WaitingLocatorTest {
 protected:
  static std::string state() { return lumo::GetSetting(SETTING_CLOUD_CONNECTORS, "none", true); }
  static void put(const std::string& state) {
    lumo::saveSetting(SETTING_CLOUD_CONNECTORS, state, lumo::SettingAccess::Root, true, true);
  }
};

TEST_F(ForgedState, TheSearchWritesNoLineThatAConnectorMade) {
  const Setting zone(lumo::PN::LEGACYZONE_CLOUDURL, POD);
  addConnector("EVIL", with(bothServices(), "morvane.mobile.proxySite",
                            (std::string("x\n") + EVIL_LINE + "https://pod.example.test/|Berlin").c_str()));
  addConnector("GOOD", bothServices());
  locator.locator.searchCloudConnetors(POD, true);
  EXPECT_EQ(state(), GOOD_LINE);
  const CloudConnectorLocatorAccess next;
  EXPECT_EQ(next.cloudUrl, POD);
  EXPECT_EQ(next.currentConnector, "good.forest.test");
}

TEST_F(ForgedState, NeitherByTheOverrideParameter) {
  const Setting overrideHost(lumo::PN::CLOUD_CONNECTOR_OVERRIDE, "evil.forest.test");
  addConnector("EVIL", with(bothServices(), "morvane.mobile.proxySite", (std::string("x\n") + EVIL_LINE).c_str()));
  addConnector("GOOD", bothServices());
  locator.locator.searchCloudConnetors(POD, true);
  EXPECT_THAT(locator.currentSiteTryList, ElementsAre("evil.forest.test", "good.forest.test"));
  EXPECT_EQ(state(), GOOD_LINE);
  EXPECT_THAT(loggedWith("Can't write"),
              ElementsAre("DEBUG Can't write connector(evil.forest.test) of current site into kset file."));
}

TEST_F(ForgedState, OfAnEarlierProcessIsNotBelievedWhereTheZoneHasAUrl) {
  put(std::string(EVIL_LINE) + GOOD_LINE);
  for (const char* hierarchical : {"false", "true"}) {
    const Setting kind(lumo::PN::ZONE_HIERARCHICAL, hierarchical);
    const Setting zone(*hierarchical == 't' ? lumo::PN::ZONE_CLOUDURL : lumo::PN::LEGACYZONE_CLOUDURL, POD);
    // As a login asks for it that is given no URL.
    const CloudConnectorLocatorAccess next("");
    EXPECT_EQ(next.cloudUrl, POD);
    EXPECT_EQ(next.currentConnector, "good.forest.test");
  }
}

TEST_F(ForgedState, WithoutALineOfTheZoneLeavesTheLocatorEmpty) {
  const Setting zone(lumo::PN::LEGACYZONE_CLOUDURL, "https://zone.test/");
  put(std::string(EVIL_LINE) + GOOD_LINE);
  logged();
  const CloudConnectorLocatorAccess next;
  EXPECT_EQ(next.cloudUrl, "");
  EXPECT_EQ(next.currentConnector, "");
  EXPECT_THAT(next.connectors, IsEmpty());
  EXPECT_THAT(logged(), ElementsAre("DEBUG Get cloud connectors info from kset.",
                                    "DEBUG 2 remembered connectors are passed over: of another platform, or with "
                                    "values that no search keeps"));
}

}  // namespace
