// What the platform adds to a Kerberos context: its copy, the joined domain as default realm, and its trace.
#include <profile.h>

#include <memory>

#include "basalt/kerberos_handles.h"
#include "basalt/settings_store.h"
#include "base/include/kerb_wrap.h"
#include "base/include/logger.h"
#include "base/include/string_helpers.h"

namespace {

bool profileNamesRealm(krb5_context context) {
  profile_t raw = nullptr;
  if (krb5_get_profile(context, &raw) != 0) return false;
  const std::unique_ptr<struct _profile_t, decltype(&profile_release)> profile(raw, &profile_release);
  char* realm = nullptr;
  if (profile_get_string(profile.get(), "libdefaults", "default_realm", nullptr, nullptr, &realm) != 0) return false;
  const bool named = realm != nullptr && realm[0] != '\0';
  profile_release_string(realm);
  return named;
}

// The joined domain as a realm; empty when there is none or the settings cannot be read.
std::string joinedRealm() {
  try {
    return upper(lumo::loadSetting(SETTING_DOMAIN_NAME, false, false));
  } catch (const LUMOException& failure) {
    LUMO_LOG(getLogger("base.kerberos.wrap", false), 3, "Cannot read the joined domain: %s", failure.what());
    return std::string();
  }
}

void setDefaultRealm(krb5_context context) {
  if (profileNamesRealm(context)) return;
  const std::string realm = joinedRealm();
  if (!realm.empty()) krb5_set_default_realm(context, realm.c_str());
}

}  // namespace

krb5_context KerberosContext::clone() const {
  // krb5_copy_context reads what a user of the shared context may be changing.
  const lumo::Lock held(const_cast<KerberosContext*>(this)->lock());
  krb5_context copy = nullptr;
  const krb5_error_code rc = krb5_copy_context(m_context, &copy);
  if (rc != 0) throw KerberosException(rc, KerbMessage(rc, "copy context").c_str(), __FILE__, __LINE__);
  // The library's copy carries neither of these over.
  krb5_set_trace_callback(copy, mvd_krb5_trace_cb, nullptr);
  setDefaultRealm(copy);
  return copy;
}

void KerberosContext::profileUpdate() {
  const lumo::Lock held(lock());
  setDefaultRealm(m_context);
}

void mvd_krb5_trace_cb(krb5_context, const krb5_trace_info* info, void*) {
  if (info == nullptr) return;  // the context is being freed
  try {
    std::string line = info->message;
    while (!line.empty() && line.back() == '\n') line.pop_back();
    LUMO_LOG(getLogger("base.kerberos.wrap", false), 1, "%s", line.c_str());
  } catch (...) {
    // No exception may cross the library's frames; the line is lost.
  }
}
