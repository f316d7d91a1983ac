// A locator beside a main run queue whose clock stands still, and records of connectors.
#pragma once

#include <map>
#include <string>
#include <utility>

#include "basalt/run_queue.h"
#include "cloud/route/tests/cloudconnectorlocator_forest.h"
#include "testsupport/manual_clock.h"

namespace locatortest {

constexpr char POD[] = "https://pod.example.test/";

using Settings = std::map<std::string, std::string>;

// A connector of the host's own site with both services; an empty value takes a setting away.
inline ADObjectPtr connectorRecord(const std::string& fqdn, const Settings& changes = {}) {
  Settings settings = {{LUMO_CLOUD_PROXY_SCP, "true"},
                       {LUMO_CLOUD_URL, POD},
                       {LUMO_CLOUD_CONNECTOR_SITE, "Berlin"},
                       {LUMO_CLOUD_PROXY_FQDN, fqdn},
                       {LUMO_CLOUD_TENANT_ID, "TENANT"},
                       {LUMO_CLOUD_WEB_PROXY, fqdn + ":8080"},
                       {LUMO_CLOUD_WEB_PROXYENABLED, "True"},
                       {LUMO_CLOUD_CONNECTOR_PORT, "8080"},
                       {LUMO_CLOUD_CONNECTOR_IWA_ENABLED, "True"},
                       {LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME, "iwa." + fqdn},
                       {LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, "True"},
                       {LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT, "80"},
                       {LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT, "8443"}};
  for (const auto& [setting, value] : changes) settings[setting] = value;
  auto record = boost::make_shared<lumo::ADObject>();
  for (const auto& [setting, value] : settings) {
    if (!value.empty()) (*record)[setting] = value;
  }
  return record;
}

inline const Settings NO_IWA = {{LUMO_CLOUD_CONNECTOR_IWA_ENABLED, "False"}};

// What the log has to say of a refresh.
inline std::string refreshIn(int seconds) {
  return "DEBUG SetRefresh: refresh task is scheduled to execute in " + std::to_string(seconds) + " seconds";
}

class WaitingLocatorTest : public LocatorTest {
 protected:
  WaitingLocatorTest() { locator.cloudUrl = POD; }
  ~WaitingLocatorTest() override { lumo::RunQueue::shutdownAll(); }

  void know(const std::string& fqdn, const Settings& changes = {}) {
    locator.connectors[fqdn] = connectorRecord(fqdn, changes);
  }
  // Connectors that stand on the list of the host's site; the first is in use.
  void tryInSite(const Texts& fqdns) {
    for (const auto& fqdn : fqdns) know(fqdn);
    locator.currentSiteTryList = fqdns;
    if (!fqdns.empty()) locator.currentConnector = fqdns.front();
  }
  // Connectors of another site.
  void tryElsewhere(const Texts& fqdns) {
    for (const auto& fqdn : fqdns) know(fqdn, {{LUMO_CLOUD_CONNECTOR_SITE, "Hamburg"}});
    locator.otherSiteTryList = fqdns;
    if (!fqdns.empty() && locator.currentConnector.empty()) locator.currentConnector = fqdns.front();
  }
  // One refresh waits, due in so many seconds from now.
  bool refreshWaits(int seconds) { return clock.awaitWaiting(clock.seconds() + seconds); }

  testsupport::ManualClock clock;
  boost::shared_ptr<lumo::RunQueue> queue = lumo::RunQueue::getRunQueue(lumo::MAIN_RUN_QUEUE, true, 1);
};

}  // namespace locatortest
