// The process's own agent object, where it has one: its bindings to the directory and its site.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "basalt/ad_cache_binding.h"
#include "basalt/directory.h"
#include "base/include/kerb_wrap.h"

// Held by a process that started an agent; the command-line tool never does. Any thread.
class ADAgent {
 public:
  struct Options {
    std::string domain;     // DNS name; empty: that of the settings store or, without one, of the keytab
    std::string keytab;     // the machine's keys; empty: /etc/krb5.keytab
    std::string ccache;     // where the machine's tickets are kept; empty: /var/morvand/machine.ccache
    std::string server;     // a given controller, host or host:port; empty: found by DNS
    std::string catalogue;  // a given server of the catalogue; empty: found by DNS
  };

  // Makes this process one with an agent: opens the two bindings and asks for the site. A directory that cannot be
  // reached is no failure: the bindings come up by themselves when they are used and it is there. Throws
  // BadDataException "This process has an agent already", or when no domain is given or to be found. The agent lives
  // until stop(), or until the process ends.
  static void start(const Options& options);
  // Ends it. Nobody may hold or use the agent any more: queues are shut down before.
  static void stop();

  // The process's agent, or null. Both arguments are false, true in every call of this system.
  static ADAgent* GetADAgent(bool create, bool quiet);

  ~ADAgent();
  ADAgent(const ADAgent&) = delete;
  ADAgent& operator=(const ADAgent&) = delete;

  // Did the last use of the domain's binding reach a controller? Tries again first where it did not, as far as the
  // binding's RETRY_PAUSE allows. Never throws.
  bool isConnected();
  // Never null.
  ADCacheBinding* gcBinding();
  ADCacheBinding* dcBinding();
  // The Active Directory site of this host, empty when nobody told; asked anew each time that the domain's binding
  // comes back, and when it is older than ten minutes.
  std::string siteName();

  // One object, from the catalogue or, without it, from a controller; null when there is none. Throws LDAPException.
  ADObjectPtr find(const std::string& dn, const char* const* attributes, int cacheOps);
  // Reads many objects ahead, so that find with CACHE_READ answers from memory. Throws as find.
  void prefetch(const std::vector<std::string>& dns, const char* const* attributes);
  // Searches the whole forest in the catalogue or, when that cannot be reached, the domain in its controller. Throws
  // LDAPException.
  boost::shared_ptr<ADObjectList> searchGCorDC(const std::string& filter, const std::string& base,
                                               const char* const* gcAttributes, const char* const* dcAttributes,
                                               int cacheOps);

  // For the transfer's Kerberos side.
  KerberosContext& kerberosContext();
  ADBind* domainBinding() { return dcBinding(); }
  ADBind* catalogueBinding() { return gcBinding(); }

 private:
  explicit ADAgent(const Options& options);
};

// The lookup function for the agent's bindings: the given binding itself for its own domain, else a new binding with
// the given one's identity.
ADBind* GetAgentDomainBind(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*));

// The lookup function of a process without an agent: a new binding to the domain with the given one's identity. The
// caller releases it with `deleter`. Throws BadDataException, result code 2, when `binding` is no ADBinding, and what
// ADBinding::connect throws.
ADBind* OpenDomainBind(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*));
