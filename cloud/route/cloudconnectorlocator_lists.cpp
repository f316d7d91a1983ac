#include <algorithm>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "basalt/ad_agent.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/route/cloudconnectorlocator_order.h"
#include "cloud/route/cloudconnectorlocator_record.h"

namespace {

constexpr long DEFAULT_RECOVER_MINUTES = 1;

boost::shared_ptr<lumo::Logger> logger() { return getLogger(LOCATOR_LOGGER, false); }

// Takes the entries of that URL out; both keep their order.
template <class Entries>
Entries takeOf(Entries& entries, const std::string& url) {
  const auto taken =
      std::stable_partition(entries.begin(), entries.end(), [&](const auto& entry) { return entry.first != url; });
  Entries result(std::make_move_iterator(taken), std::make_move_iterator(entries.end()));
  entries.erase(taken, entries.end());
  return result;
}

// A URL that is the configured one but for its beginning or end was probably meant to be it.
void warnOfNearMatch(const std::string& fqdn, const std::string& url, const std::string& configured) {
  if (url.size() == configured.size() || !(contains(url, configured) || contains(configured, url))) return;
  LUMO_LOG(logger(), lumo::level::Warn,
           "Morvane Connector '%s' is associated with Morvane Identity Platform specified by URL '%s', which is "
           "different from the URL '%s' configured in the zone property page in Zone Console. Please verify the "
           "settings of the Morvane Connector.",
           fqdn.c_str(), url.c_str(), configured.c_str());
}

}  // namespace

long CloudConnectorLocator::getRecoverInterval() {
  const long seconds =
      lumo::Props(false, false).getTime(lumo::PN::CLOUD_CONNECTOR_RECOVER_INTERVAL, 'm', DEFAULT_RECOVER_MINUTES);
  // With no pause at all, a directory that is away would be asked without end.
  return std::clamp(seconds, 1L, static_cast<long>(INT_MAX));
}

void CloudConnectorLocator::clearLists(const LocatorLock&) {
  m_currentSiteTryList.clear();
  m_otherSiteTryList.clear();
  m_discardedList.clear();
  m_currentSiteUnusedList.clear();
  m_otherSiteUnusedList.clear();
}

void CloudConnectorLocator::insertCloudConnectors(const LocatorLock& held, Entries& current, Entries& other,
                                                  const std::string& url) {
  Entries ofCurrent = takeOf(current, url);
  Entries ofOther = takeOf(other, url);
  if (url == m_cloudUrl) {
    inserIntoTryList(held, std::move(ofCurrent), std::move(ofOther));
  } else {
    inserIntoUnusedList(held, std::move(ofCurrent), std::move(ofOther));
  }
}

void CloudConnectorLocator::inserIntoUnusedList(const LocatorLock&, Entries current, Entries other) {
  const auto insert = [this](Entries from, Entries& to, const char* text) {
    for (RandomOrder<ConnectorEntry> order(std::move(from)); !order.empty();) {
      const auto& [url, fqdn] = to.emplace_back(order.next());
      LUMO_LOG(logger(), lumo::level::Debug, text, fqdn.c_str(), url.c_str());
      warnOfNearMatch(fqdn, url, m_cloudUrl);
    }
  };
  insert(std::move(current), m_currentSiteUnusedList,
         "inserIntoUnusedList: push in host DC FQDN(%s) of cloud connector for cloudURL(%s) in current site");
  insert(std::move(other), m_otherSiteUnusedList,
         "inserIntoUnusedList: push in host DC FQDN(%s) of cloud connector for cloudURL(%s) in other sites");
}

void CloudConnectorLocator::inserIntoTryList(const LocatorLock& held, Entries current, Entries other) {
  const auto insert = [&](Entries from, Names& to, const char* text) {
    for (RandomOrder<ConnectorEntry> order(std::move(from)); !order.empty();) {
      std::string fqdn = order.next().second;
      const ADObjectPtr connector = fetchCloudConnectorObject(held, fqdn);
      // The override stands on the list already.
      if (!m_overrideHost.empty() && m_overrideHost == fqdn) continue;
      const bool available = isAvailableConnector(connector);
      LUMO_LOG(
          logger(), lumo::level::Debug,
          available ? text : "insertIntoTryList: push in FQDN %s of cloud connector in temporarily unavailable list",
          fqdn.c_str());
      (available ? to : m_discardedList).push_back(std::move(fqdn));
    }
  };
  insert(std::move(current), m_currentSiteTryList,
         "insertIntoTryList: push in FQDN %s of cloud connector in current site");
  insert(std::move(other), m_otherSiteTryList, "insertIntoTryList: push in FQDN %s of cloud connector in other sites");
  if (!m_currentSiteTryList.empty()) {
    m_currentConnector = m_currentSiteTryList.front();
  } else if (!m_otherSiteTryList.empty()) {
    LUMO_LOG(logger(), lumo::level::Debug,
             "insertIntoTryList: no cloud connectors in current site. Use one in other sites.");
    m_currentConnector = m_otherSiteTryList.front();
  } else {
    LUMO_LOG(logger(), lumo::level::Debug, "insertIntoTryList: no cloud connectors in current site or in other sites.");
  }
}

void CloudConnectorLocator::rebuildTryList(const LocatorLock& held) {
  ADAgent* const agent = g_adAgent.load();
  // As the last search knew it: selection waits for no directory.
  const std::string ownSite = agent != nullptr ? lower(agent->lastSiteName()) : std::string();
  Names unavailable;
  for (const auto& fqdn : m_discardedList) {
    const ADObjectPtr connector = fetchCloudConnectorObject(held, fqdn);
    if (!isAvailableConnector(connector)) {
      LUMO_LOG(logger(), lumo::level::Debug, "rebuildTryList: no need to insert %s into try list", fqdn.c_str());
      unavailable.push_back(fqdn);
    } else if (lower(connector->getString(LUMO_CLOUD_CONNECTOR_SITE, "")) == ownSite) {
      m_currentSiteTryList.push_back(fqdn);
      LUMO_LOG(logger(), lumo::level::Debug, "rebuildTryList: insert %s into site try list", fqdn.c_str());
    } else {
      m_otherSiteTryList.push_back(fqdn);
      LUMO_LOG(logger(), lumo::level::Debug, "rebuildTryList: insert %s into other site try list", fqdn.c_str());
    }
  }
  m_discardedList.swap(unavailable);
}
