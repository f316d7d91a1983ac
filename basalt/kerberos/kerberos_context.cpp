// What the platform adds to a Kerberos context: its copy, the joined domain as default realm, and its trace.
#include <algorithm>
#include <iterator>

#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/settings/settings_store.h"
#include "base/include/kerb_wrap.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace {

// The joined domain as a realm; empty when there is none or the settings cannot be read.
std::string joinedRealm() {
  try {
    return upper(lumo::loadSetting(SETTING_DOMAIN_NAME, false, false));
  } catch (const LUMOException& failure) {
    LUMO_LOG(getLogger("base.kerberos.wrap", false), lumo::level::Warn, "Cannot read the joined domain: %s",
             failure.what());
    return std::string();
  }
}

void setDefaultRealm(krb5_context context) {
  if (!lumo::realmOfProfile(context).empty()) return;
  const std::string realm = joinedRealm();
  if (!realm.empty()) krb5_set_default_realm(context, realm.c_str());
}

constexpr std::size_t LONGEST_TRACE_LINE = 4096;

// What the library's trace tells of a long-term key, or of what a key was proved with: with the sniffed exchange, or by
// itself, it lets a weak password be guessed. The phrases are the library's own.
constexpr const char* TELLS_OF_A_KEY[] = {"ncrypted timestamp", "ncrypted challenge", "AS key",
                                          "FAST reply key",     "FAST armor key",     "SPAKE "};

bool tellsOfAKey(const std::string& line) {
  return std::any_of(std::begin(TELLS_OF_A_KEY), std::end(TELLS_OF_A_KEY),
                     [&](const char* phrase) { return line.find(phrase) != std::string::npos; });
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
    const auto logger = getLogger("base.kerberos.wrap", false);
    if (!logger->isLevelEnabled(lumo::level::Debug)) return;
    std::string line = info->message;
    if (tellsOfAKey(line)) return;
    while (!line.empty() && line.back() == '\n') line.pop_back();
    LUMO_LOG(logger, lumo::level::Debug, "%s", lumo::printable(line, LONGEST_TRACE_LINE).c_str());
  } catch (...) {
    // No exception may cross the library's frames; the line is lost.
  }
}
