// Service principal names: parsed, and brought to the form that the directory knows.
#pragma once

#include <string>

#include "basalt/directory.h"

namespace lumo {

// service/host[:port][@realm]. One thread.
class CanonicalSpn {
 public:
  using Lookup = ADBind* (*)(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*));

  explicit CanonicalSpn(const std::string& spn);
  bool valid() const { return m_valid; }

  // Looks the account up by servicePrincipalName in the catalogue and writes service/host[:port]@REALM, the realm that
  // account's domain in upper case, to `out`. A name with a realm keeps it. Names that differ in case only are one
  // name; the spelling of the account's own value is used. False, and `out` empty, when no account or more than one
  // holds the name. Throws what the bindings throw. `lookup` opens a binding to a further domain when the catalogue
  // alone cannot tell.
  bool canonicalize(std::string& out, ADBind& binding, ADBind& catalogue, Lookup lookup) const;

 private:
  bool m_valid = false;
  std::string m_service, m_host, m_port, m_realm;
};

}  // namespace lumo
