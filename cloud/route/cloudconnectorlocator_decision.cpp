#include <algorithm>

#include "basalt/settings/zone_hierarchy.h"
#include "base/include/logger.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/route/cloudconnectorlocator_record.h"

namespace {

boost::shared_ptr<lumo::Logger> logger() { return getLogger(LOCATOR_LOGGER, false); }

// How the zone's URL and those of the usable connectors stand to each other.
enum class Found { NoUrl, OneUrl, SeveralUrls, ZoneUrlToo, NotZoneUrl };
enum class Action { Keep, TakeTheOnlyOne };

// In the texts %s is the URL in question, the zone's or the only one, and %d the number of URLs.
constexpr struct Decision {
  bool hierarchicalZone;
  bool zoneHasUrl;
  Found found;
  Action action;
  int level;
  const char* text;  // null: nothing to say
} DECISIONS[] = {
    {true, true, Found::NoUrl, Action::Keep, 5,
     "Failed to choose a Morvane Connector for Morvane Identity Platform connectivity. Morvane agent cannot find any "
     "valid connectors in the forest. Please check if Morvane Connectors are configured properly and running in a "
     "normal state."},
    {true, true, Found::ZoneUrlToo, Action::Keep, 0, nullptr},
    {true, true, Found::NotZoneUrl, Action::Keep, 5,
     "Failed to choose a Morvane Connector for Morvane Identity Platform connectivity. Morvane agent found connectors "
     "serving %d platform instances in the forest. But none of these instances match the platform instance on the "
     "Platform tab of the zone property page in Zone Console. You may encounter this issue if you re-registered the "
     "Morvane Connectors recently. Please try to select a platform instance again and restart Morvane agent."},
    {true, false, Found::NoUrl, Action::Keep, 1,
     "Can not locate any cloud connectors and keyword 'cloudurl' in zone property is empty."},
    {true, false, Found::OneUrl, Action::TakeTheOnlyOne, 1,
     "Keyword 'cloudurl' in zone property is empty. Using cloudURL = %s for it's the only cloudURL for all cloud "
     "connectors."},
    {true, false, Found::SeveralUrls, Action::Keep, 5,
     "Failed to choose a Morvane Connector for Morvane Identity Platform connectivity. Morvane agent found (%d) "
     "connectors serving different platform instances in the forest. Please specify which platform instance Morvane "
     "agent should connect to by selecting a platform instance on the Platform tab of the zone property page in Zone "
     "Console."},
    {false, false, Found::NoUrl, Action::Keep, 1,
     "Can not locate any cloud connectors. Please specify cloud URL in ferrod.legacyzone.mfa.cloudurl property."},
    {false, false, Found::OneUrl, Action::TakeTheOnlyOne, 1,
     "Using cloudURL = %s for it's the only cloudURL for all cloud connectors."},
    {false, false, Found::SeveralUrls, Action::Keep, 5,
     "Failed to choose a Morvane Connector for Morvane Identity Platform connectivity. Morvane agent found (%d) "
     "connectors serving different platform instances in the forest. Please specify the platform URL in "
     "ferrod.legacyzone.mfa.cloudurl property."},
    {false, true, Found::NoUrl, Action::Keep, 5,
     "Failed to set Morvane Identity Platform instance URL to %s. Morvane agent could not find any valid Morvane "
     "Connectors in the forest. Please check if connectors are configured properly and running in a normal state."},
    {false, true, Found::ZoneUrlToo, Action::Keep, 1, "Using cloud URL: %s"},
    {false, true, Found::NotZoneUrl, Action::Keep, 5,
     "Failed to set the URL to %s for Morvane Identity Platform connectivity. Morvane agent found connectors serving "
     "%d platform instances in the forest. But none of these instances match the Morvane Identify Platform specified "
     "in parameter ferrod.legacyzone.mfa.cloudurl."},
};

Found compare(const std::string& zoneUrl, const std::vector<std::string>& urls) {
  if (urls.empty()) return Found::NoUrl;
  if (zoneUrl.empty()) return urls.size() == 1 ? Found::OneUrl : Found::SeveralUrls;
  return std::find(urls.begin(), urls.end(), zoneUrl) != urls.end() ? Found::ZoneUrlToo : Found::NotZoneUrl;
}

std::string fill(const std::string& text, const std::string& url, std::size_t count) {
  std::string filled;
  std::size_t from = 0;
  for (std::size_t at; (at = text.find('%', from)) != std::string::npos; from = at + 2) {
    filled += text.substr(from, at - from);
    filled += text[at + 1] == 'd' ? std::to_string(count) : url;
  }
  return filled + text.substr(from);
}

}  // namespace

void CloudConnectorLocator::decideCloudUrl(const LocatorLock&) {
  m_cloudUrl = m_zoneCloudUrl;
  const bool hierarchical = lumo::ZoneHierarchy::GetZoneHierarchy()->hierarchicalZone();
  const Found found = compare(m_zoneCloudUrl, m_cloudUrls);
  const auto* const row = std::find_if(std::begin(DECISIONS), std::end(DECISIONS), [&](const Decision& candidate) {
    return candidate.hierarchicalZone == hierarchical && candidate.zoneHasUrl == !m_zoneCloudUrl.empty() &&
           candidate.found == found;
  });
  if (row == std::end(DECISIONS)) return;
  if (row->action == Action::TakeTheOnlyOne) m_cloudUrl = m_cloudUrls.front();
  if (row->text == nullptr) return;
  LUMO_LOG(logger(), row->level, "%s", fill(row->text, m_cloudUrl, m_cloudUrls.size()).c_str());
}
