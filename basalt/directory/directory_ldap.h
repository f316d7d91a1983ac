// The real directory: LDAP servers found by DNS.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "basalt/directory/directory.h"

// The process-wide connector over OpenLDAP with SASL GSSAPI. Any thread. Beside the exceptions of the seam it throws
// KerberosException when the credential cache is not usable.
DirectoryConnector& ldapDirectoryConnector();

namespace lumo {

// A server that was tried, and why it was of no use.
struct TriedServer {
  std::string server;
  std::string reason;
};

// `beginning`, then every server with its reason, as many as fit into an exception's message; of the rest the number.
std::string triedServersText(const std::string& beginning, const std::vector<TriedServer>& tried);

}  // namespace lumo
