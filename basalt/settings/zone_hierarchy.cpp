#include "basalt/settings/zone_hierarchy.h"

#include "base/include/parameter_names.h"
#include "base/include/properties.h"

namespace lumo {

ZoneHierarchy* ZoneHierarchy::GetZoneHierarchy() {
  static ZoneHierarchy only;
  return &only;
}

bool ZoneHierarchy::hierarchicalZone() const { return Props(false, false).getBool(PN::ZONE_HIERARCHICAL, false); }

std::string ZoneHierarchy::getCloudUrl() const {
  return Props(false, false).getProperty(hierarchicalZone() ? PN::ZONE_CLOUDURL : PN::LEGACYZONE_CLOUDURL);
}

}  // namespace lumo
