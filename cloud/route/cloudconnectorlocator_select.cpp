#include "base/include/logger.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/route/cloudconnectorlocator_record.h"

namespace {

boost::shared_ptr<lumo::Logger> logger() { return getLogger(LOCATOR_LOGGER, false); }

}  // namespace

std::string CloudConnectorLocator::getCloudConnector() {
  const LocatorLock held;
  if (m_currentConnector.empty()) {
    recover(held);
    LUMO_LOG(logger(), lumo::level::Debug, "getCloudConnector:  no valid connectors in try list");
    return std::string();
  }
  LUMO_LOG(logger(), lumo::level::Debug, "getCloudConnector: current cloud connector host DC FQDN=%s",
           m_currentConnector.c_str());
  const ADObjectPtr connector = fetchCloudConnectorObject(held, m_currentConnector);
  if (!isAvailableConnector(connector)) {
    discardCurrentCloudConnector();
    LUMO_LOG(logger(), lumo::level::Debug, "getCloudConnector: Can't get a valid cloud connector for this time");
    return std::string();
  }
  m_connectorPort = connector->getString(LUMO_CLOUD_CONNECTOR_PORT, "");
  m_connectorFqdn = connector->getString(LUMO_CLOUD_PROXY_FQDN, "");
  m_tenantId = connector->getString(LUMO_CLOUD_TENANT_ID, "");
  m_site = connector->getString(LUMO_CLOUD_CONNECTOR_SITE, "");
  return m_connectorFqdn + ":" + m_connectorPort;
}

void CloudConnectorLocator::discardCurrentCloudConnector() {
  const LocatorLock held;
  // With nothing left to try it stays in use: each further failure would put it there once more.
  const bool isLast = !m_discardedList.empty() && m_discardedList.back() == m_currentConnector;
  if (!m_currentConnector.empty() && !isLast) m_discardedList.push_back(m_currentConnector);
  if (!takeNextConnector(held)) return;
  try {
    updateKsetFile(held);
  } catch (const LUMOException& failure) {
    // The next connector serves all the same; only the next process would begin with another one.
    LUMO_LOG(logger(), lumo::level::Error, "The connectors cannot be remembered: %s", failure.what());
  }
}

bool CloudConnectorLocator::takeNextConnector(const LocatorLock& held) {
  Names& near = m_currentSiteTryList;
  Names& far = m_otherSiteTryList;
  if (!near.empty()) {
    near.erase(near.begin());
    if (!near.empty()) {
      m_currentConnector = near.front();
      LUMO_LOG(logger(), lumo::level::Debug, "Connector(host DC FQDN=%s) in current site will be tried.",
               m_currentConnector.c_str());
      return true;
    }
    if (!far.empty()) {
      m_currentConnector = far.front();
      LUMO_LOG(logger(), lumo::level::Debug,
               "All connectors are tried in current site try list and connector(host DC FQDN=%s) in other sites will "
               "be tried.",
               m_currentConnector.c_str());
      return true;
    }
    recover(held);
    LUMO_LOG(logger(), lumo::level::Debug,
             "All connectors are tried in current site try list and there's no connectors in other sites. Will search "
             "AD and re-select again next time.");
    return false;
  }
  if (!far.empty()) {
    far.erase(far.begin());
    if (!far.empty()) {
      m_currentConnector = far.front();
      LUMO_LOG(logger(), lumo::level::Debug, "Connector(host DC FQDN=%s) in other site will be tried.",
               m_currentConnector.c_str());
      return true;
    }
    recover(held);
    LUMO_LOG(logger(), lumo::level::Debug,
             "All connectors are tried in current site try list and other sites' try list. Will search AD and "
             "re-select again next time.");
    return false;
  }
  recover(held);
  LUMO_LOG(logger(), lumo::level::Debug,
           "No connectors in current site try list or other sites' try list. Will search AD and re-select again next "
           "time.");
  return false;
}

void CloudConnectorLocator::recover(const LocatorLock& held) {
  rebuildTryList(held);
  SetRefresh(static_cast<unsigned>(getRecoverInterval()));
}
