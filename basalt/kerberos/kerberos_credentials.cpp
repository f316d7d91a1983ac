#include "basalt/kerberos/kerberos_credentials.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/kerberos/kerberos_machine_cache.h"
#include "basalt/kerberos/kerberos_password.h"
#include "basalt/kerberos/kerberos_refusals.h"
#include "basalt/kerberos/kerberos_request.h"
#include "basalt/settings/settings_store.h"
#include "base/include/kerb_wrap.h"
#include "base/include/parameter_names.h"
#include "base/include/string_helpers.h"

namespace {

constexpr char NOT_ASKED_AGAIN[] = " (refused a moment ago; the same password is not sent again)";

// What a password request takes along to its thread.
struct PasswordRequest {
  lumo::Shredder password;
  std::string principal;
  int lifetime;

  krb5_error_code operator()(krb5_context context, krb5_creds* creds) const {
    return lumo::ticketForPassword(context, principal, password, lifetime, creds);
  }
};

// The principal in text form, in the given realm where there is one: its spelling is the directory's.
std::string inRealm(krb5_context context, krb5_const_principal principal, const std::string& realm) {
  lumo::KrbPrincipal copy(context);
  lumo::requireKrb(context, krb5_copy_principal(context, principal, copy.out()), "krb5_copy_principal");
  if (!realm.empty()) {
    lumo::requireKrb(context, krb5_set_principal_realm(context, copy.get(), realm.c_str()), "krb5_set_principal_realm");
  }
  return lumo::principalText(context, copy.get());
}

class RealCredentialSource : public KerberosCredentialSource {
 public:
  krb5_error_code ticketByPassword(krb5_context context, krb5_principal principal, const lumo::Shredder& password,
                                   const std::string& realm, int lifetime, krb5_creds* creds,
                                   std::string* errorText) override {
    if (password.empty() || std::strlen(password.c_str()) != password.size()) {
      // The library would ask for an empty password and cut one with a zero byte.
      if (errorText != nullptr)
        *errorText = password.empty() ? "The password is empty" : "The password holds a zero byte";
      return static_cast<krb5_error_code>(KRB5_PREAUTH_FAILED);
    }
    try {
      const std::string client = inRealm(context, principal, realm);
      if (const auto refusal = m_refusals.find(context, client, password)) {
        if (errorText != nullptr) *errorText = refusal->text + NOT_ASKED_AGAIN;
        return refusal->code;
      }
      std::string text;
      const krb5_error_code code =
          lumo::runKdcRequest(context, PasswordRequest{password, client, lifetime}, lumo::KDC_LIMIT, creds, &text);
      m_refusals.add(context, client, password, {code, text});
      if (code != 0 && errorText != nullptr) *errorText = text;
      return code;
    } catch (const KerberosException& failure) {
      if (errorText != nullptr) *errorText = failure.what();
      return failure.rc();
    }
  }

  std::string machineCache() override {
    return lumo::machineCredentialCache(lumo::path::MACHINE_KEYTAB, lumo::path::MACHINE_CCACHE);
  }

 private:
  lumo::PasswordRefusals m_refusals;
};

KerberosCredentialSource* replacement = nullptr;

}  // namespace

KerberosCredentialSource& KerberosCredentialSource::getInstance() {
  // Never destroyed: threads may use it to the very end.
  static auto* const own = new RealCredentialSource;
  return replacement != nullptr ? *replacement : *own;
}

void KerberosCredentialSource::setInstance(KerberosCredentialSource* source) { replacement = source; }

krb5_error_code getCredentials(krb5_context context, krb5_principal principal, const lumo::Shredder& password,
                               krb5_creds* creds, std::string* errorText, void*, void*, const std::string& realm,
                               int lifetime, void*) {
  return KerberosCredentialSource::getInstance().ticketByPassword(context, principal, password, realm, lifetime, creds,
                                                                  errorText);
}

std::string ADUser::getRealmName(const std::string& user, void*) {
  const std::string::size_type at = user.rfind('@');
  return upper(at != std::string::npos ? user.substr(at + 1) : lumo::loadSetting(SETTING_DOMAIN_NAME, false, false));
}

std::string ADHelper::GetMachineCredCache() { return KerberosCredentialSource::getInstance().machineCache(); }
