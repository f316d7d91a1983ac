#include "basalt/kerberos/kerberos_names.h"

#include <vector>

#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/kerberos/kerberos_keytab.h"
#include "basalt/kerberos/kerberos_machine_account.h"
#include "base/include/exceptions.h"

std::optional<std::string> krb5EncTypeName(int encType) {
  char name[80] = {};
  if (krb5_enctype_to_string(encType, name, sizeof name) != 0) return std::nullopt;
  return name;
}

bool krb5EncTypeIsWeak(int encType) {
  return encType == ENCTYPE_ARCFOUR_HMAC || encType == ENCTYPE_ARCFOUR_HMAC_EXP || encType == ENCTYPE_DES3_CBC_SHA1;
}

std::optional<std::string> machinePrincipal(const std::string& path) {
  try {
    const lumo::BareKerberosContext context;
    const std::vector<lumo::MachineKey> keys = lumo::readMachineKeys(context.get(), path);
    const lumo::MachineKey* own = lumo::machineKey(keys);
    if (own != nullptr) return own->principal();
  } catch (const LUMOException&) {
    // A keytab that cannot be read is one without an account.
  }
  return std::nullopt;
}
