// The zone of this host, as far as the platform is concerned.
#pragma once

#include <string>

namespace lumo {

// Reads the settings at each call. Any thread. Throws what lumo::Props throws.
class ZoneHierarchy {
 public:
  // The process's own, never null.
  static ZoneHierarchy* GetZoneHierarchy();
  // `ferrod.zone.hierarchical`: true for a zone whose platform is chosen on its property page, false for a legacy zone.
  bool hierarchicalZone() const;
  // The platform URL configured for the zone: `ferrod.zone.cloudurl` of a hierarchical zone,
  // `ferrod.legacyzone.mfa.cloudurl` of a legacy zone; may be empty.
  std::string getCloudUrl() const;
};

}  // namespace lumo
