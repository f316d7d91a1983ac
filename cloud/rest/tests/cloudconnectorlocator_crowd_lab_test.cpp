// Thousands of connectors: they come in several pages and are all judged.
#include <gmock/gmock.h>

#include <algorithm>

#include "base/include/logger.h"
#include "base/include/properties.h"
#include "cloud/rest/tests/cloudconnectorlocator_lab.h"

using testing::Each;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using namespace labtest;

namespace {

class ConnectorCrowdLab : public ConnectorLab {
 protected:
  // A record of each keyword of each connector would tell nothing more.
  ConnectorCrowdLab() {
    lumo::Properties settings;
    settings.setProperty(lumo::PN::ROOT_LOGGER_NAME, "WARN");
    settings.setProperty(lumo::PN::LOG_FILE, log.path());
    lumo::Logger::ReconfigureLevels(settings);
  }
};

}  // namespace

TEST_F(ConnectorCrowdLab, AllAreFoundAndEachStandsInItsSite) {
  if (lab("CROWD_COUNT").empty()) GTEST_SKIP() << "runs in a lab of its own, as cloud_crowd_lab_test";
  const std::size_t crowd = std::stoul(lab("CROWD_COUNT"));
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const CloudConnectorLocatorAccess state(locator());
  EXPECT_THAT(state.currentSiteTryList, UnorderedElementsAre(connector1, connector2));
  EXPECT_THAT(state.otherSiteTryList, ElementsAre(branch1));
  EXPECT_EQ(state.connectors.size(), crowd + std::stoul(lab("CONNECTOR_COUNT")) - 2);

  // Now they are the ones to try: every third is in this host's site.
  zone.set(lab("CROWD_URL"));
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_EQ(state.currentSiteTryList.size(), crowd / 3);
  EXPECT_EQ(state.otherSiteTryList.size(), crowd - crowd / 3);
  EXPECT_THAT(state.currentSiteTryList, Each(testing::StartsWith("crowd")));
  EXPECT_EQ(state.connectors.at(hostOf("crowd0001"))->getString(LUMO_CLOUD_CONNECTOR_SITE, ""), lab("SITE_BRANCH"));
  EXPECT_EQ(state.connectors.at(hostOf("crowd2500"))->getString(LUMO_CLOUD_WEB_PROXY, ""),
            hostOf("crowd2500") + ":8080");
  EXPECT_EQ(textsWith(logged(), {"ERROR ", "FATAL "}), Texts());
  const std::string remembered = lumo::GetSetting(SETTING_CLOUD_CONNECTORS, "", true);
  EXPECT_EQ(static_cast<std::size_t>(std::count(remembered.begin(), remembered.end(), '\n')), crowd);

  // The controller alone gives the same.
  stop({"gc"});
  locator().resetState();
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  EXPECT_EQ(state.currentSiteTryList.size() + state.otherSiteTryList.size(), crowd);
}
