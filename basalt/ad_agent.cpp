#include "basalt/ad_agent.h"

#include <memory>

#include "base/include/exceptions.h"
#include "base/include/string_helpers.h"

ADAgent* ADAgent::GetADAgent(bool, bool) { return nullptr; }

KerberosContext& ADAgent::kerberosContext() { LUMO_THROW(lumo::BadDataException, -1, "No agent"); }

ADCacheBinding* ADAgent::gcBinding() { return nullptr; }

ADCacheBinding* ADAgent::dcBinding() { return nullptr; }

ADBind* GetAgentDomainBind(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*)) {
  *deleter = nullptr;
  if (lower(domain) == lower(binding.domain())) return &binding;
  return OpenDomainBind(domain, binding, deleter);
}

ADBind* OpenDomainBind(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*)) {
  *deleter = nullptr;
  const auto* const own = dynamic_cast<ADBinding*>(&binding);
  if (own == nullptr) {
    LUMO_THROW(lumo::BadDataException, 2,
               "Failed to downcast ADBind to ADBinding, incorrect binding type was supplied!");
  }
  auto further = std::make_unique<ADBinding>(domain, *own);
  further->connect("", "", 0);
  *deleter = [](ADBind* opened) {
    if (opened != nullptr) static_cast<ADBinding*>(opened)->release();
  };
  return further.release();
}
