#include <algorithm>
#include <utility>
#include <vector>

#include "basalt/settings/settings_store.h"
#include "basalt/settings/zone_hierarchy.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/route/cloudconnectorlocator_record.h"

namespace {

constexpr std::size_t FIELDS = 7;
constexpr char NOT_ENABLED[] = "-";

// The fields of a line that has enough of them, none empty; else empty.
std::vector<std::string> fieldsOf(const std::string& line) {
  std::vector<std::string> fields;
  StringSplit('|', line, fields);
  bool whole = fields.size() >= FIELDS;
  for (const std::string& field : fields) whole = whole && !field.empty();
  if (!whole) fields.clear();
  return fields;
}

// A search keeps no value with bytes that would be escaped, not even one that has no effect.
bool isKeptBySearches(const std::vector<std::string>& fields) {
  return std::all_of(fields.begin(), fields.begin() + FIELDS,
                     [](const std::string& field) { return lumo::printable(field) == field; });
}

bool isOn(const lumo::ADObject& record, const char* setting) { return record[setting].toBool(); }

// The services as the two port fields tell them.
void setIwa(lumo::ADObject& record, const std::string& httpPort, const std::string& httpsPort) {
  const bool enabled = httpPort != NOT_ENABLED;
  const bool https = enabled && httpsPort != NOT_ENABLED;
  record[LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS] = https ? "True" : "False";
  record[LUMO_CLOUD_CONNECTOR_IWA_ENABLED] = enabled ? "True" : "False";
  if (enabled) record[LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT] = httpPort;
  if (https) record[LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT] = httpsPort;
}

ADObjectPtr recordOf(const std::vector<std::string>& fields) {
  const std::string &fqdn = fields[2], &port = fields[4];
  ADObjectPtr record(new lumo::ADObject);
  lumo::ADObject& settings = *record;
  settings[LUMO_CLOUD_PROXY_SCP] = "true";
  settings[LUMO_CLOUD_URL] = fields[0];
  settings[LUMO_CLOUD_CONNECTOR_SITE] = fields[1];
  settings[LUMO_CLOUD_PROXY_FQDN] = fqdn;
  settings[LUMO_CLOUD_TENANT_ID] = fields[3];
  settings[LUMO_CLOUD_WEB_PROXY] = fqdn + ":" + port;
  settings[LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME] = fqdn;
  if (port != NOT_ENABLED) {
    settings[LUMO_CLOUD_WEB_PROXYENABLED] = "True";
    settings[LUMO_CLOUD_CONNECTOR_PORT] = port;
  }
  setIwa(settings, fields[5], fields[6]);
  return record;
}

}  // namespace

ADObjectPtr connectorOfState(const std::string& state, const std::string& zoneUrl) {
  std::vector<std::string> lines;
  StringSplit('\n', state, lines);
  ADObjectPtr connector;
  std::size_t passedOver = 0;
  for (auto line = lines.begin(); line != lines.end() && !connector; ++line) {
    const std::vector<std::string> fields = fieldsOf(*line);
    if (fields.empty()) continue;
    if ((zoneUrl.empty() || fields.front() == zoneUrl) && isKeptBySearches(fields)) {
      connector = recordOf(fields);
    } else {
      ++passedOver;
    }
  }
  if (passedOver != 0) {
    LUMO_LOG(getLogger(LOCATOR_LOGGER, false), lumo::level::Debug,
             "%zu remembered connectors are passed over: of another platform, or with values that no search keeps",
             passedOver);
  }
  return connector;
}

ConnectorPorts connectorPorts(const ADObjectPtr& connector, const char* notEnabled) {
  const lumo::ADObject& record = *connector;
  const bool iwa = isOn(record, LUMO_CLOUD_CONNECTOR_IWA_ENABLED);
  const auto port = [&](bool enabled, const char* setting) {
    return enabled ? record.getString(setting, std::string()) : std::string(notEnabled);
  };
  return {port(isOn(record, LUMO_CLOUD_WEB_PROXYENABLED), LUMO_CLOUD_CONNECTOR_PORT),
          port(iwa, LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT),
          port(iwa && isOn(record, LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS), LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT)};
}

std::string stateLineOf(const ADObjectPtr& connector) {
  const ConnectorPorts ports = connectorPorts(connector);
  std::string line;
  for (const char* setting : {LUMO_CLOUD_URL, LUMO_CLOUD_CONNECTOR_SITE, LUMO_CLOUD_PROXY_FQDN, LUMO_CLOUD_TENANT_ID}) {
    line += connector->getString(setting, std::string()) + "|";
  }
  return line + ports.webProxy + "|" + ports.iwaHttp + "|" + ports.iwaHttps;
}

void CloudConnectorLocator::appendKsetLine(std::string& out, const ADObjectPtr& connector) {
  out += stateLineOf(connector) + "\n";
}

void CloudConnectorLocator::updateKsetFile(const LocatorLock& held) {
  LUMO_LOG(getLogger(LOCATOR_LOGGER, false), lumo::level::Debug, "Update cloud connectors kset file.");
  std::string state;
  const auto append = [&](const Names& names, const char* failure) {
    for (const std::string& fqdn : names) {
      const ADObjectPtr connector = fetchCloudConnectorObject(held, fqdn);
      // The override may name a connector that is of no use.
      if (lumo::ADObject::isValid(connector) && unsafeValues(connector).empty()) {
        appendKsetLine(state, connector);
      } else {
        LUMO_LOG(getLogger(LOCATOR_LOGGER, false), lumo::level::Debug, failure, fqdn.c_str());
      }
    }
  };
  append(m_currentSiteTryList, "Can't write connector(%s) of current site into kset file.");
  append(m_otherSiteTryList, "Can't write connector(%s) of other sites into kset file.");
  append(m_discardedList, "Can't write connector(%s) of other sites into kset file.");
  lumo::saveSetting(SETTING_CLOUD_CONNECTORS, state, lumo::SettingAccess::Root, true, true);
}

void CloudConnectorLocator::readKset(const LocatorLock&) {
  const auto logger = getLogger(LOCATOR_LOGGER, false);
  std::string state, zoneUrl;
  try {
    state = lumo::GetSetting(SETTING_CLOUD_CONNECTORS, std::string(), true);
    // Not that of the first caller: it need not know what the administrator configured.
    if (!state.empty()) zoneUrl = lumo::ZoneHierarchy::GetZoneHierarchy()->getCloudUrl();
  } catch (const LUMOException& failure) {
    // What was remembered is a help, not a condition: a search finds it all again.
    LUMO_LOG(logger, lumo::level::Error, "The remembered connectors cannot be read: %s", failure.what());
    state.clear();
  }
  if (state.empty()) return;
  LUMO_LOG(logger, lumo::level::Debug, "Get cloud connectors info from kset.");
  const ADObjectPtr connector = connectorOfState(state, zoneUrl);
  if (!connector) return;
  const std::string url = connector->getString(LUMO_CLOUD_URL, std::string());
  const std::string fqdn = connector->getString(LUMO_CLOUD_PROXY_FQDN, std::string());
  LUMO_LOG(logger, lumo::level::Debug, "Getting preferred connector");
  LUMO_LOG(logger, lumo::level::Debug, "Current cloud URL is : %s", url.c_str());
  LUMO_LOG(logger, lumo::level::Debug, "Current cloud connector is : %s", fqdn.c_str());
  m_cloudUrl = url;
  m_currentConnector = fqdn;
  m_connectors.clear();
  m_connectors[m_currentConnector] = connector->clone();
}
