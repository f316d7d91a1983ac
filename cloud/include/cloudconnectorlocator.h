// The connectors of the forest: found in the directory, judged, ordered for trying, remembered, reported.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <chrono>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "basalt/directory/directory_object.h"
#include "cloud/include/cloud_exceptions.h"

// Proof that the calling thread holds the locator's lock; internal.
class LocatorLock;
struct CloudProxyInfo;

// One connector as getConnectors tells it.
struct CloudConnectorInfo {
  std::string cloudUrl;
  std::string site;
  std::string fqdn;
  std::string tenantId;
  std::string port;          // of the web proxy, or "Disabled"
  std::string iwaHttpPort;   // or "Disabled"
  std::string iwaHttpsPort;  // or "Disabled"
  int state = 0;             // 0 to be tried or unused, 1 discarded, 2 invalid
  int inUse = 0;             // 1 for the one that is tried first
};

// Process-wide. Any thread: one recursive lock guards all of it and is held while the directory is searched, so that
// every caller may wait for a search; no wait is longer than the time limits of basalt/directory/ad_cache_binding.h.
// Logs by "base.cloudconnector.locator".
class CloudConnectorLocator {
 public:
  // The instance, made at the first call with the zone's platform URL, which counts only then, and with the connector
  // that the last process remembered; destroyed when the process ends. Throws lumo::CloudConnectorException "Can not
  // get ADAgent" in a process without an agent.
  static CloudConnectorLocator* getInstance(const std::string& cloudUrl);
  CloudConnectorLocator(const CloudConnectorLocator&) = delete;
  CloudConnectorLocator& operator=(const CloudConnectorLocator&) = delete;

  // The connector to use, its web proxy as "host:port". Empty when there is none at the moment; the next call may give
  // another one, and a refresh is queued. Asks nobody.
  std::string getCloudConnector();
  // To be called when the connector in use has failed: the next one is then in use, also in the next process. When all
  // were tried, those that look fit stand on the lists again, and a refresh is queued.
  void discardCurrentCloudConnector();

  // The URL of the IWA service of the connector in use, "https://HOST:PORT/", and the service principal name for it,
  // "HTTP/HOST@REALM". Empty when IWA is not required or there is no connector; `spn` then stays. Throws what the
  // directory throws.
  std::string getIwaUrl(std::string& spn);

  // Searches the forest for connectors and rebuilds all that is known of them. `cloudUrl` is the zone's, may be empty;
  // `iwaRequired` says which service this host needs: IWA, or the web proxy. A directory that is known to be away
  // leaves all as it was and queues a refresh. Throws lumo::CloudConnectorException "Failed to search Morvane
  // Connectors in AD", "... in GC" or "... in GC due to LDAP exception" when the search fails; the former knowledge
  // stays, and a refresh is queued. Throws SystemException when what was found cannot be remembered for the next
  // process; it is in use all the same.
  void searchCloudConnetors(const std::string& cloudUrl, bool iwaRequired);

  void setZoneCloudUrl(const std::string& url);
  // The platform URL that was decided on; empty when none was.
  std::string cloudUrl() const;
  // That of the zone, as the configuration or the first caller gave it.
  std::string zoneCloudUrl() const;
  // Forgets connectors and lists, not the URLs, nor what the next process starts with.
  void resetState();

  // All that is known, as lines of text; foreign bytes in values are escaped (lumo::printable). A connector whose
  // values hold such bytes has a line "Reason: ..." too. Selects and discards nothing. Never throws: a failure ends the
  // text early, and the log says so at level 3.
  std::string dump();
  // Appends the connectors whose platform URL contains `filter`; all for an empty one. First those to be tried, in this
  // order, then the discarded, unused and invalid ones. Foreign bytes are escaped as in the report. Throws
  // lumo::CloudConnectorException "Null host DC FQDN when fetching the Morvane Connector object" while
  // `ferrod.cloud.connector` is an address without a name.
  void getConnectors(const std::string& filter, std::vector<CloudConnectorInfo>& out);

 private:
  friend struct CloudConnectorLocatorAccess;  // tests
  friend struct CloudConnectorLocatorDeleter;

  // Platform URL and name of a connector.
  using ConnectorEntry = std::pair<std::string, std::string>;
  using Entries = std::vector<ConnectorEntry>;
  using Names = std::vector<std::string>;

  explicit CloudConnectorLocator(const std::string& cloudUrl);
  ~CloudConnectorLocator();

  // cloudconnectorlocator_record.cpp: a directory object becomes a connector, and is judged.
  void loadAttributes(const LocatorLock& held, const ADObjectPtr& connector);
  std::string getConnectorFqdn(const LocatorLock& held, const ADObjectPtr& connector);
  static int getConnectorServices(const ADObjectPtr& connector);
  bool isAvailableConnector(const ADObjectPtr& connector) const;
  void logUnavailableConnector(const ADObjectPtr& connector) const;

  // cloudconnectorlocator_search.cpp: the search, and its answer sorted.
  static const char* const* getSearchAttributes();
  struct SortedConnectors;
  void processList(const LocatorLock& held, const boost::shared_ptr<ADObjectList>& found);
  void sortConnector(const LocatorLock& held, const ADObjectPtr& connector, SortedConnectors& sorted);
  void tryOverrideFirst(const LocatorLock& held);
  // cloudconnectorlocator_decision.cpp: which platform URL.
  void decideCloudUrl(const LocatorLock& held);

  // cloudconnectorlocator_lists.cpp: the lists and their order.
  void clearLists(const LocatorLock& held);  // all but that of the invalid ones
  void insertCloudConnectors(const LocatorLock& held, Entries& current, Entries& other, const std::string& url);
  void inserIntoUnusedList(const LocatorLock& held, Entries current, Entries other);
  void inserIntoTryList(const LocatorLock& held, Entries current, Entries other);
  void rebuildTryList(const LocatorLock& held);
  static long getRecoverInterval();  // seconds

  // cloudconnectorlocator_select.cpp: false when all were tried.
  bool takeNextConnector(const LocatorLock& held);
  // What was discarded is tried again where it looks fit, and a search comes soon.
  void recover(const LocatorLock& held);

  // cloudconnectorlocator_state.cpp: what the next process starts with.
  void readKset(const LocatorLock& held);
  void updateKsetFile(const LocatorLock& held);
  static void appendKsetLine(std::string& out, const ADObjectPtr& connector);

  // cloudconnectorlocator_iwa.cpp. The record of that name, a null handle where there is none. Throws
  // lumo::CloudConnectorException for an empty name.
  ADObjectPtr fetchCloudConnectorObject(const LocatorLock& held, const std::string& fqdn);

  // cloudconnectorlocator_report.cpp
  void appendReport(const LocatorLock& held, std::string& out);
  CloudProxyInfo proxyInUse(const LocatorLock& held) const;
  static void appendConnectorReport(std::string& out, const ADObjectPtr& connector);
  bool getConnectorInfo(const LocatorLock& held, const std::string& fqdn, CloudConnectorInfo& out);
  void appendTriedConnectors(const LocatorLock& held, const std::string& filter, std::vector<CloudConnectorInfo>& out);
  void appendUnusedConnectors(const LocatorLock& held, const std::string& filter, std::vector<CloudConnectorInfo>& out);
  void appendInvalidConnectors(const LocatorLock& held, const std::string& filter,
                               std::vector<CloudConnectorInfo>& out);

  // From when on a search's computers come from the agent's memory alone.
  std::chrono::steady_clock::time_point m_computersUntil = std::chrono::steady_clock::time_point::max();
  std::string m_zoneCloudUrl;
  std::string m_cloudUrl;
  std::string m_currentConnector;
  std::string m_overrideHost;
  std::string m_connectorFqdn;
  std::string m_connectorPort;
  std::string m_tenantId;
  std::string m_site;
  // Read without the lock by getIwaUrl.
  std::atomic<bool> m_iwaRequired{true};
  std::string m_iwaHostname;
  std::string m_iwaHttpsPort;
  Names m_cloudUrls;
  std::map<std::string, ADObjectPtr> m_connectors;
  Names m_currentSiteTryList;
  Names m_otherSiteTryList;
  Names m_discardedList;
  Entries m_currentSiteUnusedList;
  Entries m_otherSiteUnusedList;
  Entries m_invalidList;
};

// One search now, with the zone's URL and what `ferrod.cloud.rest.version` needs, and idle connections of the pool go.
// False when it failed; the log says why at level 4. Any thread.
bool RefreshCloudConnectorsInfo();
// The same, and the next one is queued on the process's main run queue, where there is one, by
// `ferrod.cloud.connector.refresh.interval` (hours, 8; 0 for none). An agent calls it once at its start. Whether it
// found anything, the locator tells. Any thread.
void UpdateCloudConnectors();
// Queues a refresh in so many seconds on the process's main run queue; without a queue nothing happens. An earlier one
// that waits stays. Never throws. Any thread.
void SetRefresh(unsigned seconds);

// The service principal name for an IWA URL with a port, "HTTP/HOST@REALM": the realm is that of the computer account
// of that DNS name. Empty when there is no port, no agent or no such computer. Throws what the directory throws. Any
// thread.
std::string GetSPNFromIwaURL(const std::string& url);

// CloudConnectorLocator::dump for the zone's platform URL. Throws lumo::CloudConnectorException "Can not get ADAgent".
// Any thread.
std::string dumpCloudConnectors();
