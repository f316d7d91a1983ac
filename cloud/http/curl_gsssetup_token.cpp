#include "cloud/http/curl_gsssetup_token.h"

#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>

#include "basalt/files/base64.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace {

// 1.3.6.1.5.5.2, SPNEGO (RFC 4178).
gss_OID_desc spnegoMechanism = {6, const_cast<char*>("\x2b\x06\x01\x05\x05\x02")};

constexpr OM_uint32 WANTED_FLAGS = GSS_C_MUTUAL_FLAG | GSS_C_REPLAY_FLAG;

// Of foreign words in one record, in bytes.
constexpr std::size_t LONGEST_WORDS = 512;

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.proxy.gss", false); }

// A buffer that GSS-API filled; gss_release_buffer.
class OwnedBuffer {
 public:
  OwnedBuffer() = default;
  ~OwnedBuffer() {
    OM_uint32 minor = 0;
    gss_release_buffer(&minor, &buffer);
  }
  OwnedBuffer(const OwnedBuffer&) = delete;
  OwnedBuffer& operator=(const OwnedBuffer&) = delete;
  std::string text() const { return std::string(static_cast<const char*>(buffer.value), buffer.length); }

  gss_buffer_desc buffer = GSS_C_EMPTY_BUFFER;
};

// A view that GSS-API only reads.
gss_buffer_desc viewOf(const std::string& text) {
  gss_buffer_desc view;
  view.length = text.size();
  view.value = const_cast<char*>(text.data());
  return view;
}

void appendStatus(std::string& text, OM_uint32 code, int type) {
  OM_uint32 more = 0;
  do {
    OM_uint32 minor = 0;
    OwnedBuffer message;
    if (GSS_ERROR(gss_display_status(&minor, code, type, GSS_C_NO_OID, &more, &message.buffer))) return;
    if (!text.empty()) text += "; ";
    text += message.text();
  } while (more != 0);
}

std::string statusText(OM_uint32 major, OM_uint32 minor) {
  std::string text;
  appendStatus(text, major, GSS_C_GSS_CODE);
  if (minor != 0) appendStatus(text, minor, GSS_C_MECH_CODE);
  return text;
}

gss_name_t importName(const std::string& serviceName) {
  const bool principal = contains(serviceName, "/");
  std::string text = serviceName;
  // An empty realm lets the library find the host's realm; with none at all it would take the default one.
  if (principal && !contains(text, "@")) text += "@";
  gss_buffer_desc view = viewOf(text);
  gss_name_t name = GSS_C_NO_NAME;
  OM_uint32 minor = 0;
  const OM_uint32 major =
      gss_import_name(&minor, &view, principal ? GSS_KRB5_NT_PRINCIPAL_NAME : GSS_C_NT_HOSTBASED_SERVICE, &name);
  if (GSS_ERROR(major)) {
    LUMO_LOG(logger(), lumo::level::Warn, "The service name '%s' is not usable: %s",
             lumo::printable(serviceName, LONGEST_WORDS).c_str(),
             lumo::printable(statusText(major, minor), LONGEST_WORDS).c_str());
    return GSS_C_NO_NAME;
  }
  return name;
}

}  // namespace

DefaultCredentialBar::DefaultCredentialBar() {
  // A cache type that nobody knows: an empty cache of a known type would still be filled from a client keytab.
  OM_uint32 minor = 0;
  if (GSS_ERROR(gss_krb5_ccache_name(&minor, "NONE:", nullptr))) {
    LUMO_THROW(lumo::SystemException, -1, "The default Kerberos credential cannot be barred: %s",
               statusText(GSS_S_FAILURE, minor).c_str());
  }
}

DefaultCredentialBar::~DefaultCredentialBar() {
  OM_uint32 minor = 0;
  gss_krb5_ccache_name(&minor, nullptr, nullptr);
}

NegotiateExchange::NegotiateExchange(const std::string& serviceName, gss_cred_id_t credential)
    : m_serviceName(serviceName), m_name(importName(serviceName)), m_credential(credential) {}

NegotiateExchange::~NegotiateExchange() {
  OM_uint32 minor = 0;
  if (m_context != GSS_C_NO_CONTEXT) gss_delete_sec_context(&minor, &m_context, GSS_C_NO_BUFFER);
  if (m_name != GSS_C_NO_NAME) gss_release_name(&minor, &m_name);
}

std::string NegotiateExchange::start() {
  std::string token;
  if (m_name == GSS_C_NO_NAME || m_credential == GSS_C_NO_CREDENTIAL || m_context != GSS_C_NO_CONTEXT) return token;
  step(std::string(), token);
  return token;
}

bool NegotiateExchange::proceed(const std::string& peerToken, std::string& answer) {
  answer.clear();
  const std::optional<std::string> bytes = fromBase64(peerToken);
  if (!bytes || bytes->empty() || m_context == GSS_C_NO_CONTEXT || m_established) return false;
  return step(*bytes, answer);
}

bool NegotiateExchange::step(const std::string& input, std::string& output) {
  gss_buffer_desc view = viewOf(input);
  OwnedBuffer token;
  OM_uint32 minor = 0;
  const OM_uint32 major =
      gss_init_sec_context(&minor, m_credential, &m_context, m_name, &spnegoMechanism, WANTED_FLAGS, 0,
                           GSS_C_NO_CHANNEL_BINDINGS, &view, nullptr, &token.buffer, nullptr, nullptr);
  if (GSS_ERROR(major)) {
    LUMO_LOG(logger(), lumo::level::Warn, "Negotiate exchange failed: %s (service name '%s')",
             lumo::printable(statusText(major, minor), LONGEST_WORDS).c_str(),
             lumo::printable(m_serviceName, LONGEST_WORDS).c_str());
    return false;
  }
  m_established = major == GSS_S_COMPLETE;
  output = toBase64(token.buffer.value, token.buffer.length);
  return true;
}

std::string credentialOwner(gss_cred_id_t credential) {
  if (credential == GSS_C_NO_CREDENTIAL) return std::string();
  OM_uint32 minor = 0;
  gss_name_t name = GSS_C_NO_NAME;
  if (GSS_ERROR(gss_inquire_cred(&minor, credential, &name, nullptr, nullptr, nullptr))) return std::string();
  OwnedBuffer text;
  const OM_uint32 major = gss_display_name(&minor, name, &text.buffer, nullptr);
  gss_release_name(&minor, &name);
  return GSS_ERROR(major) ? std::string() : text.text();
}

std::optional<std::string> negotiateChallenge(const std::string& line, const std::string& name) {
  if (!startsWith(line, name + ":", true, false)) return std::nullopt;
  const std::string value = trimWhiteSpace(line.substr(name.size() + 1));
  static const std::string SCHEME = "Negotiate";
  if (!startsWith(value, SCHEME, true, false)) return std::nullopt;
  if (value.size() == SCHEME.size()) return std::string();
  if (value[SCHEME.size()] != ' ') return std::nullopt;
  return trimWhiteSpace(value.substr(SCHEME.size()));
}
