// Keywords of a connector's object, one a line: the record made of them, its services, what is said of an unusable one,
// and its lines in state and report. A second reading of the keywords, written down here once more and more simply,
// tells what must come out.
#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/include/printable.h"
#include "base/include/string_helpers.h"
#include "cloud/route/tests/cloudconnectorlocator_access.h"
#include "cloud/route/tests/cloudconnectorlocator_keywords.h"

namespace {

using Settings = std::map<std::string, std::string>;
using Access = CloudConnectorLocatorAccess;

void require(bool holds) {
  if (!holds) std::abort();
}

std::string hostOf(const std::string& url) {
  const std::size_t scheme = url.find("://");
  if (scheme == std::string::npos) return {};
  const std::string rest = url.substr(scheme + 3);
  return rest.find(':') == std::string::npos ? std::string() : rest.substr(0, rest.find(':'));
}

Settings expected(const std::vector<std::string>& keywords) {
  static const Settings names(std::begin(KEYWORD_ROWS), std::end(KEYWORD_ROWS));
  Settings settings;
  for (const auto& keyword : keywords) {
    std::vector<std::string> parts;
    StringSplit(':', keyword, parts);
    const auto name = names.find(parts[0]);
    if (name == names.end()) continue;
    std::string value = parts.size() == 1 ? keyword : keyword.substr(parts[0].size() + 1);
    if (name->second == LUMO_CLOUD_PROXY_FQDN) value = hostOf(value);
    if (!value.empty()) settings[name->second] = value;
  }
  const auto proxy = settings.find(LUMO_CLOUD_WEB_PROXY);
  if (proxy != settings.end()) {
    std::vector<std::string> parts;
    StringSplit(':', proxy->second, parts);
    if (parts.size() > 1) {
      settings.emplace(LUMO_CLOUD_PROXY_FQDN, parts[0]);
      settings[LUMO_CLOUD_CONNECTOR_PORT] = proxy->second.substr(parts[0].size() + 1);
    }
  } else if (settings.count(LUMO_CLOUD_CONNECTOR_PORT) != 0 && settings.count(LUMO_CLOUD_PROXY_FQDN) != 0) {
    settings[LUMO_CLOUD_WEB_PROXY] = settings[LUMO_CLOUD_PROXY_FQDN] + ":" + settings[LUMO_CLOUD_CONNECTOR_PORT];
  }
  return settings;
}

bool on(Settings settings, const char* name) {
  const std::string value = lower(settings[name]);
  return value == "true" || value == "yes" || value == "1";
}

// Is every value that is kept, shown or sent free of separators and of what lumo::printable escapes?
bool plain(const Settings& settings) {
  for (const auto& [name, value] : settings) {
    if (name == LUMO_CLOUD_PROXY_SCP || name == LUMO_CLOUD_WEB_PROXYENABLED ||
        name == LUMO_CLOUD_CONNECTOR_IWA_ENABLED || name == LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS) {
      continue;
    }
    if (contains(value, "|") || lumo::printable(value) != value) return false;
  }
  return true;
}

int services(Settings settings) {
  if (!plain(settings)) return 0;
  for (const char* name : {LUMO_CLOUD_URL, LUMO_CLOUD_TENANT_ID, LUMO_CLOUD_WEB_PROXY}) {
    if (settings[name].empty()) return 0;
  }
  if (lower(settings[LUMO_CLOUD_PROXY_SCP]) != "true") return 0;
  const bool iwa = on(settings, LUMO_CLOUD_CONNECTOR_IWA_ENABLED) && on(settings, LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS) &&
                   !settings[LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME].empty() &&
                   !settings[LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT].empty();
  return (on(settings, LUMO_CLOUD_WEB_PROXYENABLED) ? 1 : 0) + (iwa ? 2 : 0);
}

void checkSettings(const lumo::ADObject& record, const Settings& settings) {
  for (const auto& [name, attribute] : record.attributes()) {
    if (name == AD_DN || name == AD_KEYWORDS) continue;
    const auto setting = settings.find(name);
    require(setting != settings.end() && attribute.toString() == setting->second);
  }
  for (const auto& [name, value] : settings) require(record.getString(name, "no value") == value);
}

// What stands in the lists: a URL, a host and the state that they are in.
void checkLists(Access& locator, const Settings& settings, int offered, bool iwaRequired) {
  const auto host = settings.find(LUMO_CLOUD_PROXY_FQDN);
  const bool named = host != settings.end() && !host->second.empty();
  const bool available = (offered & (iwaRequired ? SERVICE_IWA : SERVICE_WEB_PROXY)) != 0;
  require(locator.connectors.size() == (named ? 1 : 0));
  require(locator.invalidList.size() == (named && offered == 0 ? 1 : 0));
  require(locator.otherSiteTryList.size() + locator.currentSiteTryList.size() ==
          (named && offered != 0 && available ? 1 : 0));
  require(locator.discardedList.size() == (named && offered != 0 && !available ? 1 : 0));
  require(locator.cloudUrls.size() == (named && offered != 0 ? 1 : 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool iwaRequired = (data[0] & 1) != 0;
  std::vector<std::string> keywords;
  StringSplit('\n', std::string(reinterpret_cast<const char*>(data) + 1, size - 1), keywords);
  const auto connector = boost::make_shared<lumo::ADObject>("CN=proxy");
  connector->set(AD_DN, {"CN=proxy"});
  connector->set(AD_KEYWORDS, keywords);

  static const CloudConnectorLocatorOwner owner = Access::make("");
  Access locator(owner);
  locator.iwaRequired = iwaRequired;
  const auto found = boost::make_shared<ADObjectList>(1, connector->clone());
  locator.loadAttributes(connector);
  const bool told = keywords.size() > 1 || !keywords[0].empty();
  const Settings settings = told ? expected(keywords) : Settings();
  checkSettings(*connector, settings);
  const int offered = Access::getConnectorServices(connector);
  require(offered == services(settings));
  require(locator.isAvailableConnector(connector) ==
          ((offered & (iwaRequired ? SERVICE_IWA : SERVICE_WEB_PROXY)) != 0));
  locator.logUnavailableConnector(connector);

  locator.cloudUrls.clear();
  locator.processList(found);
  checkLists(locator, settings, offered, iwaRequired);

  std::string report;
  Access::appendConnectorReport(report, connector);
  for (const char* name : {LUMO_CLOUD_URL, LUMO_CLOUD_TENANT_ID}) {
    const auto value = settings.find(name);
    if (value != settings.end()) require(contains(report, lumo::printable(value->second)));
  }
  // No value makes a line, nor a field of the state.
  require(std::count(report.begin(), report.end(), '\n') == (plain(settings) ? 8 : 9));
  std::string line;
  Access::appendKsetLine(line, connector);
  require(!line.empty() && line.back() == '\n');
  require(offered == 0 ||
          (std::count(line.begin(), line.end(), '\n') == 1 && std::count(line.begin(), line.end(), '|') == 6));
  require(!locator.locator.dump().empty());
  return 0;
}
