// A binding of the agent: it remembers what it found, and comes back when its server is gone.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "basalt/directory/ad_cache_binding_memory.h"
#include "basalt/directory/directory.h"
#include "base/include/mutex.h"

// What a search may do with the binding's memory; added up.
enum CacheOps : int {
  CACHE_READ = 1,    // answer from memory where it holds the answer
  CACHE_STORE = 2,   // remember the answer
  CACHE_MISSES = 4,  // remember also that there is nothing
  CACHE_RENEW = 8,   // ask the server even where memory holds the answer
};

// Any thread: one search at a time, the others wait; what memory answers waits for nothing. No wait on the network is
// without limit: SEARCH_LIMIT for one search with its reconnection, nothing at all within RETRY_PAUSE of a failed
// connection. A thread that waits does so for the searches that came before it; when one of these finds no server, all
// that wait fail with it. Objects that were handed out belong to the caller, memory keeps copies of its own.
class ADCacheBinding : public ADBind {
 public:
  // What was remembered is good for so long; of the most that is remembered see SearchMemory.
  static constexpr std::chrono::minutes CACHE_LIFE = lumo::SearchMemory::LIFE;
  // After a connection that failed, and after a server that was silent, the next one is tried only so much later; in
  // between, every search fails at once with the same words.
  static constexpr std::chrono::seconds RETRY_PAUSE{5};
  // For a ticket, the name service, and one server after the other. What takes longer goes on by itself; a search
  // behind RETRY_PAUSE finds it done, or waits again.
  static constexpr std::chrono::seconds CONNECT_LIMIT{60};
  // A connection that is lost on the last page, the next one, and the search anew. A server that falls silent is given
  // up much earlier, see LdapLimits.
  static constexpr std::chrono::seconds SEARCH_LIMIT = 2 * DIRECTORY_SEARCH_LIMIT + CONNECT_LIMIT;
  // For all questions of one prefetch; the question at hand may take its own SEARCH_LIMIT beyond.
  static constexpr std::chrono::seconds PREFETCH_LIMIT = DIRECTORY_SEARCH_LIMIT;
  // Names asked for by one question of prefetch: with fewer the answers wait for each other, with more the work of a
  // server grows faster than their number, and some servers refuse the filter.
  static constexpr std::size_t PREFETCH_BATCH = 50;

  // `ccache` names the identity's credential cache each time that a connection is opened; what it throws counts as a
  // connection that failed. It is called on a thread of the binding's own. Does not connect yet.
  ADCacheBinding(DirectoryConnector::Target target, std::function<std::string()> ccache,
                 std::chrono::milliseconds connectLimit = CONNECT_LIMIT);
  // Waits for a connection that is being opened.
  ~ADCacheBinding() override;

  // All objects that match. `base` empty: the whole domain or forest; `attributes` ends with a null pointer, null or
  // none for all; `scope` 0 object, 1 one level, 2 subtree; `sizeLimit` 0 for none; `cacheOps` a sum of CacheOps; the
  // last two are false in every call. Every object holds also its objectGUID where the server gives it. Never null.
  // Throws LDAPException: a server that cannot be reached, is not to be found or went away is one for which
  // LDAPBinding::isServerUnavailableException is true; and KerberosException when the machine has no ticket to sign in
  // with.
  boost::shared_ptr<ADObjectList> search(const std::string& filter, const std::string& base,
                                         const char* const* attributes, int scope, int sizeLimit, int cacheOps, bool,
                                         bool);
  // What that search with CACHE_READ has in memory; null when nothing. Asks nobody. Never throws.
  boost::shared_ptr<ADObjectList> recall(const std::string& filter, const std::string& base,
                                         const char* const* attributes, int scope, int sizeLimit);

  // Reads the objects of these names with as few questions as possible and remembers them, those too that are not
  // there, so that a search with scope 0, the filter "(objectClass=*)", these attributes and CACHE_READ answers from
  // memory. Names that memory holds are not asked for; one that the server refuses is left out. A server that
  // takes longer than PREFETCH_LIMIT for all of them counts as a silent one. Throws as search.
  void prefetch(const std::vector<std::string>& dns, const char* const* attributes);

  // Is the server there? Connects first where the connection was lost or never stood, as far as RETRY_PAUSE allows.
  // Never throws.
  bool isHealthy();
  // How often a connection came about: another number means that the binding was away and came back.
  unsigned connections() const { return m_connections; }
  // The credential cache as `ccache` names it now. Throws what that throws.
  std::string ccacheName() const { return m_ccache(); }

  // The seam's operations, without the memory. Throw as search.
  std::vector<ADObjectPtr> search(const DirectorySearch& what) override;
  ADObjectPtr fetch(const std::string& dn, const std::vector<std::string>& attributes) override;
  const std::string& domain() const override { return m_target.domain; }

 private:
  // Why there is no connection, to be said again within RETRY_PAUSE.
  struct Failure {
    bool kerberos;
    int rc;
    std::string text;
  };
  struct Opened {
    std::unique_ptr<DirectoryConnection> connection;
    std::optional<Failure> failure;
  };

  static Opened open(DirectoryConnector::Target target, const std::function<std::string()>& ccache);
  [[noreturn]] static void raise(const Failure& failure);
  // Both return whether the connection has just come about: any other may have been lost before now.
  bool requireConnection();
  bool connect();
  void beginOpening();
  // What comes of the opening under way, or of a new one where there is none.
  Opened awaitOpening(std::chrono::steady_clock::time_point end);
  [[noreturn]] void lose(Failure failure);
  void remember(const std::string& question, const ADObjectList& answer, int cacheOps);
  using TimePoint = std::chrono::steady_clock::time_point;
  struct Batch;
  void prefetchBatch(const Batch& batch, TimePoint end);
  void prefetchOne(const std::string& dn, const std::vector<std::string>& attributes, TimePoint end);
  // The next question of a prefetch.
  std::vector<ADObjectPtr> searchBefore(TimePoint end, const DirectorySearch& what);
  void announce(const DirectorySearch& what);

  const DirectoryConnector::Target m_target;
  const std::function<std::string()> m_ccache;
  const std::chrono::milliseconds m_connectLimit;
  lumo::SearchMemory m_memory;

  std::atomic<unsigned> m_connections{0};

  lumo::Mutex m_mutex;  // of all below
  std::unique_ptr<DirectoryConnection> m_connection;
  std::optional<Failure> m_failure;
  std::chrono::steady_clock::time_point m_failedAt;
  std::future<Opened> m_opening;  // its destructor waits for the thread
};
