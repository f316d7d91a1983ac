#include "basalt/kerberos/kerberos_password.h"

#include "basalt/kerberos/kerberos_handles.h"

namespace lumo {

krb5_error_code ticketForPassword(krb5_context context, const std::string& principal, const Shredder& password,
                                  int lifetime, krb5_creds* creds) {
  KrbPrincipal client(context);
  krb5_error_code rc = krb5_parse_name(context, principal.c_str(), client.out());
  KrbInitOptions options(context);
  if (rc == 0) rc = krb5_get_init_creds_opt_alloc(context, options.out());
  if (rc != 0) return rc;
  krb5_get_init_creds_opt_set_tkt_life(options.get(), lifetime);
  krb5_get_init_creds_opt_set_canonicalize(options.get(), 1);
  krb5_get_init_creds_opt_set_change_password_prompt(options.get(), 0);
  // Not krb5_get_init_creds_password: after a refusal it sends the same guess to the primary KDC as well, and the
  // account is locked twice as fast.
  KrbInitCreds exchange(context);
  rc = krb5_init_creds_init(context, client.get(), nullptr, nullptr, 0, options.get(), exchange.out());
  if (rc == 0) rc = krb5_init_creds_set_password(context, exchange.get(), password.c_str());
  if (rc == 0) rc = krb5_init_creds_get(context, exchange.get());
  if (rc == 0) rc = krb5_init_creds_get_creds(context, exchange.get(), creds);
  return rc;
}

}  // namespace lumo
