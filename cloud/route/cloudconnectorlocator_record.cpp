#include "cloud/route/cloudconnectorlocator_record.h"

#include <algorithm>
#include <cstring>
#include <list>

#include "basalt/ad_agent.h"
#include "basalt/directory/computer_object.h"
#include "basalt/process/clock.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"
#include "cloud/include/cloudconnectorlocator.h"

lumo::Mutex g_locatorMutex;
std::atomic<ADAgent*> g_adAgent{nullptr};
std::map<std::string, std::string> g_keywordMap;

namespace {

boost::shared_ptr<lumo::Logger> logger() { return getLogger(LOCATOR_LOGGER, false); }

constexpr struct {
  const char* keyword;
  const char* setting;
} KEYWORDS[] = {
    {"morvane.core.cloudurl", LUMO_CLOUD_URL},
    {"morvane.core.webproxy.port", LUMO_CLOUD_CONNECTOR_PORT},
    {"morvane.mobile.proxyScp", LUMO_CLOUD_PROXY_SCP},
    {"morvane.mobile.proxySite", LUMO_CLOUD_CONNECTOR_SITE},
    {"morvane.mobile.proxySysId", LUMO_CLOUD_TENANT_ID},
    {"morvane.mobile.proxyUri", LUMO_CLOUD_PROXY_FQDN},
    {"morvane.core.webproxy", LUMO_CLOUD_WEB_PROXY},
    {"morvane.core.webproxyenabled", LUMO_CLOUD_WEB_PROXYENABLED},
    {"morvane.core.iwa.enabled", LUMO_CLOUD_CONNECTOR_IWA_ENABLED},
    {"morvane.core.iwa.hostname", LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME},
    {"morvane.core.iwa.useHttps", LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS},
    {"morvane.core.iwa.httpPort", LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT},
    {"morvane.core.iwa.httpsPort", LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT},
};

const char* keywordOf(const char* setting) {
  for (const auto& row : KEYWORDS) {
    if (std::strcmp(row.setting, setting) == 0) return row.keyword;
  }
  return "";
}

// What LUMO_CLOUD_PROXY_SCP must hold, in any case.
constexpr char SCP_MARKER[] = "true";

bool has(const ADObjectPtr& connector, const char* setting) {
  return lumo::ADObject::isValid(connector) && connector->attributeExists(setting, true);
}

std::string textOf(const ADObjectPtr& connector, const char* setting) {
  return connector ? connector->getString(setting, "") : std::string();
}

bool isTrue(const ADObjectPtr& connector, const char* setting) {
  const lumo::ADObject& record = *connector;
  return has(connector, setting) && record[setting].toBool();
}

bool isMarked(const ADObjectPtr& connector) { return lower(textOf(connector, LUMO_CLOUD_PROXY_SCP)) == SCP_MARKER; }

void loadKeyword(const LocatorLock& held, lumo::ADObject& connector, const std::string& keyword) {
  const std::size_t colon = keyword.find(':');
  const std::string name = keyword.substr(0, colon);
  // Without a colon the keyword is its own value.
  std::string value = colon == std::string::npos ? keyword : keyword.substr(colon + 1);
  const std::string setting = keywordToSetting(held, name);
  if (setting.empty()) {
    LUMO_LOG(logger(), lumo::level::Debug, "loadAttributes: unexpected keyword '%s'", name.c_str());
    return;
  }
  LUMO_LOG(logger(), lumo::level::Debug, "loadAttributes: keyname = '%s', mvdName = '%s', mvdValue = '%s'",
           name.c_str(), setting.c_str(), value.c_str());
  if (setting == LUMO_CLOUD_PROXY_FQDN) value = getFqdnFromUrl(value);
  if (!value.empty()) connector[setting] = value;
}

// The web proxy tells host and port, or they tell the web proxy.
void alignWebProxy(const ADObjectPtr& connector) {
  lumo::ADObject& record = *connector;
  if (has(connector, LUMO_CLOUD_WEB_PROXY)) {
    const std::string webProxy = textOf(connector, LUMO_CLOUD_WEB_PROXY);
    const std::size_t colon = webProxy.find(':');
    if (colon == std::string::npos) return;
    if (!has(connector, LUMO_CLOUD_PROXY_FQDN)) record[LUMO_CLOUD_PROXY_FQDN] = webProxy.substr(0, colon);
    record[LUMO_CLOUD_CONNECTOR_PORT] = webProxy.substr(colon + 1);
  } else if (has(connector, LUMO_CLOUD_CONNECTOR_PORT) && has(connector, LUMO_CLOUD_PROXY_FQDN)) {
    const std::string webProxy =
        textOf(connector, LUMO_CLOUD_PROXY_FQDN) + ":" + textOf(connector, LUMO_CLOUD_CONNECTOR_PORT);
    record[LUMO_CLOUD_WEB_PROXY] = webProxy;
    LUMO_LOG(logger(), lumo::level::Debug, "loadAttributes: compose mvdName = '%s', mvdValue = '%s'",
             LUMO_CLOUD_WEB_PROXY, webProxy.c_str());
  }
}

// What a connector must have to be of use, in the order in which the administrator is told.
enum class Must { Exist, BeTrue, BeMarker };
constexpr struct {
  const char* setting;
  Must must;
  bool onlyForIwa;
} REQUIREMENTS[] = {
    {LUMO_CLOUD_URL, Must::Exist, false},
    {LUMO_CLOUD_TENANT_ID, Must::Exist, false},
    {LUMO_CLOUD_WEB_PROXY, Must::Exist, false},
    {LUMO_CLOUD_WEB_PROXYENABLED, Must::BeTrue, false},
    {LUMO_CLOUD_PROXY_SCP, Must::BeMarker, false},
    {LUMO_CLOUD_CONNECTOR_IWA_ENABLED, Must::BeTrue, true},
    {LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, Must::BeTrue, true},
    {LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME, Must::Exist, true},
    {LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT, Must::Exist, true},
};

std::string areIncorrect(const std::list<std::string>& keywords) {
  return "the value of keywords '" + concat(keywords, ", ") + "' are incorrect";
}

std::string reasonOf(const std::list<std::string>& missing, const std::list<std::string>& incorrect) {
  std::string reason;
  if (!missing.empty()) reason = "keywords '" + concat(missing, ", ") + "' are missing";
  if (!incorrect.empty()) {
    if (!reason.empty()) reason += " and ";
    reason += areIncorrect(incorrect);
  }
  return reason;
}

// What is kept in the state file, shown in a report, or part of a request or a connection.
constexpr const char* CARRIED[] = {
    LUMO_CLOUD_URL,
    LUMO_CLOUD_CONNECTOR_SITE,
    LUMO_CLOUD_TENANT_ID,
    LUMO_CLOUD_PROXY_FQDN,
    LUMO_CLOUD_WEB_PROXY,
    LUMO_CLOUD_CONNECTOR_PORT,
    LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME,
    LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT,
    LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT,
};

// Text that cannot end a field or a line, nor act on a terminal.
bool isPlain(const std::string& value) {
  const auto isOrdinary = [](char c) { return c >= ' ' && c <= '~' && c != '|'; };
  if (std::all_of(value.begin(), value.end(), isOrdinary)) return true;
  return value.find('|') == std::string::npos && lumo::printable(value) == value;
}

// Where the value comes from: the computer's name wins over that of the keyword.
std::string sourceOf(const char* setting) {
  const std::string keyword = keywordOf(setting);
  return std::strcmp(setting, LUMO_CLOUD_PROXY_FQDN) == 0 ? keyword + " or " + AD_DNS_NAME : keyword;
}

std::list<std::string> unsafeKeywords(const ADObjectPtr& connector) {
  std::list<std::string> keywords;
  for (const char* setting : CARRIED) {
    if (!isPlain(textOf(connector, setting))) keywords.push_back(sourceOf(setting));
  }
  return keywords;
}

}  // namespace

void fillKeywordMap(const LocatorLock&) {
  for (const auto& row : KEYWORDS) g_keywordMap[row.keyword] = row.setting;
}

std::string keywordToSetting(const LocatorLock&, const std::string& keyword) {
  const auto row = g_keywordMap.find(keyword);
  return row == g_keywordMap.end() ? std::string() : row->second;
}

std::string getFqdnFromUrl(const std::string& url) {
  const std::size_t scheme = url.find("://");
  if (scheme == std::string::npos) return std::string();
  const std::size_t colon = url.find(':', scheme + 1);
  if (colon == std::string::npos) return std::string();
  const std::size_t host = scheme + 3;
  return url.substr(host, colon - host);
}

void CloudConnectorLocator::loadAttributes(const LocatorLock& held, const ADObjectPtr& connector) {
  if (!lumo::ADObject::isValid(connector)) {
    LUMO_LOG(logger(), lumo::level::Debug, "loadAttributes: connector object is null");
    return;
  }
  if (!has(connector, AD_KEYWORDS)) {
    LUMO_LOG(logger(), lumo::level::Debug, "loadAttributes: 'keywords' is empty for cloud connector object(GUID=%s)",
             connector->guid().toString().c_str());
    return;
  }
  const lumo::ADAttribute keywords = (*connector)[AD_KEYWORDS];
  if (keywords.isNull()) {
    LUMO_LOG(logger(), lumo::level::Debug,
             "loadAttributes: get cram attributes error for cloud connector object(GUID=%s)",
             connector->guid().toString().c_str());
    return;
  }
  for (const auto& keyword : keywords.values()) loadKeyword(held, *connector, keyword);
  alignWebProxy(connector);
  const std::string fqdn = getConnectorFqdn(held, connector);
  if (fqdn.empty()) return;
  LUMO_LOG(logger(), lumo::level::Debug, "got FQDN from parent object: %s", fqdn.c_str());
  (*connector)[LUMO_CLOUD_PROXY_FQDN] = fqdn;
}

std::string CloudConnectorLocator::getConnectorFqdn(const LocatorLock&, const ADObjectPtr& connector) {
  const std::string parent = LDAPBinding::parent(textOf(connector, AD_DN));
  ADAgent* const agent = g_adAgent.load();
  if (agent == nullptr) return std::string();
  const char* const* const attributes = lumo::ComputerObjectHelper::getAttributes();
  ADObjectPtr computer;
  try {
    computer = lumo::Clock::getInstance().steadyNow() < m_computersUntil
                   ? agent->find(parent, attributes, CACHE_READ | CACHE_STORE | CACHE_MISSES)
                   : agent->recall(parent, attributes).value_or(nullptr);
  } catch (const LUMOException&) {
    LUMO_LOG(logger(), lumo::level::Debug, "Failed to fetch DC object in AD");
  }
  return lumo::ADObject::isValid(computer) ? computer->getString(AD_DNS_NAME, "") : std::string();
}

std::string unsafeValues(const ADObjectPtr& connector) {
  const std::list<std::string> keywords = unsafeKeywords(connector);
  return keywords.empty() ? std::string() : areIncorrect(keywords);
}

int CloudConnectorLocator::getConnectorServices(const ADObjectPtr& connector) { return servicesOf(connector); }

int servicesOf(const ADObjectPtr& connector) {
  for (const char* setting : {LUMO_CLOUD_URL, LUMO_CLOUD_TENANT_ID, LUMO_CLOUD_WEB_PROXY}) {
    if (!has(connector, setting)) return 0;
  }
  if (!isMarked(connector) || !unsafeKeywords(connector).empty()) return 0;
  int services = 0;
  // IWA over plain HTTP is no service of use, whatever port it has.
  if (isTrue(connector, LUMO_CLOUD_CONNECTOR_IWA_ENABLED) && has(connector, LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME) &&
      has(connector, LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT) && isTrue(connector, LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS)) {
    services |= SERVICE_IWA;
  }
  if (isTrue(connector, LUMO_CLOUD_WEB_PROXYENABLED)) services |= SERVICE_WEB_PROXY;
  return services;
}

bool CloudConnectorLocator::isAvailableConnector(const ADObjectPtr& connector) const {
  const int services = getConnectorServices(connector);
  if (services == 0) return false;
  const bool iwaRequired = m_iwaRequired;
  if ((services & (iwaRequired ? SERVICE_IWA : SERVICE_WEB_PROXY)) != 0) return true;
  const std::string fqdn = textOf(connector, LUMO_CLOUD_PROXY_FQDN);
  if (iwaRequired) {
    LUMO_LOG(logger(), lumo::level::Debug,
             "Cloud connector '%s' is unavailable: IWA is required, but IWA is not configured correctly. sevices = %d",
             fqdn.c_str(), services);
  } else {
    LUMO_LOG(logger(), lumo::level::Debug,
             "Cloud connector '%s' is unavailable for web proxy is not configured correctly. services = %d",
             fqdn.c_str(), services);
  }
  return false;
}

void CloudConnectorLocator::logUnavailableConnector(const ADObjectPtr& connector) const {
  std::list<std::string> missing, incorrect;
  for (const auto& row : REQUIREMENTS) {
    if (row.onlyForIwa && !m_iwaRequired) continue;
    if (!has(connector, row.setting)) {
      missing.emplace_back(keywordOf(row.setting));
    } else if ((row.must == Must::BeTrue && !isTrue(connector, row.setting)) ||
               (row.must == Must::BeMarker && !isMarked(connector))) {
      incorrect.emplace_back(keywordOf(row.setting));
    }
  }
  incorrect.splice(incorrect.end(), unsafeKeywords(connector));
  LUMO_LOG(logger(), lumo::level::Warn,
           "Morvane Agent will not use Morvane Connector '%s' to provide connectivity to Morvane Identity Platform "
           "URL '%s' because %s.",
           textOf(connector, LUMO_CLOUD_PROXY_FQDN).c_str(), textOf(connector, LUMO_CLOUD_URL).c_str(),
           reasonOf(missing, incorrect).c_str());
}
