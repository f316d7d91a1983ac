#include "basalt/ad_agent.h"
#include "basalt/directory/computer_object.h"
#include "base/include/logger.h"
#include "base/include/string_helpers.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/route/cloudconnectorlocator_record.h"

namespace {

// Until the next search when a connector has no record.
constexpr unsigned RETRY_SECONDS = 900;

boost::shared_ptr<lumo::Logger> logger() { return getLogger(LOCATOR_LOGGER, false); }

ADAgent* agentOfProcess() {
  g_adAgent = ADAgent::GetADAgent(false, true);
  return g_adAgent.load();
}

std::string spnOf(const std::string& host, const ADObjectPtr& computer) {
  const std::string dn = computer ? computer->getString(AD_DN, "") : std::string();
  return "HTTP/" + host + "@" + upper(DN::domainFromDN(dn));
}

}  // namespace

ADObjectPtr CloudConnectorLocator::fetchCloudConnectorObject(const LocatorLock&, const std::string& fqdn) {
  if (fqdn.empty()) {
    LUMO_THROW(lumo::CloudConnectorException, -1, "Null host DC FQDN when fetching the Morvane Connector object");
  }
  const ADObjectPtr& connector = m_connectors[fqdn];
  if (lumo::ADObject::isValid(connector)) return connector;
  SetRefresh(RETRY_SECONDS);
  LUMO_LOG(logger(), lumo::level::Debug, "fetchCloudConnectorObject: Can't fetch cloud connector object in AD");
  return ADObjectPtr();
}

std::string CloudConnectorLocator::getIwaUrl(std::string& spn) {
  if (!m_iwaRequired) {
    LUMO_LOG(logger(), lumo::level::Debug, "getIwaUrl: IWA is not required");
    return std::string();
  }
  const LocatorLock held;
  if (m_currentConnector.empty()) {
    recover(held);
    LUMO_LOG(logger(), lumo::level::Debug, "getIwaUrl: no valid connectors in try list");
    return std::string();
  }
  LUMO_LOG(logger(), lumo::level::Debug, "getIwaUrl: current cloud connector FQDN=%s", m_currentConnector.c_str());
  const ADObjectPtr connector = fetchCloudConnectorObject(held, m_currentConnector);
  if (!isAvailableConnector(connector)) {
    discardCurrentCloudConnector();
    LUMO_LOG(logger(), lumo::level::Debug, "getIwaUrl: Can't get a valid cloud connector for this time");
    return std::string();
  }
  m_iwaHttpsPort = connector->getString(LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT, "");
  m_iwaHostname = connector->getString(LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME, "");
  if (m_connectorFqdn.empty()) m_connectorFqdn = connector->getString(LUMO_CLOUD_PROXY_FQDN, "");
  std::string url = "https://" + (m_connectorFqdn.empty() ? m_iwaHostname : m_connectorFqdn) + ":" + m_iwaHttpsPort;
  url += "/";
  try {
    spn = spnOf(m_connectorFqdn, connector);
  } catch (const LUMOException& failure) {
    // What was remembered from the last process has no name in the directory.
    LUMO_LOG(logger(), lumo::level::Debug,
             "getIwaUrl: fail to get SPN due to exception; err_msg '%s'. Try to get SPN from IWA URL.", failure.what());
    spn = GetSPNFromIwaURL(url);
  }
  return url;
}

std::string GetSPNFromIwaURL(const std::string& url) {
  const std::string fqdn = getFqdnFromUrl(url);
  ADAgent* const agent = agentOfProcess();
  if (agent == nullptr) {
    LUMO_LOG(logger(), lumo::level::Debug, "GetSPNFromIwaURL failed: can't retrieve adagent");
    return std::string();
  }
  if (fqdn.empty()) {
    LUMO_LOG(logger(), lumo::level::Debug, "GetSPNFromIwaURL failed: retrieve empty FQDN from url = %s", url.c_str());
    return std::string();
  }
  const std::string filter = computerFilter(fqdn);
  LUMO_LOG(logger(), lumo::level::Debug, "GetSPNFromIwaURL searches with filter '%s'", filter.c_str());
  const char* const* const attributes = lumo::ComputerObjectHelper::getComputerAttributes();
  const auto found = agent->searchGCorDC(filter, "", attributes, attributes, CACHE_READ | CACHE_STORE | CACHE_MISSES);
  if (!found || found->empty()) {
    LUMO_LOG(logger(), lumo::level::Debug, "GetSPNFromIwaURL failed: can't find any computer objects");
    return std::string();
  }
  if (found->size() > 1) {
    LUMO_LOG(logger(), lumo::level::Debug,
             "GetSPNFromIwaURL: more than 1 computer objects(%d) are found. Will use the first one",
             static_cast<int>(found->size()));
  }
  return spnOf(fqdn, found->front());
}

std::string computerFilter(const std::string& fqdn) {
  return std::string("(objectCategory=computer)(") + AD_DNS_NAME + "=" + escapeFilterValue(fqdn) + ")";
}
