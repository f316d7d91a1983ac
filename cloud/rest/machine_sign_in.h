// The sign-in of this machine at a connector and of its users at the platform: what the clients that do it share.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "basalt/kerberos/kerberos_credentials.h"
#include "cloud/include/cloud_object_pool.h"

class CurlObject;

// Where a connector gives one-time codes, below its IWA URL.
inline constexpr char SITE_CHECK_PATH[] = "iwa/SiteCheck";
// The member of its answer that says how it went, and what it says when all is well.
inline constexpr char SITE_CHECK_RESULT[] = "result";
inline constexpr char SITE_CHECK_SUCCESS[] = "success";
inline constexpr char SITE_CHECK_CODE[] = "otc";
// Where the platform gives a session for a code, below its URL.
inline constexpr char SSO_PATH[] = "security/sso";

// Where this machine signs in, and `spn`, the name of the service there: `ferrod.cloud.iwa.url`, else the IWA URL of
// the connector in use. Empty where there is none. Throws what CloudConnectorLocator throws. `platformUrl` as for its
// getInstance.
std::string findIwaUrl(const std::string& platformUrl, std::string& spn);

// One exchange with a connector over somebody's connection: straight to it, as the machine. Once the object is gone, no
// option of the connection names the credential, and it holds no session that the connector set. One thread; the
// connection outlives the object.
class ConnectorVisit {
 public:
  // Throws what ADHelper::GetMachineCredCache throws. Without a usable credential the connector will refuse.
  explicit ConnectorVisit(CurlObject& lent);
  ~ConnectorVisit();
  ConnectorVisit(const ConnectorVisit&) = delete;
  ConnectorVisit& operator=(const ConnectorVisit&) = delete;

  // GETs the URL, whose service is `spn`: status and body. Proxy, user and session of the connection are forgotten; the
  // folder `ferrosec.cert.dir` is trusted, or anybody with `ferrod.iwa.skip.cert.verification`. Throws as
  // requireSignInUrl before anything else, and as CurlObject::perform; the connection then stays turned to the
  // connector.
  std::pair<long, std::string> ask(const std::string& url, const std::string& spn);
  // Turns the connection to the platform again, but for whom it trusts: that is the caller's. A session cookie that the
  // connector set is forgotten: only the platform sets the platform's session. Throws as
  // CurlObject::setProxy.
  void putBack(const CloudProxyInfo& proxy);

 private:
  void negotiateFor(const std::string& spn);
  void trustConnector();

  CurlObject& m_connection;
  lumo::GSSCredential m_credential;
  bool m_isThere = false;  // turned to the connector
};

// The JSON object that stands in a text: from its first "{" to its last "}". Part of the text.
struct EmbeddedObject {
  std::string_view text;
  char missing = '\0';  // the brace that is not there; '}' also when the last one stands before the first '{'
};
EmbeddedObject findEmbeddedObject(std::string_view text);

// The URL that hands a code to the platform, and what a log shows of it. The URL is wiped at the end.
class CodeUrl {
 public:
  // `url` is that of SSO_PATH. The code is percent-encoded: it comes from a connector, and must not add to the URL.
  CodeUrl(const std::string& url, const std::string& code);
  ~CodeUrl();
  CodeUrl(const CodeUrl&) = delete;
  CodeUrl& operator=(const CodeUrl&) = delete;

  const std::string& whole() const { return m_whole; }
  const std::string& shown() const { return m_shown; }

 private:
  std::string m_whole;
  std::string m_shown;
};

// The following requests are those of a session. Throws CurlException.
void useSession(CurlObject& connection, const std::string& session);
