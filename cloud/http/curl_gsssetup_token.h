// The client's side of a Negotiate exchange (RFC 4559), as text for HTTP headers. GSS-API's SPNEGO makes the tokens.
#pragma once

#include <gssapi/gssapi.h>

#include <optional>
#include <string>

// Bars this thread from the process's default credential cache while it lives: an application that meets no explicit
// credential finds none, whatever KRB5CCNAME or a client keytab offer. Throws lumo::SystemException when the bar cannot
// be set up.
class DefaultCredentialBar {
 public:
  DefaultCredentialBar();
  ~DefaultCredentialBar();
  DefaultCredentialBar(const DefaultCredentialBar&) = delete;
  DefaultCredentialBar& operator=(const DefaultCredentialBar&) = delete;
};

// One context with a peer. One thread. The credential is the caller's and must outlive it.
class NegotiateExchange {
 public:
  // The service name is a principal ("HTTP/host", with or without "@REALM") or host-based ("HTTP@host").
  NegotiateExchange(const std::string& serviceName, gss_cred_id_t credential);
  ~NegotiateExchange();
  NegotiateExchange(const NegotiateExchange&) = delete;
  NegotiateExchange& operator=(const NegotiateExchange&) = delete;

  // The first token in base64. Empty on failure, which is logged with the library's words and the service name. Asks
  // the KDC for the service ticket when the credential's cache has none: it waits as long as the Kerberos library does.
  std::string start();
  // Takes the peer's token in base64. True when it fits; the answer to be sent is then in `answer`, empty when there is
  // none to send.
  bool proceed(const std::string& peerToken, std::string& answer);
  bool established() const { return m_established; }

 private:
  bool step(const std::string& input, std::string& output);

  std::string m_serviceName;
  gss_name_t m_name = GSS_C_NO_NAME;
  gss_ctx_id_t m_context = GSS_C_NO_CONTEXT;
  gss_cred_id_t m_credential;
  bool m_established = false;
};

// Whose credential it is, as text; empty for none or one that cannot say.
std::string credentialOwner(gss_cred_id_t credential);

// The token of a challenge: the text behind "Negotiate " in the header line `name: Negotiate TOKEN`, "" for a bare
// "Negotiate". Nothing when the line is another header or another scheme. Header and scheme compare without case.
std::optional<std::string> negotiateChallenge(const std::string& line, const std::string& name);
