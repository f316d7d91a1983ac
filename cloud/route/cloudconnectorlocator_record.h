// The settings of a connector's record, and what the units of the locator share. Internal to the locator.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "basalt/directory/directory_object.h"
#include "base/include/mutex.h"

class ADAgent;
class CloudConnectorLocator;

inline constexpr char LOCATOR_LOGGER[] = "base.cloudconnector.locator";

inline constexpr char LUMO_CLOUD_URL[] = "lumo_cloud_url";
inline constexpr char LUMO_CLOUD_CONNECTOR_PORT[] = "lumo_cloud_connector_port";
inline constexpr char LUMO_CLOUD_PROXY_SCP[] = "lumo_cloud_proxy_scp";
inline constexpr char LUMO_CLOUD_CONNECTOR_SITE[] = "lumo_cloud_connector_site";
inline constexpr char LUMO_CLOUD_TENANT_ID[] = "lumo_cloud_tenant_id";
inline constexpr char LUMO_CLOUD_PROXY_FQDN[] = "lumo_cloud_proxy_fqdn";
inline constexpr char LUMO_CLOUD_WEB_PROXY[] = "lumo_cloud_web_proxy";
inline constexpr char LUMO_CLOUD_WEB_PROXYENABLED[] = "lumo_cloud_web_proxyenabled";
inline constexpr char LUMO_CLOUD_CONNECTOR_IWA_ENABLED[] = "lumo_cloud_connector_iwa_enabled";
inline constexpr char LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME[] = "lumo_cloud_connector_iwa_hostname";
inline constexpr char LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS[] = "lumo_cloud_connector_iwa_usehttps";
inline constexpr char LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT[] = "lumo_cloud_connector_iwa_http_port";
inline constexpr char LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT[] = "lumo_cloud_connector_iwa_https_port";

// Bits of a connector's services.
enum ConnectorService : int { SERVICE_WEB_PROXY = 1, SERVICE_IWA = 2 };

// Recursive: the report asks for the proxy, which asks for the connector.
extern lumo::Mutex g_locatorMutex;
// The agent once it was asked for; also read without the mutex.
extern std::atomic<ADAgent*> g_adAgent;
// Keyword -> setting; under the mutex, filled while the locator lives.
extern std::map<std::string, std::string> g_keywordMap;

// Holds g_locatorMutex for its life. Internal operations take it as the proof that a lock is held.
class LocatorLock {
 public:
  LocatorLock() : m_lock(g_locatorMutex) {}

 private:
  lumo::Lock m_lock;
};

struct CloudConnectorLocatorDeleter {
  void operator()(const CloudConnectorLocator* locator) const;
};
using CloudConnectorLocatorOwner = std::unique_ptr<CloudConnectorLocator, CloudConnectorLocatorDeleter>;
// The owner of the process-wide instance; empty until somebody asked for it.
CloudConnectorLocatorOwner& theLocator(const LocatorLock& held);

// The setting of a keyword, empty for an unknown one.
std::string keywordToSetting(const LocatorLock& held, const std::string& keyword);
void fillKeywordMap(const LocatorLock& held);

// The text between "://" and the next ":"; empty where either is missing, so for every URL without a port.
std::string getFqdnFromUrl(const std::string& url);

// The search terms for the computers of that DNS name, side by side as ADAgent::searchGCorDC takes them.
std::string computerFilter(const std::string& fqdn);

// The services of a connector as bits of ConnectorService; 0 where it is of no use, as with a value that is not plain.
int servicesOf(const ADObjectPtr& connector);

// What is wrong with the values of a connector that are kept, shown or sent: "the value of keywords 'NAME, NAME' are
// incorrect" names those that hold "|", a control character or another byte that lumo::printable escapes. Empty where
// all values are plain. With them a connector could write lines of its own into state, report and requests.
std::string unsafeValues(const ADObjectPtr& connector);

// The line of a connector in the state file, without its end.
std::string stateLineOf(const ADObjectPtr& connector);

// The record of the first line of a state file that counts: at least seven fields, none empty, with values that a
// search keeps (lumo::printable changes none), and the platform URL `zoneUrl` unless that is empty. What follows the
// seventh field is ignored. Null where there is none. Lines that have all fields and are passed over are counted in the
// log at level 1.
ADObjectPtr connectorOfState(const std::string& state, const std::string& zoneUrl = std::string());

// The ports of a record; another text for what is not enabled, by default that of state and report.
struct ConnectorPorts {
  std::string webProxy, iwaHttp, iwaHttps;
};
ConnectorPorts connectorPorts(const ADObjectPtr& connector, const char* notEnabled = "-");
