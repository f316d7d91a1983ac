// Directory objects, bindings and the seam below them.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "basalt/directory/directory_object.h"
#include "base/include/exceptions.h"

enum class SearchScope { Base, OneLevel, Subtree };

struct DirectorySearch {
  std::string base;  // empty: the whole directory (the domain's root, or the forest in a catalogue)
  SearchScope scope = SearchScope::Subtree;
  std::string filter = "(objectClass=*)";
  std::vector<std::string> attributes;  // empty: all
  // False where the answer is known to fit into one page: servers find what they give in pages twice.
  bool paged = true;
};

// Does the exception mean that the server cannot be reached, went away, is too busy or did not answer in time?
bool isServerUnavailable(const LDAPException& failure);

// Is it worth to open a new connection at once and ask again? Not where a server was silent or busy: that would double
// the wait.
bool isConnectionLost(const LDAPException& failure);

// An exception with that text for which isServerUnavailable is true.
LDAPException serverUnavailable(const std::string& text);

// No search on one connection takes longer, with all its pages.
inline constexpr std::chrono::seconds DIRECTORY_SEARCH_LIMIT{60};

// The seam of the directory: one open connection to a server. One thread at a time.
class DirectoryConnection {
 public:
  virtual ~DirectoryConnection() = default;
  // All objects that match, results paged below. A base that does not exist gives none. An attribute of which the
  // server shows only a part, or whose values cannot be decoded, is ADAttribute::unreadable() under its plain name.
  // Throws LDAPException with the server's words and the LDAP result code as rc(); isServerUnavailable tells when the
  // server is gone or silent, and the connection is then of no more use.
  virtual std::vector<ADObjectPtr> search(const DirectorySearch& what) = 0;
  // A search to come soon, of one answer or of one page: the connection may ask already, so that the server works while
  // its last answer is looked at. Another search than the one that was announced first drops them all. Never throws.
  virtual void announce(const DirectorySearch&) {}
  // Attributes of the server's root object.
  virtual ADObjectPtr rootDse() = 0;
};

// Opens connections: to LDAP servers, or to the in-memory directory of a test. Any thread.
class DirectoryConnector {
 public:
  struct Target {
    std::string domain;  // DNS name
    bool globalCatalog = false;
    std::string server;      // a given server, empty: found by SRV records, next one when one fails
    std::string site;        // the site whose servers come first, empty: the one that an LDAP ping tells
    std::string ccacheName;  // whose identity
  };
  virtual ~DirectoryConnector() = default;
  // Throws lumo::DNSUnavailableException when no server can be found, lumo::IOException when none answers,
  // LDAPException when the server refuses the identity.
  virtual std::unique_ptr<DirectoryConnection> open(const Target& target) = 0;
  // The site of this host in the domain, asked anew by an LDAP ping; empty when nobody tells. Never throws.
  virtual std::string site(const std::string& domain) = 0;

  static DirectoryConnector& getInstance();
  // Null puts the real one back. The caller keeps ownership. Only while one thread runs.
  static void setInstance(DirectoryConnector* connector);
};

// A directory binding as the rest of the system sees it; its class tells which threads may use it and what it throws.
class ADBind {
 public:
  virtual ~ADBind() = default;
  virtual std::vector<ADObjectPtr> search(const DirectorySearch& what) = 0;
  // The object at dn, null when there is none; all attributes for an empty list.
  virtual ADObjectPtr fetch(const std::string& dn, const std::vector<std::string>& attributes) = 0;
  virtual const std::string& domain() const = 0;
};

// A binding of this process to a domain or, with `globalCatalog`, to the forest's catalogue. The pointer is null.
class ADBinding : public ADBind {
 public:
  ADBinding(const std::string& domain, const std::string& ccacheName, bool globalCatalog, const std::string& server,
            const std::string& site, void*);
  // A binding to another domain with the other binding's identity.
  ADBinding(const std::string& domain, const ADBinding& other);
  ~ADBinding() override;

  // Opens it. The arguments are "", "" and 0 in every call. Throws as DirectoryConnector::open.
  void connect(const std::string& user, const std::string& password, int flags);
  // As DirectoryConnection. A connection that was lost since the last use (servers end idle ones) is opened anew once,
  // with another server where need be.
  std::vector<ADObjectPtr> search(const DirectorySearch& what) override;
  ADObjectPtr fetch(const std::string& dn, const std::vector<std::string>& attributes) override;
  const std::string& domain() const override { return m_target.domain; }

  // The binding's own release operation: closes it and deletes the object.
  void release();

 private:
  DirectoryConnector::Target m_target;
  std::unique_ptr<DirectoryConnection> m_connection;
};

// A text with the characters that an LDAP filter gives a meaning to escaped (RFC 4515).
std::string escapeFilterValue(const std::string& value);

// The DNS domain that a distinguished name (RFC 4514) belongs to: the DC components at its end joined by dots, lower
// case. Empty when there are none, or when the text is no distinguished name.
std::string dnsDomainOf(const std::string& dn);

// Is the text a distinguished name (RFC 4514) of at least one level?
bool isDistinguishedName(const std::string& text);

class DN {
 public:
  // As dnsDomainOf. Throws BadDataException "'%s' belongs to no domain" where that is empty.
  static std::string domainFromDN(const std::string& dn);
};

class LDAPBinding {
 public:
  // The distinguished name behind the first component; empty when there is none, or when the text is no distinguished
  // name (RFC 4514). The spelling of what is left stays.
  static std::string parent(const std::string& dn);
  static bool isServerUnavailableException(const LDAPException& failure) { return isServerUnavailable(failure); }
};
