// Service principal names: parsed, and brought to the form that the directory knows.
#pragma once

#include <string>
#include <vector>

#include "basalt/directory/directory.h"

namespace lumo {

// service/host[:port][@realm]; an IPv6 address as host stands in brackets. One thread.
class CanonicalSpn {
 public:
  using Lookup = ADBind* (*)(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*));

  explicit CanonicalSpn(const std::string& spn);
  bool valid() const { return m_valid; }

  // Looks the account up by servicePrincipalName in the catalogue: by the name as it stands, without its port, and, for
  // a host without a domain, with the binding's domain behind it. Writes service/host[:port]@REALM, the realm that
  // account's domain in upper case, to `out`. A name with a realm keeps it. Names that differ in case only are one
  // name; the spelling of the account's own value is used. False, and `out` empty, when no account or more than one
  // holds the name. Throws what the bindings throw. `lookup` opens a binding to the account's domain when the
  // catalogue does not show how the account spells the name; null when there is no such function.
  bool canonicalize(std::string& out, ADBind& binding, ADBind& catalogue, Lookup lookup) const;

 private:
  // The names to look for, in order.
  std::vector<std::string> candidates(const std::string& domain) const;

  bool m_valid = false;
  std::string m_service, m_host, m_port, m_realm;
};

// The canonical form of the name as the catalogue or, where it cannot be asked, the controller behind `domain` tells
// it; of a name in another domain the controller knows nothing. Empty when the name is not valid or nobody knows it.
// Throws what the controller's binding throws.
std::string canonicalServiceName(const std::string& spn, ADBind& domain, ADBind& catalogue,
                                 CanonicalSpn::Lookup lookup);

}  // namespace lumo
