// What is private in the locator, for tests.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/route/cloudconnectorlocator_record.h"

// A locator of the test's own, with its fields and operations. One at a time: the map of keywords is the process's.
struct CloudConnectorLocatorAccess {
  using Entries = CloudConnectorLocator::Entries;
  using Names = CloudConnectorLocator::Names;

  explicit CloudConnectorLocatorAccess(const std::string& url = std::string()) : own(make(url)), locator(*own) {}
  // Of somebody else's, e.g. the process-wide one.
  explicit CloudConnectorLocatorAccess(CloudConnectorLocator& wrapped) : locator(wrapped) {}
  explicit CloudConnectorLocatorAccess(const CloudConnectorLocatorOwner& owner) : locator(*owner) {}
  CloudConnectorLocatorAccess(const CloudConnectorLocatorAccess&) = delete;
  CloudConnectorLocatorAccess& operator=(const CloudConnectorLocatorAccess&) = delete;

  static CloudConnectorLocatorOwner make(const std::string& url) {
    return CloudConnectorLocatorOwner(new CloudConnectorLocator(url));
  }
  // The next getInstance makes a new locator and asks for the agent anew.
  static void resetProcess() {
    const LocatorLock held;
    theLocator(held).reset();
    g_adAgent = nullptr;
  }

  const CloudConnectorLocatorOwner own;
  CloudConnectorLocator& locator;

  std::string& zoneCloudUrl = locator.m_zoneCloudUrl;
  std::string& cloudUrl = locator.m_cloudUrl;
  std::string& currentConnector = locator.m_currentConnector;
  std::string& overrideHost = locator.m_overrideHost;
  std::string& connectorFqdn = locator.m_connectorFqdn;
  std::string& connectorPort = locator.m_connectorPort;
  std::string& tenantId = locator.m_tenantId;
  std::string& site = locator.m_site;
  std::atomic<bool>& iwaRequired = locator.m_iwaRequired;
  std::string& iwaHostname = locator.m_iwaHostname;
  std::string& iwaHttpsPort = locator.m_iwaHttpsPort;
  Names& cloudUrls = locator.m_cloudUrls;
  std::map<std::string, ADObjectPtr>& connectors = locator.m_connectors;
  Names& currentSiteTryList = locator.m_currentSiteTryList;
  Names& otherSiteTryList = locator.m_otherSiteTryList;
  Names& discardedList = locator.m_discardedList;
  Entries& currentSiteUnusedList = locator.m_currentSiteUnusedList;
  Entries& otherSiteUnusedList = locator.m_otherSiteUnusedList;
  Entries& invalidList = locator.m_invalidList;

  void loadAttributes(const ADObjectPtr& connector) { locator.loadAttributes(LocatorLock(), connector); }
  std::string getConnectorFqdn(const ADObjectPtr& connector) {
    return locator.getConnectorFqdn(LocatorLock(), connector);
  }
  static int getConnectorServices(const ADObjectPtr& connector) {
    return CloudConnectorLocator::getConnectorServices(connector);
  }
  bool isAvailableConnector(const ADObjectPtr& connector) const { return locator.isAvailableConnector(connector); }
  void logUnavailableConnector(const ADObjectPtr& connector) const { locator.logUnavailableConnector(connector); }
  static const char* const* getSearchAttributes() { return CloudConnectorLocator::getSearchAttributes(); }
  void processList(const boost::shared_ptr<ADObjectList>& found) { locator.processList(LocatorLock(), found); }
  void tryOverrideFirst() { locator.tryOverrideFirst(LocatorLock()); }
  void decideCloudUrl() { locator.decideCloudUrl(LocatorLock()); }
  void insertCloudConnectors(Entries& current, Entries& other, const std::string& url) {
    locator.insertCloudConnectors(LocatorLock(), current, other, url);
  }
  void inserIntoUnusedList(Entries current, Entries other) {
    locator.inserIntoUnusedList(LocatorLock(), std::move(current), std::move(other));
  }
  void inserIntoTryList(Entries current, Entries other) {
    locator.inserIntoTryList(LocatorLock(), std::move(current), std::move(other));
  }
  void rebuildTryList() { locator.rebuildTryList(LocatorLock()); }
  static long getRecoverInterval() { return CloudConnectorLocator::getRecoverInterval(); }
  void readKset() { locator.readKset(LocatorLock()); }
  void updateKsetFile() { locator.updateKsetFile(LocatorLock()); }
  static void appendKsetLine(std::string& out, const ADObjectPtr& connector) {
    CloudConnectorLocator::appendKsetLine(out, connector);
  }
  ADObjectPtr fetchCloudConnectorObject(const std::string& fqdn) {
    return locator.fetchCloudConnectorObject(LocatorLock(), fqdn);
  }
  static void appendConnectorReport(std::string& out, const ADObjectPtr& connector) {
    CloudConnectorLocator::appendConnectorReport(out, connector);
  }
  bool getConnectorInfo(const std::string& fqdn, CloudConnectorInfo& out) {
    return locator.getConnectorInfo(LocatorLock(), fqdn, out);
  }
};
