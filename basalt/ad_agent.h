// The process's own agent object, where it has one.
#pragma once

#include "basalt/directory.h"
#include "base/include/kerb_wrap.h"

// Held by a process that started an agent; the command-line tool never does.
class ADAgent {
 public:
  // The process's agent, or null. Both arguments are false, true in every call of this system.
  static ADAgent* GetADAgent(bool create, bool quiet);

  KerberosContext& kerberosContext() { return m_context; }
  ADBind* domainBinding() { return m_domainBinding; }
  ADBind* catalogueBinding() { return m_catalogueBinding; }

 private:
  KerberosContext m_context;
  ADBind* m_domainBinding = nullptr;
  ADBind* m_catalogueBinding = nullptr;
};

// The lookup function for the agent's bindings: the given binding itself for its own domain, else OpenDomainBind.
ADBind* GetAgentDomainBind(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*));

// The lookup function of a process without an agent: a new binding to the domain with the given one's identity. The
// caller releases it with `deleter`. Throws BadDataException, result code 2, when `binding` is no ADBinding, and what
// ADBinding::connect throws.
ADBind* OpenDomainBind(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*));
