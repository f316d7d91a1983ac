// One open connection to an LDAP server, over OpenLDAP. Internal to the directory unit.
#pragma once

#include <ldap.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "basalt/directory/directory.h"
#include "basalt/directory/directory_ldap_incoming.h"
#include "basalt/directory/directory_socket.h"

namespace lumo {

// How long a server may take.
struct LdapLimits {
  std::chrono::milliseconds connect{5000};                    // to take the connection, and for each step of the bind
  std::chrono::milliseconds operation{15000};                 // for each request and each page of a search
  std::chrono::milliseconds search = DIRECTORY_SEARCH_LIMIT;  // for all pages of a search
};

// How many bytes a server may send for one request: one whose identity is not proven yet, and one that has signed in.
// A page of large objects fits into the second.
inline constexpr std::size_t MAX_FROM_UNKNOWN_SERVER = std::size_t{64} * 1024;
inline constexpr std::size_t MAX_FROM_SERVER = std::size_t{64} * 1024 * 1024;

// Owns the library's connection: ldap_unbind_ext. The peer that closed first raises no signal.
struct LdapUnbind {
  void operator()(LDAP* ld) const;
};
using LdapHandle = std::unique_ptr<LDAP, LdapUnbind>;

// No operation goes on with a server that was silent once or went away: the library would quietly connect again,
// without an identity. What ldap.conf, ldaprc and the environment say has no influence on it. One thread.
class LdapConnection : public DirectoryConnection {
 public:
  static constexpr int PAGE_SIZE = 1000;

  // Connects; nobody is signed in. Throws LDAPException (LDAP_CONNECT_ERROR) with the reason as text.
  LdapConnection(const DirectoryServer& server, bool globalCatalog, LdapLimits limits);

  // Signs in by SASL GSSAPI with the identity of that credential cache, everything behind it signed and sealed. Throws
  // LDAPException with the reason as text, KerberosException when the cache is not usable.
  // A plug-in of SASL that is not installed is named by its package.
  void bind(const std::string& ccacheName);

  std::vector<ADObjectPtr> search(const DirectorySearch& what) override;
  void announce(const DirectorySearch& what) override;
  ADObjectPtr rootDse() override;

 private:
  struct Page;
  // A request under way, by the library's number.
  struct Announced {
    DirectorySearch what;
    int id;
  };

  [[noreturn]] void fail(int rc, const std::string& doing);
  void requireUsable(const std::string& doing) const;
  void requireSealed();
  void setOptions();
  // ldap_result within the limits; throws what `fail` throws.
  LDAPMessage* await(int id, std::chrono::milliseconds limit, const std::string& doing);
  template <class T>
  void setOption(int option, T value);
  ADObjectPtr readRoot(SteadyTime end);
  std::string defaultBase(SteadyTime end);
  std::vector<ADObjectPtr> searchAll(const DirectorySearch& what, bool paged, SteadyTime end);
  std::vector<ADObjectPtr> searchOnce(const DirectorySearch& what, SteadyTime end);
  int send(const DirectorySearch& what, const std::string* cookie, SteadyTime end);
  Page receive(int id, const DirectorySearch& what, SteadyTime end);
  // The request of an announced search; nothing for another, and then none is announced any more.
  std::optional<int> takeAnnounced(const DirectorySearch& what);
  std::chrono::milliseconds limitUntil(SteadyTime end, const std::string& doing);
  void readEntries(LDAPMessage* result, std::vector<ADObjectPtr>& objects);
  ADObjectPtr readEntry(LDAPMessage* entry);
  ADObjectPtr readDamagedEntry(LDAPMessage* entry);
  ADAttribute readValues(LDAPMessage* entry, const char* name);
  void completeRanges(ADObject& object, SteadyTime end);
  ADAttribute completed(const ADObject& object, const std::string& partName, SteadyTime end);

  const DirectoryServer m_server;
  const bool m_globalCatalog;
  const LdapLimits m_limits;
  std::string m_defaultBase;
  std::deque<Announced> m_announced;
  bool m_usable = true;
  IncomingLimit m_incoming{MAX_FROM_UNKNOWN_SERVER};
  LdapHandle m_ld;
};

}  // namespace lumo
