// Directory objects, bindings and the seam below them.
#pragma once

#include <boost/shared_ptr.hpp>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/include/exceptions.h"
#include "base/include/properties.h"

inline constexpr char AD_DN[] = "distinguishedName";
inline constexpr char AD_DNS_NAME[] = "dNSHostName";
inline constexpr char AD_USER_ACCNT_CONTROL[] = "userAccountControl";
inline constexpr char LUMO_USER_PRINCIPAL_NAME[] = "userPrincipalName";

namespace lumo {

// The values of one attribute, in the directory's order.
class ADAttribute {
 public:
  ADAttribute() = default;
  explicit ADAttribute(std::vector<std::string> values) : m_values(std::move(values)) {}
  const std::vector<std::string>& values() const { return m_values; }
  // The first value, empty when there is none.
  std::string toString() const { return m_values.empty() ? std::string() : m_values.front(); }
  operator std::string() const { return toString(); }
  // The first value read as a decimal number; 0 when it is none or does not fit.
  int toInt() const;

 private:
  std::vector<std::string> m_values;
};

// One object of the directory; attribute names compare without case.
class ADObject {
 public:
  explicit ADObject(std::string dn) : m_dn(std::move(dn)) {}
  const std::string& dn() const { return m_dn; }
  bool empty() const { return m_attributes.empty(); }
  // `withValue`: the attribute must also have a value that is not empty.
  bool attributeExists(const std::string& name, bool withValue) const;
  // The attribute, an empty one when it is missing.
  const ADAttribute& operator[](const std::string& name) const;
  void set(const std::string& name, std::vector<std::string> values);
  const std::map<std::string, ADAttribute, StringCaseLessThan>& attributes() const { return m_attributes; }

 private:
  std::string m_dn;
  std::map<std::string, ADAttribute, StringCaseLessThan> m_attributes;
};

// A security identifier in text form.
class SID {
 public:
  // Throws BadDataException for a text that is no SID.
  explicit SID(const std::string& text);
  // The form of a distinguished name that the directory resolves: "<SID=S-1-5-21-...>".
  std::string toDN() const;

 private:
  std::string m_text;
};

}  // namespace lumo

using ADObjectPtr = boost::shared_ptr<lumo::ADObject>;

enum class SearchScope { Base, OneLevel, Subtree };

struct DirectorySearch {
  std::string base;  // empty: the whole directory (the domain's root, or the forest in a catalogue)
  SearchScope scope = SearchScope::Subtree;
  std::string filter = "(objectClass=*)";
  std::vector<std::string> attributes;  // empty: all
};

// Does the exception mean that the server cannot be reached, went away, is too busy or did not answer in time?
bool isServerUnavailable(const LDAPException& failure);

// The seam of the directory: one open connection to a server. One thread at a time.
class DirectoryConnection {
 public:
  virtual ~DirectoryConnection() = default;
  // All objects that match, results paged below. A base that does not exist gives none. Throws LDAPException with the
  // server's words and the LDAP result code as rc(); isServerUnavailable tells when the server is gone or silent, and
  // the connection is then of no more use.
  virtual std::vector<ADObjectPtr> search(const DirectorySearch& what) = 0;
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

  static DirectoryConnector& getInstance();
  // Null puts the real one back. The caller keeps ownership. Only while one thread runs.
  static void setInstance(DirectoryConnector* connector);
};

// A directory binding as the rest of the system sees it.
class ADBind {
 public:
  virtual ~ADBind() = default;
  virtual std::vector<ADObjectPtr> search(const DirectorySearch& what) = 0;
  // The object at dn, null when there is none.
  virtual ADObjectPtr fetch(const std::string& dn, const std::vector<std::string>& attributes) = 0;
  virtual const std::string& domain() const = 0;
};

// A binding of this process to a domain or, with `globalCatalog`, to the forest's catalogue.
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
class DN {
 public:
  static std::string domainFromDN(const std::string& dn);
};
