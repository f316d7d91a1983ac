// The encryption types that the library knows and that the host allows.
#include <algorithm>

#include "basalt/kerberos/kerberos_credentials.h"
#include "basalt/kerberos/kerberos_handles.h"
#include "base/include/kerb_wrap.h"

unsigned krb5_enctypes_length() {
  // Assigned numbers end far below this (RFC 3961, section 8).
  constexpr krb5_enctype HIGHEST = 511;
  unsigned count = 0;
  for (krb5_enctype type = 1; type <= HIGHEST; ++type) {
    if (krb5_c_valid_enctype(type) != 0) ++count;
  }
  return count;
}

unsigned getKrb5EncList(int* list, unsigned capacity, const std::string&) {
  const KerberosContext context;
  lumo::KrbEncTypes permitted(context.get());
  lumo::requireKrb(context.get(), krb5_get_permitted_enctypes(context.get(), permitted.out()),
                   "krb5_get_permitted_enctypes");
  unsigned count = 0;
  for (const krb5_enctype* type = permitted.get(); *type != 0 && count < capacity; ++type) {
    if (krb5_c_valid_enctype(*type) != 0) list[count++] = *type;
  }
  return count;
}
