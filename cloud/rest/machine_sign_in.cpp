#include "cloud/rest/machine_sign_in.h"

#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "base/include/wipe.h"
#include "cloud/http/cloud_object_certs.h"
#include "cloud/http/curl_text.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/include/curl_object.h"
#include "cloud/rest/platform_url.h"

std::string findIwaUrl(const std::string& platformUrl, std::string& spn) {
  std::string url = lumo::Props(false, false).getProperty(lumo::PN::CLOUD_IWA_URL_OVERRIDE);
  if (url.empty()) return CloudConnectorLocator::getInstance(platformUrl)->getIwaUrl(spn);
  spn = GetSPNFromIwaURL(url);
  return url;
}

ConnectorVisit::ConnectorVisit(CurlObject& lent) : m_connection(lent) {
  m_credential.acquireCred(ADHelper::GetMachineCredCache().c_str());
}

ConnectorVisit::~ConnectorVisit() {
  // The transfer may have thrown, and the handle is about to go. Behind putBack the option is the proxy's.
  if (!m_isThere) return;
  m_connection.clearOpt(CURLOPT_PROXY_GSS_CRED);
  try {
    m_connection.forgetSession();
  } catch (const LUMOException& failure) {
    LUMO_LOG(getLogger("cloud.object", false), lumo::level::Warn, "A connector's cookies could not be dropped: %s",
             failure.what());
  }
}

void ConnectorVisit::negotiateFor(const std::string& spn) {
  m_isThere = true;
  m_connection.clearProxy(false);
  // A session of the platform, perhaps a former user's, is nothing for a connector's eyes.
  m_connection.forgetSession();
  m_connection.setOpt(CURLOPT_PROXY_GSS_CRED, m_credential.get());
  m_connection.setOpt(CURLOPT_PROXY_GSS_SPN, spn);
  m_connection.setOpt(CURLOPT_PROXY_GSS_SETUP_FUNCTION, &serverGssSetup);
  m_connection.serverGssCallbacks = ProxyGssCallbacks();
  m_connection.serverGssCallbacks.kdcLocator = reinterpret_cast<void*>(&krb5_dc_locator_callback);
  m_connection.setOpt(CURLOPT_PROXY_GSS_SETUP_DATA, &m_connection.serverGssCallbacks);
  m_connection.setOpt(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_NEGOTIATE));
  m_connection.setOpt(CURLOPT_USERNAME, ":");
  // Without a URL there is the path alone, whose first word libcurl takes for a host: at least it has to prove that.
  m_connection.setOpt(CURLOPT_DEFAULT_PROTOCOL, "https");
}

void ConnectorVisit::trustConnector() {
  Trust trust;
  trust.verifies = verifies(lumo::PN::FERROD_IWA_SKIP_CERT_VERIFICATION);
  trust.folder = lumo::Props(false, false).getProperty(lumo::PN::FERROSEC_CERT_DIR, lumo::PN::DEFAULT_CERT_DIR);
  setTrust(m_connection, trust);
}

std::pair<long, std::string> ConnectorVisit::ask(const std::string& url, const std::string& spn) {
  requireSignInUrl(url);
  negotiateFor(spn);
  trustConnector();
  return m_connection.perform(url, std::string(), 0);
}

void ConnectorVisit::putBack(const CloudProxyInfo& proxy) {
  // One that the connector set would be the machine's, or go to the platform, whatever host it was set for.
  m_connection.forgetSession();
  m_connection.setOpt(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
  m_connection.clearOpt(CURLOPT_USERNAME);
  m_connection.clearOpt(CURLOPT_DEFAULT_PROTOCOL);
  m_connection.setProxy(proxy.proxyServer, proxy.proxyAuth, proxy.proxyUser, proxy.proxyPassword);
  // Also one that an earlier visit left, when it failed before the settings changed.
  m_connection.clearOpt(CURLOPT_CAPATH);
  m_isThere = false;
}

EmbeddedObject findEmbeddedObject(std::string_view text) {
  const std::size_t begin = text.find('{');
  if (begin == std::string_view::npos) return {{}, '{'};
  const std::size_t end = text.rfind('}');
  if (end == std::string_view::npos || end < begin) return {{}, '}'};
  return {text.substr(begin, end - begin + 1), '\0'};
}

CodeUrl::CodeUrl(const std::string& url, const std::string& code) : m_shown(url + "?OneTimePass=") {
  std::string escaped = percentEncoded(code);
  const WipeAtEnd wipeEscaped(escaped);
  // At once, so that no shorter copy stays behind.
  m_whole.reserve(m_shown.size() + escaped.size());
  m_whole.append(m_shown).append(escaped);
  m_shown += "(hidden)";
}

CodeUrl::~CodeUrl() { wipe(m_whole); }

void useSession(CurlObject& connection, const std::string& session) {
  std::string cookie;
  const WipeAtEnd wipeCookie(cookie);
  // At once, so that no shorter copy stays behind.
  cookie.reserve(sizeof CurlObject::SESSION_COOKIE + session.size() + 1);
  cookie.append(CurlObject::SESSION_COOKIE).append("=").append(session).append(";");
  connection.setCookie(cookie);
}
