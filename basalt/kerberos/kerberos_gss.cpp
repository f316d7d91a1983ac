// GSS credentials, and the set-up that precedes a GSS exchange.
#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>

#include <utility>

#include "basalt/kerberos/kerberos_credentials.h"
#include "base/include/logger.h"
#include "base/include/printable.h"

namespace {

// Of foreign words in one record, in bytes.
constexpr std::size_t LONGEST_WORDS = 512;

// The library's words for one status value; both kinds may have several lines.
std::string statusText(OM_uint32 status, int kind) {
  std::string text;
  OM_uint32 more = 0;
  do {
    OM_uint32 minor = 0;
    gss_buffer_desc line = GSS_C_EMPTY_BUFFER;
    if (gss_display_status(&minor, status, kind, GSS_C_NO_OID, &more, &line) != GSS_S_COMPLETE) break;
    if (!text.empty()) text += "; ";
    text.append(static_cast<const char*>(line.value), line.length);
    gss_release_buffer(&minor, &line);
  } while (more != 0);
  return text;
}

}  // namespace

namespace lumo {

gss_cred_id_t GSSCredential::acquireCred(const char* ccacheName) {
  releaseCred();
  const auto logger = getLogger("base.kerberos.wrap", false);
  if (ccacheName == nullptr || ccacheName[0] == '\0') {
    LUMO_LOG(logger, lumo::level::Debug, "No credential cache to make a GSS credential from.");
    return m_handle;
  }
  gss_key_value_element_desc element = {"ccache", ccacheName};
  const gss_key_value_set_desc store = {1, &element};
  OM_uint32 minor = 0;
  // All mechanisms: one of Kerberos alone, used with SPNEGO, silently gives way to the default credential.
  const OM_uint32 major = gss_acquire_cred_from(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, GSS_C_NO_OID_SET,
                                                GSS_C_INITIATE, &store, &m_handle, nullptr, nullptr);
  if (major != GSS_S_COMPLETE) {
    releaseCred();
    const std::string reason = statusText(major, GSS_C_GSS_CODE) + ": " + statusText(minor, GSS_C_MECH_CODE);
    LUMO_LOG(logger, lumo::level::Warn, "Cannot make a GSS credential from %s: %s",
             printable(ccacheName, LONGEST_WORDS).c_str(), printable(reason, LONGEST_WORDS).c_str());
  }
  return m_handle;
}

void GSSCredential::releaseCred() noexcept {
  if (m_handle == GSS_C_NO_CREDENTIAL) return;
  OM_uint32 minor = 0;
  gss_release_cred(&minor, &m_handle);
  m_handle = GSS_C_NO_CREDENTIAL;
}

OM_uint32 GSSCredential::setAllowableEtypes(unsigned count, const int* list) {
  // Without a handle the call would limit nothing and say so to nobody.
  if (m_handle == GSS_C_NO_CREDENTIAL) return GSS_S_NO_CRED;
  OM_uint32 minor = 0;
  return gss_krb5_set_allowable_enctypes(&minor, m_handle, count, const_cast<krb5_enctype*>(list));
}

}  // namespace lumo
