#include "basalt/directory_ldap.h"

#include "base/include/exceptions.h"

namespace {

class LdapConnector : public DirectoryConnector {
 public:
  std::unique_ptr<DirectoryConnection> open(const Target& target) override {
    LUMO_THROW(lumo::DNSUnavailableException, -1, "No directory server was found for the domain '%s'",
               target.domain.c_str());
  }
};

}  // namespace

DirectoryConnector& ldapDirectoryConnector() {
  static LdapConnector connector;
  return connector;
}
