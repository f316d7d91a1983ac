#include "basalt/kerberos/kerberos_handles.h"

#include <profile.h>

#include <memory>

#include "base/include/kerb_wrap.h"

namespace lumo {

BareKerberosContext::BareKerberosContext() {
  profile_t raw = nullptr;
  long rc = profile_init_path("", &raw);
  if (rc == 0) {
    const std::unique_ptr<struct _profile_t, decltype(&profile_release)> profile(raw, &profile_release);
    rc = krb5_init_context_profile(profile.get(), KRB5_INIT_CONTEXT_SECURE, &m_context);
  }
  if (rc != 0) {
    const int code = static_cast<int>(rc);
    throw KerberosException(code, KerbMessage(code, "init context").c_str(), __FILE__, __LINE__);
  }
}

std::string krbErrorText(krb5_context context, krb5_error_code code) {
  const char* text = krb5_get_error_message(context, code);
  std::string copy = text;
  krb5_free_error_message(context, text);
  return copy;
}

std::string realmOfProfile(krb5_context context) {
  profile_t raw = nullptr;
  if (krb5_get_profile(context, &raw) != 0) return std::string();
  const std::unique_ptr<struct _profile_t, decltype(&profile_release)> profile(raw, &profile_release);
  char* realm = nullptr;
  if (profile_get_string(profile.get(), "libdefaults", "default_realm", nullptr, nullptr, &realm) != 0) return {};
  std::string copy = realm != nullptr ? realm : "";
  profile_release_string(realm);
  return copy;
}

std::string principalText(krb5_context context, krb5_const_principal principal) {
  KrbNameText text(context);
  requireKrb(context, krb5_unparse_name(context, principal, text.out()), "krb5_unparse_name");
  return text.get();
}

void requireKrb(krb5_context context, krb5_error_code code, const char* what) {
  if (code == 0) return;
  const std::string reason = krbErrorText(context, code);
  throw KerberosException(code, exceptionMessage("%s: %s", what, reason.c_str()).c_str(), __FILE__, __LINE__);
}

}  // namespace lumo
