#include "cloud/include/cloudconnectorlocator.h"

#include "basalt/ad_agent.h"
#include "cloud/route/cloudconnectorlocator_record.h"

void CloudConnectorLocatorDeleter::operator()(const CloudConnectorLocator* locator) const { delete locator; }

CloudConnectorLocatorOwner& theLocator(const LocatorLock&) {
  // Made when it is first needed, so that it goes before the mutex and the keyword map, which its end still needs.
  // Loggers outlive all of them.
  static CloudConnectorLocatorOwner owner;
  return owner;
}

CloudConnectorLocator* CloudConnectorLocator::getInstance(const std::string& cloudUrl) {
  const LocatorLock held;
  CloudConnectorLocatorOwner& owner = theLocator(held);
  if (!owner) owner.reset(new CloudConnectorLocator(cloudUrl));
  // Anew each time: a process may end its agent and start another one.
  g_adAgent = ADAgent::GetADAgent(false, true);
  if (g_adAgent.load() == nullptr) LUMO_THROW(lumo::CloudConnectorException, -1, "Can not get ADAgent");
  return owner.get();
}

CloudConnectorLocator::CloudConnectorLocator(const std::string& cloudUrl) : m_zoneCloudUrl(cloudUrl) {
  const LocatorLock held;
  fillKeywordMap(held);
  readKset(held);
}

CloudConnectorLocator::~CloudConnectorLocator() {
  const LocatorLock held;
  g_keywordMap.clear();
}

void CloudConnectorLocator::setZoneCloudUrl(const std::string& url) {
  const LocatorLock held;
  m_zoneCloudUrl = url;
}

std::string CloudConnectorLocator::cloudUrl() const {
  const LocatorLock held;
  return m_cloudUrl;
}

std::string CloudConnectorLocator::zoneCloudUrl() const {
  const LocatorLock held;
  return m_zoneCloudUrl;
}

void CloudConnectorLocator::resetState() {
  const LocatorLock held;
  clearLists(held);
  m_invalidList.clear();
  m_connectors.clear();
  for (std::string* text : {&m_currentConnector, &m_connectorPort, &m_connectorFqdn, &m_tenantId, &m_site,
                            &m_iwaHostname, &m_iwaHttpsPort}) {
    text->clear();
  }
}
