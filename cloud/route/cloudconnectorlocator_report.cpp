#include <exception>

#include "basalt/settings/zone_hierarchy.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/route/cloudconnectorlocator_record.h"
#include "cloud/route/opx_proxy.h"

namespace {

// What CloudConnectorInfo::state tells.
enum State : int { TRIED_OR_UNUSED = 0, DISCARDED = 1, INVALID = 2 };

// Values are foreign: none of them may look like a line of the report's own.
void appendLine(std::string& out, const char* text, const std::string& value) {
  out.append(text).append(lumo::printable(value)).append("\n");
}

std::string orNone(const std::string& text) { return text.empty() ? "None" : text; }

bool passes(const std::string& filter, const std::string& url) { return filter.empty() || contains(url, filter); }

const std::string& nameOf(const std::string& fqdn) { return fqdn; }
const std::string& nameOf(const std::pair<std::string, std::string>& entry) { return entry.second; }

}  // namespace

std::string CloudConnectorLocator::dump() {
  const LocatorLock held;
  std::string out;
  try {
    appendReport(held, out);
  } catch (const std::exception& failure) {
    LUMO_LOG(getLogger(LOCATOR_LOGGER, false), lumo::level::Warn, "Fail to dump Morvane Connector information: %s",
             failure.what());
  }
  return out;
}

void CloudConnectorLocator::appendReport(const LocatorLock& held, std::string& out) {
  const auto line = [&](const char* text, const std::string& value) { appendLine(out, text, value); };
  const auto blocks = [&](const char* heading, const auto& list) {
    out += heading;
    for (const auto& element : list) {
      const ADObjectPtr connector = fetchCloudConnectorObject(held, nameOf(element));
      if (lumo::ADObject::isValid(connector)) appendConnectorReport(out, connector);
    }
  };
  out += "==============Morvane Identity Platform Instances/Morvane Connectors info============\n";
  out += "Morvane Identity Platform Instances:\n";
  line("   Morvane Identity Platform Instances in zone: ", m_cloudUrl);
  for (const auto& url : m_cloudUrls) line("   Morvane Identity Platform Instances: ", url);
  out += "Proxy to Morvane Identity Platform:\n";
  const CloudProxyInfo proxy = proxyInUse(held);
  line("   Proxy server: ", orNone(proxy.proxyServer));
  line("   Proxy authentication method: ", orNone(proxy.proxyAuth));
  out += "Morvane Connectors:\n";
  line("   Current used connector: ", m_currentConnector);
  blocks("   Morvane Connectors in current site:\n", m_currentSiteTryList);
  blocks("   Morvane Connectors in other site:\n", m_otherSiteTryList);
  blocks("   Morvane Connectors discarded:\n", m_discardedList);
  blocks("   Morvane Connectors in current site and unused:\n", m_currentSiteUnusedList);
  blocks("   Morvane Connectors in other site and unused:\n", m_otherSiteUnusedList);
  blocks("   Morvane Connectors invalid:\n", m_invalidList);
}

CloudProxyInfo CloudConnectorLocator::proxyInUse(const LocatorLock&) const {
  if (auto configured = configuredHttpProxy()) return *std::move(configured);
  // As getCloudConnector would answer, but without giving up one that is of no use.
  CloudProxyInfo proxy;
  const auto known = m_connectors.find(m_currentConnector);
  if (known == m_connectors.end() || !isAvailableConnector(known->second)) return proxy;
  const auto setting = [&](const char* name) { return known->second->getString(name, ""); };
  proxy.proxyServer = setting(LUMO_CLOUD_PROXY_FQDN) + ":" + setting(LUMO_CLOUD_CONNECTOR_PORT);
  return proxy;
}

std::string dumpCloudConnectors() {
  return CloudConnectorLocator::getInstance(lumo::ZoneHierarchy::GetZoneHierarchy()->getCloudUrl())->dump();
}

void CloudConnectorLocator::appendConnectorReport(std::string& out, const ADObjectPtr& connector) {
  const ConnectorPorts ports = connectorPorts(connector);
  const auto line = [&](const char* text, const std::string& value) { appendLine(out, text, value); };
  const auto setting = [&](const char* name) { return connector->getString(name, ""); };
  line("      Morvane Connector: ", setting(LUMO_CLOUD_PROXY_FQDN));
  line("        Morvane Identity Platform URL: ", setting(LUMO_CLOUD_URL));
  line("        Connector Site: ", setting(LUMO_CLOUD_CONNECTOR_SITE));
  line("        Connector FQDN: ", setting(LUMO_CLOUD_PROXY_FQDN));
  line("        Tenant ID: ", setting(LUMO_CLOUD_TENANT_ID));
  line("        Connector port: ", ports.webProxy);
  line("        Connector IWA HTTP port: ", ports.iwaHttp);
  line("        Connector IWA HTTPS port: ", ports.iwaHttps);
  if (const std::string reason = unsafeValues(connector); !reason.empty()) line("        Reason: ", reason);
}

bool CloudConnectorLocator::getConnectorInfo(const LocatorLock& held, const std::string& fqdn,
                                             CloudConnectorInfo& out) {
  const ADObjectPtr connector = fetchCloudConnectorObject(held, fqdn);
  if (!lumo::ADObject::isValid(connector)) return false;
  const ConnectorPorts ports = connectorPorts(connector, "Disabled");
  const auto setting = [&](const char* name) { return lumo::printable(connector->getString(name, "")); };
  out.cloudUrl = setting(LUMO_CLOUD_URL);
  out.site = setting(LUMO_CLOUD_CONNECTOR_SITE);
  out.fqdn = setting(LUMO_CLOUD_PROXY_FQDN);
  out.tenantId = setting(LUMO_CLOUD_TENANT_ID);
  out.port = lumo::printable(ports.webProxy);
  out.iwaHttpPort = lumo::printable(ports.iwaHttp);
  out.iwaHttpsPort = lumo::printable(ports.iwaHttps);
  out.state = TRIED_OR_UNUSED;
  out.inUse = 0;
  return true;
}

void CloudConnectorLocator::getConnectors(const std::string& filter, std::vector<CloudConnectorInfo>& out) {
  const LocatorLock held;
  appendTriedConnectors(held, filter, out);
  appendUnusedConnectors(held, filter, out);
  appendInvalidConnectors(held, filter, out);
}

void CloudConnectorLocator::appendTriedConnectors(const LocatorLock& held, const std::string& filter,
                                                  std::vector<CloudConnectorInfo>& out) {
  if (!passes(filter, m_cloudUrl)) return;
  int inUse = 1;
  CloudConnectorInfo info;
  for (const Names* list : {&m_currentSiteTryList, &m_otherSiteTryList}) {
    for (const auto& fqdn : *list) {
      if (!getConnectorInfo(held, fqdn, info)) continue;
      info.inUse = inUse;
      inUse = 0;
      out.push_back(info);
    }
  }
  for (const auto& fqdn : m_discardedList) {
    if (!getConnectorInfo(held, fqdn, info)) continue;
    info.state = DISCARDED;
    out.push_back(info);
  }
}

void CloudConnectorLocator::appendUnusedConnectors(const LocatorLock& held, const std::string& filter,
                                                   std::vector<CloudConnectorInfo>& out) {
  CloudConnectorInfo info;
  for (const Entries* list : {&m_currentSiteUnusedList, &m_otherSiteUnusedList}) {
    for (const auto& [url, fqdn] : *list) {
      if (passes(filter, url) && getConnectorInfo(held, fqdn, info)) out.push_back(info);
    }
  }
}

void CloudConnectorLocator::appendInvalidConnectors(const LocatorLock& held, const std::string& filter,
                                                    std::vector<CloudConnectorInfo>& out) {
  CloudConnectorInfo info;
  for (const auto& [url, fqdn] : m_invalidList) {
    if (!passes(filter, url) || !getConnectorInfo(held, fqdn, info)) continue;
    info.state = INVALID;
    out.push_back(info);
  }
}
