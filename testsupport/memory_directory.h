// A directory in memory: a forest of objects behind the seam of the real one.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "basalt/directory.h"

namespace testsupport {

// Does the object match an LDAP filter (RFC 4515)? Presence, equality and substrings without case, joined by &, | and
// !. A class or category named by `objectCategory` or `objectClass` is compared like any text. Throws LDAPException
// ("Bad search filter", rc -7) for a text that is no filter.
bool matchesFilter(const lumo::ADObject& object, const std::string& filter);

// Objects by distinguished name, held for the test's life; every open gives a view of them. Any thread.
class MemoryDirectory : public DirectoryConnector {
 public:
  struct Failure {
    enum class Kind { NoServers, Unreachable, Refused, Gone, Server } kind;
    int rc = -1;          // of Server
    std::string message;  // of Server; the other kinds have texts of their own
  };
  struct Search {
    bool globalCatalog;
    std::string domain;
    DirectorySearch what;
  };

  // `rootDomain` names the forest.
  explicit MemoryDirectory(std::string rootDomain);

  // Adds an object or replaces the one with that name; its domain is taken from the name. `distinguishedName` is set,
  // and an `objectClass` where there is none: every object has one.
  void add(const std::string& dn, const std::map<std::string, std::vector<std::string>>& attributes);
  void remove(const std::string& dn);
  // Attributes that a catalogue does not hold.
  void hideFromCatalogue(const std::string& attribute);

  // Every open / every search fails in that way from now on; `clearFailures` ends it. `times`: only so often.
  void failOpen(Failure failure, int times = -1);
  void failSearch(Failure failure, int times = -1);
  void clearFailures();

  std::vector<Target> opened() const;
  std::vector<Search> searches() const;

  // The site that this host is told.
  void setSite(const std::string& site);

  std::unique_ptr<DirectoryConnection> open(const Target& target) override;
  std::string site(const std::string& domain) override;

 private:
  class Connection;
  struct Pending {
    Failure failure;
    int times;
  };

  std::vector<ADObjectPtr> search(const Target& target, const DirectorySearch& what);

  const std::string m_rootDomain;
  mutable std::mutex m_mutex;
  std::map<std::string, ADObjectPtr, lumo::StringCaseLessThan> m_objects;
  std::vector<std::string> m_hidden;
  std::unique_ptr<Pending> m_openFailure, m_searchFailure;
  std::string m_site;
  std::vector<Target> m_opened;
  std::vector<Search> m_searches;
};

// Puts a directory in the real one's place for the scope.
class DirectoryInForce {
 public:
  explicit DirectoryInForce(DirectoryConnector& directory) { DirectoryConnector::setInstance(&directory); }
  ~DirectoryInForce() { DirectoryConnector::setInstance(nullptr); }
  DirectoryInForce(const DirectoryInForce&) = delete;
  DirectoryInForce& operator=(const DirectoryInForce&) = delete;
};

}  // namespace testsupport
