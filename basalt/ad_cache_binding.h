// A binding of the agent: it remembers what it found, and comes back when its server is gone.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "basalt/directory.h"
#include "base/include/mutex.h"

// What a search may do with the binding's memory; added up.
enum CacheOps : int {
  CACHE_READ = 1,    // answer from memory where it holds the answer
  CACHE_STORE = 2,   // remember the answer
  CACHE_MISSES = 4,  // remember also that there is nothing
  CACHE_RENEW = 8,   // ask the server even where memory holds the answer
};

// Any thread: one search at a time, the others wait. No wait on the network is without limit: SEARCH_LIMIT for one
// search with its reconnection, nothing at all within RETRY_PAUSE of a failed connection.
class ADCacheBinding : public ADBind {
 public:
  // What was remembered is good for so long.
  static constexpr std::chrono::minutes CACHE_LIFE{5};
  // After a connection that failed the next one is tried only so much later; in between, every search fails at once
  // with the same words.
  static constexpr std::chrono::seconds RETRY_PAUSE{5};

  // `ccache` names the identity's credential cache each time that a connection is opened; what it throws counts as a
  // connection that failed. Does not connect yet.
  ADCacheBinding(DirectoryConnector::Target target, std::function<std::string()> ccache);
  ~ADCacheBinding() override;

  // All objects that match. `base` empty: the whole domain or forest; `attributes` ends with a null pointer; `scope` 0
  // object, 1 one level, 2 subtree; `sizeLimit` 0 for none; `cacheOps` a sum of CacheOps; the last two are false in
  // every call. Every object holds also its objectGUID where the server gives it. Throws LDAPException: a server that
  // cannot be reached, is not to be found or went away is one for which LDAPBinding::isServerUnavailableException is
  // true; and KerberosException when the machine has no ticket to sign in with.
  boost::shared_ptr<ADObjectList> search(const std::string& filter, const std::string& base,
                                         const char* const* attributes, int scope, int sizeLimit, int cacheOps, bool,
                                         bool);

  // Reads the objects of these names with as few questions as possible and remembers them, those too that are not
  // there, so that a search with scope 0 and CACHE_READ answers from memory. Throws as search.
  void prefetch(const std::vector<std::string>& dns, const char* const* attributes);

  // Is the server there? Connects first where the connection was lost or never stood, as far as RETRY_PAUSE allows.
  // Never throws.
  bool isHealthy();

  // The seam's operations, without the memory.
  std::vector<ADObjectPtr> search(const DirectorySearch& what) override;
  ADObjectPtr fetch(const std::string& dn, const std::vector<std::string>& attributes) override;
  const std::string& domain() const override;
};
