// A directory in memory: a forest of objects behind the seam of the real one.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "basalt/directory/directory.h"

namespace testsupport {

// Does the object match an LDAP filter (RFC 4515)? Presence, equality and substrings without case, joined by &, | and
// !. A class or category named by `objectCategory` or `objectClass` is compared like any text. Throws LDAPException
// ("Bad search filter", rc -7) for a text that is no filter.
bool matchesFilter(const lumo::ADObject& object, const std::string& filter);

// The names that a filter asks for, in lower case, where it is "(distinguishedName=NAME)", "(cn=NAME)" or several of
// these joined by |; nothing for any other filter. A server finds such objects without looking at all others.
struct NamesAskedFor {
  std::vector<std::string> whole, common;
};
std::optional<NamesAskedFor> namesAskedFor(const std::string& filter);

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

  // Which servers fail.
  enum class Servers { All, Catalogue, Domain };

  // Adds an object or replaces the one with that name; its domain is taken from the name. As in every directory,
  // `distinguishedName` is set, an `objectClass` where there is none, and the common name of the name is one of `cn`.
  void add(const std::string& dn, const std::map<std::string, std::vector<std::string>>& attributes);
  void remove(const std::string& dn);
  // The object has the attribute, and no server shows its values.
  void makeUnreadable(const std::string& dn, const std::string& attribute);
  // Attributes that a catalogue does not hold.
  void hideFromCatalogue(const std::string& attribute);

  // Every open / every search fails in that way from now on; `clearFailures` ends it. `times`: only so often.
  // A search fails as a connection that stands does: with an LDAPException, "no answer in time" for NoServers and
  // Unreachable. `servers`: those of the catalogue or of the domains only; the failures of both stand beside each
  // other.
  void failOpen(Failure failure, int times = -1, Servers servers = Servers::All);
  void failSearch(Failure failure, int times = -1, Servers servers = Servers::All);
  void clearFailures();

  std::vector<Target> opened() const;
  std::vector<Search> searches() const;
  // Forgets what opened and searches tell.
  void forgetQuestions();

  // The site that this host is told; empty: nobody tells.
  void setSite(const std::string& site);
  // How often it was asked for.
  int sitesAsked() const;

  std::unique_ptr<DirectoryConnection> open(const Target& target) override;
  std::string site(const std::string& domain) override;

 private:
  class Connection;
  struct Pending {
    Failure failure;
    int times;
  };

  // Pending failures of the domains' servers and of the catalogue's.
  struct Failures {
    std::optional<Pending> of[2];
    bool shared = false;
    void set(const Failure& failure, int times, Servers servers);
    // The one that is due, else null; valid until the next change.
    const Failure* meet(const Target& target);
  };
  struct Held {
    ADObjectPtr object;
    std::string domain;
  };
  using Objects = std::map<std::string, Held, lumo::StringCaseLessThan>;

  void removeLocked(const std::string& dn);
  std::vector<ADObjectPtr> search(const Target& target, const DirectorySearch& what);
  // The objects to look at; `filtered`: all of them match.
  struct Candidates {
    std::vector<Objects::const_iterator> objects;
    bool filtered = false;
  };
  Candidates candidates(const std::string& base, const DirectorySearch& what) const;
  ADObjectPtr shown(const Target& target, const lumo::ADObject& object, const DirectorySearch& what) const;

  const std::string m_rootDomain;
  mutable std::mutex m_mutex;
  Objects m_objects;
  std::multimap<std::string, std::string, lumo::StringCaseLessThan> m_byCommonName;  // the names of m_objects
  std::vector<std::string> m_hidden;
  Failures m_openFailures, m_searchFailures;
  std::string m_site;
  int m_sitesAsked = 0;
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
