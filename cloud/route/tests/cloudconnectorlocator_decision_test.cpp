#include "cloud/route/tests/cloudconnectorlocator_forest.h"

namespace {

using locatortest::Setting;
using locatortest::Texts;

constexpr char ZONE_URL[] = "https://zone.example.test/";
constexpr char POD1[] = "https://pod1.example.test/";
constexpr char POD2[] = "https://pod2.example.test/";

using ConnectorDecision = locatortest::LocatorTest;

struct Row {
  const char *hierarchical, *zoneUrl;
  Texts urls;
  const char* chosen;
  const char* text;
};

const Row ROWS[] = {
    {"true",
     ZONE_URL,
     {},
     ZONE_URL,
     "FATAL Failed to choose a Morvane Connector for Morvane Identity Platform connectivity. Morvane agent cannot find "
     "any valid connectors in the forest. Please check if Morvane Connectors are configured properly and running in a "
     "normal state."},
    {"true", ZONE_URL, {ZONE_URL}, ZONE_URL, nullptr},
    {"true", ZONE_URL, {POD1, ZONE_URL, POD2}, ZONE_URL, nullptr},
    {"true",
     ZONE_URL,
     {POD1},
     ZONE_URL,
     "FATAL Failed to choose a Morvane Connector for Morvane Identity Platform connectivity. Morvane agent found "
     "connectors serving 1 platform instances in the forest. But none of these instances match the platform instance "
     "on the Platform tab of the zone property page in Zone Console. You may encounter this issue if you re-registered "
     "the Morvane Connectors recently. Please try to select a platform instance again and restart Morvane agent."},
    {"true", "", {}, "", "DEBUG Can not locate any cloud connectors and keyword 'cloudurl' in zone property is empty."},
    {"true",
     "",
     {POD1},
     POD1,
     "DEBUG Keyword 'cloudurl' in zone property is empty. Using cloudURL = https://pod1.example.test/ for it's the "
     "only "
     "cloudURL for all cloud connectors."},
    {"true",
     "",
     {POD1, POD2},
     "",
     "FATAL Failed to choose a Morvane Connector for Morvane Identity Platform connectivity. Morvane agent found (2) "
     "connectors serving different platform instances in the forest. Please specify which platform instance Morvane "
     "agent should connect to by selecting a platform instance on the Platform tab of the zone property page in Zone "
     "Console."},
    {"false",
     "",
     {},
     "",
     "DEBUG Can not locate any cloud connectors. Please specify cloud URL in ferrod.legacyzone.mfa.cloudurl property."},
    {"false",
     "",
     {POD1},
     POD1,
     "DEBUG Using cloudURL = https://pod1.example.test/ for it's the only cloudURL for all cloud connectors."},
    {"false",
     "",
     {POD1, POD2},
     "",
     "FATAL Failed to choose a Morvane Connector for Morvane Identity Platform connectivity. Morvane agent found (2) "
     "connectors serving different platform instances in the forest. Please specify the platform URL in "
     "ferrod.legacyzone.mfa.cloudurl property."},
    {"false",
     ZONE_URL,
     {},
     ZONE_URL,
     "FATAL Failed to set Morvane Identity Platform instance URL to https://zone.example.test/. Morvane agent could "
     "not find any valid Morvane Connectors in the forest. Please check if connectors are configured properly and "
     "running in a normal state."},
    {"false", ZONE_URL, {ZONE_URL, POD1}, ZONE_URL, "DEBUG Using cloud URL: https://zone.example.test/"},
    {"false",
     ZONE_URL,
     {POD1, POD2},
     ZONE_URL,
     "FATAL Failed to set the URL to https://zone.example.test/ for Morvane Identity Platform connectivity. Morvane "
     "agent found connectors serving 2 platform instances in the forest. But none of these instances match the Morvane "
     "Identify Platform specified in parameter ferrod.legacyzone.mfa.cloudurl."},
};

TEST_F(ConnectorDecision, FollowsTheZoneAndTheUrlsOfTheConnectors) {
  for (const Row& row : ROWS) {
    const Setting zone(lumo::PN::ZONE_HIERARCHICAL, row.hierarchical);
    locator.zoneCloudUrl = row.zoneUrl;
    locator.cloudUrl = "https://former.example.test/";
    locator.cloudUrls = row.urls;
    locator.decideCloudUrl();
    EXPECT_EQ(locator.cloudUrl, row.chosen);
    EXPECT_EQ(logged(), row.text == nullptr ? Texts() : Texts{row.text});
    EXPECT_EQ(locator.zoneCloudUrl, row.zoneUrl);
    EXPECT_EQ(locator.cloudUrls, row.urls);
  }
}

TEST_F(ConnectorDecision, AZoneThatSaysNothingIsALegacyZone) {
  locator.decideCloudUrl();
  EXPECT_EQ(logged(), Texts{"DEBUG Can not locate any cloud connectors. Please specify cloud URL in "
                            "ferrod.legacyzone.mfa.cloudurl property."});
}

TEST_F(ConnectorDecision, UrlsAreComparedExactly) {
  locator.zoneCloudUrl = "https://pod1.example.test";
  locator.cloudUrls = {POD1, "HTTPS://POD1.EXAMPLE.TEST"};
  locator.decideCloudUrl();
  EXPECT_EQ(loggedWith("none of these instances match").size(), 1u);
}

TEST_F(ConnectorDecision, AUrlIsNoFormat) {
  locator.zoneCloudUrl = "https://%d%s%n/";
  locator.cloudUrls = {POD1, POD2};
  locator.decideCloudUrl();
  EXPECT_EQ(loggedWith("Failed to set the URL to https://%d%s%n/ for Morvane Identity Platform connectivity. Morvane "
                       "agent found connectors serving 2 platform")
                .size(),
            1u);
}

}  // namespace
