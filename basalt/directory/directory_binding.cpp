#include <ldap.h>

#include <atomic>

#include "basalt/directory/directory.h"
#include "basalt/directory/directory_ldap.h"
#include "base/include/exceptions.h"
#include "base/include/printable.h"

namespace {

std::atomic<DirectoryConnector*> g_connector{nullptr};

}  // namespace

bool isServerUnavailable(const LDAPException& failure) {
  switch (failure.rc()) {
    case LDAP_SERVER_DOWN:
    case LDAP_TIMEOUT:
    case LDAP_CONNECT_ERROR:
    case LDAP_BUSY:
    case LDAP_UNAVAILABLE:
    case LDAP_RESULTS_TOO_LARGE:  // of a server that sends without end
      return true;
    default:
      return false;
  }
}

bool isConnectionLost(const LDAPException& failure) {
  switch (failure.rc()) {
    case LDAP_SERVER_DOWN:
    case LDAP_CONNECT_ERROR:
    case LDAP_UNAVAILABLE:  // servers say so when they end a session, e.g. for a ticket that has expired
    case LDAP_LOCAL_ERROR:  // the layer that seals the connection, likewise
      return true;
    default:
      return false;
  }
}

LDAPException serverUnavailable(const std::string& text) {
  return {__FILE__, __LINE__, lumo::exceptionMessage("%s", text.c_str()).c_str(), "LDAPException", LDAP_CONNECT_ERROR};
}

DirectoryConnector& DirectoryConnector::getInstance() {
  DirectoryConnector* wired = g_connector.load();
  return wired != nullptr ? *wired : ldapDirectoryConnector();
}

void DirectoryConnector::setInstance(DirectoryConnector* connector) { g_connector.store(connector); }

ADBinding::ADBinding(const std::string& domain, const std::string& ccacheName, bool globalCatalog,
                     const std::string& server, const std::string& site, void*)
    : m_target{domain, globalCatalog, server, site, ccacheName} {}

ADBinding::ADBinding(const std::string& domain, const ADBinding& other)
    : m_target{domain, false, {}, {}, other.m_target.ccacheName} {}

ADBinding::~ADBinding() = default;

void ADBinding::connect(const std::string&, const std::string&, int) {
  m_connection.reset();
  m_connection = DirectoryConnector::getInstance().open(m_target);
}

void ADBinding::release() { delete this; }

std::vector<ADObjectPtr> ADBinding::search(const DirectorySearch& what) {
  if (!m_connection) {
    LUMO_THROW(lumo::IOException, -1, "The directory binding to '%s' is not connected",
               lumo::printable(m_target.domain).c_str());
  }
  try {
    return m_connection->search(what);
  } catch (const LDAPException& failure) {
    if (!isConnectionLost(failure)) throw;
  }
  connect("", "", 0);
  return m_connection->search(what);
}

ADObjectPtr ADBinding::fetch(const std::string& dn, const std::vector<std::string>& attributes) {
  const auto found = search({dn, SearchScope::Base, "(objectClass=*)", attributes});
  return found.empty() ? nullptr : found.front();
}
