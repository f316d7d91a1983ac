#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <unordered_map>
#include <vector>

#include "basalt/ad_agent.h"
#include "basalt/directory/computer_object.h"
#include "basalt/process/clock.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/route/cloudconnectorlocator_record.h"

namespace {

constexpr char CONNECTOR_FILTER[] = "(&(objectclass=serviceConnectionPoint)(cn=proxy))";
constexpr int SUBTREE = 2;
constexpr int SEARCH_CACHE_OPS = CACHE_READ | CACHE_STORE | CACHE_MISSES | CACHE_RENEW;
// Until the next search after one that failed.
constexpr unsigned RETRY_SECONDS = 900;
// For the computers of the connectors, read ahead or one by one; the locator's lock is held meanwhile. The question at
// hand may take its own time beyond.
constexpr std::chrono::seconds COMPUTERS_LIMIT{60};

boost::shared_ptr<lumo::Logger> logger() { return getLogger(LOCATOR_LOGGER, false); }

boost::shared_ptr<ADObjectList> searchConnectors(ADCacheBinding& binding, const char* const* attributes) {
  return binding.search(CONNECTOR_FILTER, "", attributes, SUBTREE, 0, SEARCH_CACHE_OPS, false, false);
}

boost::shared_ptr<ADObjectList> searchForest(ADAgent& agent, const char* const* attributes) {
  try {
    return searchConnectors(*agent.gcBinding(), attributes);
  } catch (const LDAPException& failure) {
    if (!LDAPBinding::isServerUnavailableException(failure)) {
      SetRefresh(RETRY_SECONDS);
      LUMO_LOG(logger(), lumo::level::Debug, "Failed to search cloud connectors in GC due to LDAP exception");
      LUMO_THROW(lumo::CloudConnectorException, -1, "Failed to search Morvane Connectors in GC due to LDAP exception");
    }
  } catch (const LUMOException&) {
    SetRefresh(RETRY_SECONDS);
    LUMO_LOG(logger(), lumo::level::Debug, "Failed to search cloud connectors in GC");
    LUMO_THROW(lumo::CloudConnectorException, -1, "Failed to search Morvane Connectors in GC");
  }
  LUMO_LOG(logger(), lumo::level::Debug, "Failed to search cloud connectors in GC, trying DC");
  try {
    return searchConnectors(*agent.dcBinding(), attributes);
  } catch (const LUMOException&) {
    SetRefresh(RETRY_SECONDS);
    LUMO_LOG(logger(), lumo::level::Debug, "Failed to search cloud connectors in AD");
    LUMO_THROW(lumo::CloudConnectorException, -1, "Failed to search Morvane Connectors in AD");
  }
}

// The computer objects above the connectors come with a few questions, not with one for each connector.
void readComputersAhead(ADAgent& agent, const ADObjectList& connectors) {
  std::vector<std::string> computers;
  for (const auto& connector : connectors) {
    if (!lumo::ADObject::isValid(connector)) continue;
    std::string parent = LDAPBinding::parent(connector->getString(AD_DN, ""));
    if (!parent.empty()) computers.push_back(std::move(parent));
  }
  if (computers.empty()) return;
  try {
    agent.prefetch(computers, lumo::ComputerObjectHelper::getAttributes());
  } catch (const LUMOException& failure) {
    LUMO_LOG(logger(), lumo::level::Debug, "Failed to read the computers of %zu cloud connectors ahead: %s",
             computers.size(), failure.what());
  }
}

// The name of an address, empty when it has none. The resolver may ask DNS while the locator's lock is held: only the
// timeout and the attempts of resolv.conf bound that wait.
std::string hostNameOf(const in_addr& host) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr = host;
  char name[NI_MAXHOST];
  const int result = getnameinfo(reinterpret_cast<const sockaddr*>(&address), sizeof address, name, sizeof name,
                                 nullptr, 0, NI_NAMEREQD);
  return result == 0 ? name : std::string();
}

}  // namespace

// The connectors of one answer by platform URL, so that no step looks through all of them for each URL.
struct CloudConnectorLocator::SortedConnectors {
  struct Group {
    Entries currentSite, otherSites;
  };
  std::string site;  // of this host, lower case
  std::unordered_map<std::string, Group> byUrl;
};

const char* const* CloudConnectorLocator::getSearchAttributes() {
  static constexpr const char* ATTRIBUTES[] = {AD_OBJECT_CATEGORY, AD_OBJECT_CLASS, AD_USN_CHANGED, AD_CN, AD_DN,
                                               AD_KEYWORDS,        nullptr};
  return ATTRIBUTES;
}

void CloudConnectorLocator::searchCloudConnetors(const std::string& cloudUrl, bool iwaRequired) {
  const LocatorLock held;
  m_iwaRequired = iwaRequired;
  ADAgent* const agent = g_adAgent.load();
  if (agent == nullptr || !agent->isConnected() || agent->dcBinding() == nullptr || !agent->dcBinding()->isHealthy()) {
    LUMO_LOG(logger(), lumo::level::Debug, "Connection healthy check failed.");
    SetRefresh(static_cast<unsigned>(getRecoverInterval()));
    return;
  }
  const auto found = searchForest(*agent, getSearchAttributes());
  if (!found || found->empty()) {
    if (!cloudUrl.empty()) SetRefresh(RETRY_SECONDS);
    LUMO_LOG(logger(), lumo::level::Debug, "Failed to search cloud connectors in GC or DC");
    return;
  }
  m_zoneCloudUrl = cloudUrl;
  processList(held, found);
  if (!m_discardedList.empty() && m_currentSiteTryList.empty() && m_otherSiteTryList.empty()) {
    SetRefresh(RETRY_SECONDS);
  }
  updateKsetFile(held);
}

void CloudConnectorLocator::processList(const LocatorLock& held, const boost::shared_ptr<ADObjectList>& found) {
  ADAgent* const agent = g_adAgent.load();
  SortedConnectors sorted;
  if (agent != nullptr) sorted.site = lower(agent->siteName());
  for (const auto& url : m_cloudUrls) sorted.byUrl.try_emplace(url);
  m_invalidList.clear();
  m_connectors.clear();
  m_computersUntil = lumo::Clock::getInstance().steadyNow() + COMPUTERS_LIMIT;
  if (agent != nullptr) readComputersAhead(*agent, *found);
  for (const auto& connector : *found) sortConnector(held, connector, sorted);
  decideCloudUrl(held);
  clearLists(held);
  m_currentConnector.clear();
  tryOverrideFirst(held);
  for (const auto& url : m_cloudUrls) {
    LUMO_LOG(logger(), lumo::level::Debug, "Inserting cloud connectors for cloudurl: %s", url.c_str());
    auto& group = sorted.byUrl[url];
    insertCloudConnectors(held, group.currentSite, group.otherSites, url);
  }
}

void CloudConnectorLocator::sortConnector(const LocatorLock& held, const ADObjectPtr& connector,
                                          SortedConnectors& sorted) {
  // A copy of its own: the answer stays as the directory gave it.
  const ADObjectPtr record = connector ? connector->clone() : boost::make_shared<lumo::ADObject>();
  loadAttributes(held, record);
  const std::string fqdn = record->getString(LUMO_CLOUD_PROXY_FQDN, "");
  if (fqdn.empty()) {
    LUMO_LOG(logger(), lumo::level::Debug, "Invalid cloud connector SCP for cloudUrl: fqdn is empty");
    return;
  }
  m_connectors[fqdn] = record;
  const std::string url = record->getString(LUMO_CLOUD_URL, "");
  if (getConnectorServices(record) == 0) {
    m_invalidList.emplace_back(url, fqdn);
    LUMO_LOG(logger(), lumo::level::Debug, "Invalid cloud connector SCP for cloudUrl: %s", url.c_str());
    logUnavailableConnector(record);
    return;
  }
  const auto [group, fresh] = sorted.byUrl.try_emplace(url);
  if (fresh) m_cloudUrls.push_back(url);
  const bool near = lower(record->getString(LUMO_CLOUD_CONNECTOR_SITE, "")) == sorted.site;
  (near ? group->second.currentSite : group->second.otherSites).emplace_back(url, fqdn);
}

void CloudConnectorLocator::tryOverrideFirst(const LocatorLock&) {
  const std::string parameter = lumo::Props(false, false).getProperty(lumo::PN::CLOUD_CONNECTOR_OVERRIDE);
  if (parameter.empty()) {
    // The host of a parameter that was taken away would be kept off the lists for ever.
    m_overrideHost.clear();
    return;
  }
  std::vector<std::string> parts;
  StringSplit(':', parameter, parts);
  if (parts.size() == 2) m_connectorPort = parts[1];
  const std::string& host = parts[0];
  if (host.empty()) return;
  in_addr address{};
  if (inet_aton(host.c_str(), &address) == 0) {
    m_overrideHost = host;
  } else if (const std::string name = hostNameOf(address); !name.empty()) {
    m_overrideHost = name;
  } else {
    LUMO_LOG(logger(), lumo::level::Warn, "Cannot get the host name from the address: %s will not use it",
             host.c_str());
  }
  LUMO_LOG(logger(), lumo::level::Debug, "Set cloud connectors from ferrod.cloud.connector parameter as: %s",
           m_overrideHost.c_str());
  // A host that has no name here stands on the list all the same, as it was known before or empty.
  m_currentSiteTryList.push_back(m_overrideHost);
}
