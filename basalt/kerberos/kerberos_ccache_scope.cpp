#include "basalt/kerberos/kerberos_ccache_scope.h"

#include <gssapi/gssapi_krb5.h>

#include "basalt/kerberos/kerberos_handles.h"
#include "base/include/kerb_wrap.h"

namespace lumo {
namespace {

void requireIdentity(const std::string& name) {
  const BareKerberosContext context;
  KrbCCache cache(context.get());
  KrbPrincipal principal(context.get());
  const std::string what = "The Kerberos credential cache '" + name + "' cannot be used";
  krb5_error_code rc = static_cast<krb5_error_code>(KRB5_CC_NOTFOUND);
  if (!name.empty()) rc = krb5_cc_resolve(context.get(), name.c_str(), cache.out());
  if (rc == 0) rc = krb5_cc_get_principal(context.get(), cache.get(), principal.out());
  requireKrb(context.get(), rc, what.c_str());
}

}  // namespace

KerberosCcacheScope::KerberosCcacheScope(const std::string& name) {
  requireIdentity(name);
  OM_uint32 minor = 0;
  const OM_uint32 major = gss_krb5_ccache_name(&minor, name.c_str(), nullptr);
  if (major != GSS_S_COMPLETE) {
    throw KerberosException(static_cast<int>(minor),
                            KerbMessage(static_cast<int>(minor), "gss_krb5_ccache_name").c_str(), __FILE__, __LINE__);
  }
}

KerberosCcacheScope::~KerberosCcacheScope() {
  // Not the name from before: giving the default back by name would pin it.
  OM_uint32 minor = 0;
  gss_krb5_ccache_name(&minor, nullptr, nullptr);
}

}  // namespace lumo
