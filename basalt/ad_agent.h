// The process's own agent object, where it has one: its bindings to the directory and its site.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "basalt/directory/ad_cache_binding.h"
#include "basalt/directory/canonical_spn_memory.h"
#include "basalt/directory/directory.h"
#include "base/include/kerb_wrap.h"
#include "base/include/mutex.h"

// Held by a process that started an agent; the command-line tool never does. Any thread.
class ADAgent {
 public:
  struct Options {
    std::string domain;     // DNS name; empty: that of the settings store or, without one, of the keytab
    std::string keytab;     // the machine's keys; empty: /etc/krb5.keytab
    std::string ccache;     // where the machine's tickets are kept; empty: /var/morvand/machine.ccache
                            // (both empty: as ADHelper::GetMachineCredCache)
    std::string server;     // a given controller, host or host:port; empty: found by DNS
    std::string catalogue;  // a given server of the catalogue; empty: found by DNS
  };

  // Makes this process one with an agent: opens the two bindings and asks for the site. A directory that cannot be
  // reached is no failure: the bindings come up by themselves when they are used and it is there. Takes up to
  // ADCacheBinding::CONNECT_LIMIT for each of the two. Throws BadDataException "This process has an agent already", or
  // "This host belongs to no domain: ..." when none is given or to be found; KerberosException when no Kerberos context
  // can be made; and what lumo::loadSetting throws. The agent lives until stop(), or until the process ends.
  static void start(const Options& options);
  // Ends it; nothing happens without one. Nobody may hold or use the agent any more: queues are shut down before. Waits
  // for a connection that is being opened.
  static void stop();

  // The process's agent, or null. Both arguments are false, true in every call of this system. Takes no lock.
  static ADAgent* GetADAgent(bool create, bool quiet);

  ~ADAgent();
  ADAgent(const ADAgent&) = delete;
  ADAgent& operator=(const ADAgent&) = delete;

  // Did the last use of the domain's binding reach a controller? Tries again first where it did not, as far as the
  // binding's RETRY_PAUSE allows. Never throws.
  bool isConnected();
  // Never null; they live as long as the agent.
  ADCacheBinding* gcBinding() { return &m_catalogue; }
  ADCacheBinding* dcBinding() { return &m_domain; }
  // The Active Directory site of this host, empty when nobody told; asked anew each time that the domain's binding
  // comes back, and when it is older than SITE_LIFE. While nobody answers the last name stays, and the question is
  // put again after SITE_RETRY. Never throws.
  static constexpr std::chrono::minutes SITE_LIFE{10};
  static constexpr std::chrono::seconds SITE_RETRY{30};
  std::string siteName();
  // What siteName gave last, empty before. Asks nobody and waits for nothing.
  std::string lastSiteName();

  // One object, from the catalogue or, when that cannot be reached, from a controller; null when there is none, or for
  // an empty name. Throws LDAPException and KerberosException as ADCacheBinding::search.
  ADObjectPtr find(const std::string& dn, const char* const* attributes, int cacheOps);
  // What find with CACHE_READ has in memory: the object, or null where it is known that there is none; nothing where a
  // server would be asked. Asks nobody. Never throws.
  std::optional<ADObjectPtr> recall(const std::string& dn, const char* const* attributes);
  // Reads many objects ahead, so that find with CACHE_READ answers from memory. Throws as find.
  void prefetch(const std::vector<std::string>& dns, const char* const* attributes);
  // Searches the whole forest in the catalogue or, when that cannot be reached, the domain in its controller. A filter
  // of several terms side by side means that all must match. Never null. Throws as find.
  boost::shared_ptr<ADObjectList> searchGCorDC(const std::string& filter, const std::string& base,
                                               const char* const* gcAttributes, const char* const* dcAttributes,
                                               int cacheOps);

  // The canonical form of a service principal name, as lumo::canonicalServiceName has it from this agent's bindings;
  // empty too when the directory cannot be asked, which is logged. Remembered for lumo::SpnMemory::LIFE, an empty one
  // for MISS_LIFE: such a name is answered at once. Any other waits for the directory, one name at a time; no lock of a
  // caller should be held. Never throws.
  std::string canonicalServiceName(const std::string& spn);

  // For the transfer's Kerberos side: to be cloned, by any thread.
  KerberosContext& kerberosContext() { return m_kerberos; }
  ADBind* domainBinding() { return dcBinding(); }
  ADBind* catalogueBinding() { return gcBinding(); }

 private:
  explicit ADAgent(const Options& options);

  // What `ask` gives for the catalogue's binding or, when no server of it can be reached, for the domain's.
  template <class Ask>
  auto inCatalogueOrDomain(const Ask& ask);

  std::string askServiceName(const std::string& spn);

  ADCacheBinding m_domain;
  ADCacheBinding m_catalogue;
  KerberosContext m_kerberos;
  lumo::SpnMemory m_serviceNames;
  lumo::Mutex m_serviceNameMutex;  // held while a service name is asked for

  lumo::Mutex m_siteMutex;  // of all below, held while the site is asked
  std::string m_site;       // written under m_siteNameMutex too
  bool m_siteAsked = false;
  std::chrono::steady_clock::time_point m_siteDue;
  unsigned m_siteConnections = 0;
  lumo::Mutex m_siteNameMutex;
};

// The owner of a process's agent: ADAgent::start and stop as a scope. Queues whose items ask the agent end before it.
class RunningAgent {
 public:
  explicit RunningAgent(const ADAgent::Options& options) { ADAgent::start(options); }
  ~RunningAgent() { ADAgent::stop(); }
  RunningAgent(const RunningAgent&) = delete;
  RunningAgent& operator=(const RunningAgent&) = delete;
};

// The lookup function for the agent's bindings: the given binding itself for its own domain, else a new binding with
// the given one's identity.
ADBind* GetAgentDomainBind(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*));

// The lookup function of a process without an agent: a new binding to the domain with the given one's identity. The
// caller releases it with `deleter`. Throws BadDataException, result code 2, when `binding` is neither an ADBinding nor
// one of an agent, and what ADBinding::connect and ADCacheBinding::ccacheName throw.
ADBind* OpenDomainBind(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*));
