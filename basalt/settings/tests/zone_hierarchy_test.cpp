#include "basalt/settings/zone_hierarchy.h"

#include <gtest/gtest.h>

#include "base/include/parameter_names.h"
#include "base/include/properties.h"

namespace {

using lumo::ZoneHierarchy;

class Zone : public testing::Test {
 protected:
  ~Zone() override {
    for (const char* key : {lumo::PN::ZONE_HIERARCHICAL, lumo::PN::ZONE_CLOUDURL, lumo::PN::LEGACYZONE_CLOUDURL}) {
      m_settings.eraseProperty(key);
    }
  }
  lumo::Properties& m_settings = lumo::Props(false, true);
  ZoneHierarchy* const m_zone = ZoneHierarchy::GetZoneHierarchy();
};

TEST_F(Zone, IsALegacyOneWithoutAPlatformWhereNothingIsSaid) {
  ASSERT_NE(m_zone, nullptr);
  EXPECT_FALSE(m_zone->hierarchicalZone());
  EXPECT_EQ(m_zone->getCloudUrl(), "");
}

TEST_F(Zone, NamesThePlatformOfItsKind) {
  m_settings.setProperty("ferrod.zone.cloudurl", "https://zone/");
  m_settings.setProperty("ferrod.legacyzone.mfa.cloudurl", "https://legacy/");
  EXPECT_EQ(m_zone->getCloudUrl(), "https://legacy/");
  m_settings.setProperty("ferrod.zone.hierarchical", "true");
  EXPECT_TRUE(m_zone->hierarchicalZone());
  EXPECT_EQ(m_zone->getCloudUrl(), "https://zone/");
  m_settings.setProperty("ferrod.zone.hierarchical", "no");
  EXPECT_FALSE(m_zone->hierarchicalZone());
}

}  // namespace
