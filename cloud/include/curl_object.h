// One HTTP connection over libcurl: its options, headers, buffers and proxy state.
#pragma once

#include <curl/curl.h>

#include <exception>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/include/exceptions.h"
#include "base/include/shredder.h"
#include "cloud/http/curl_gsssetup.h"

namespace lumo {

// Always with the class name "CurlException" and result code -1.
LUMO_DECLARE_EXCEPTION(CurlException, Base_Exception);

}  // namespace lumo

// Four options that a distribution's libcurl does not have. setOpt and clearOpt take them like any other; the object
// keeps their values and does itself what they ask for: a Negotiate exchange for a given service name, with a given
// credential, after a given function was called.
inline constexpr int CURLOPT_PROXY_GSS_SPN = 10035;
inline constexpr int CURLOPT_PROXY_GSS_CRED = 10055;
inline constexpr int CURLOPT_PROXY_GSS_SETUP_FUNCTION = 20066;
inline constexpr int CURLOPT_PROXY_GSS_SETUP_DATA = 10067;

// Lower-case name of a proxy authentication type -> libcurl bit mask: "" 0, "negotiate" 4, "ntlm" 8, "digest" 2,
// "basic" 1, "anyauth" -17. Never changes; any thread.
extern const std::map<std::string, long> proxyAuthTypes;

class ExchangeLimits;
class NegotiateLayer;
struct CurlCallbacks;

// Owner of one libcurl easy handle. It speaks HTTP and HTTPS alone, also after a redirect. One thread at a time; the
// owner sees to that. Built once and used for many requests: options, `headers` and cookies stay until somebody changes
// them. The process ignores SIGPIPE. Whenever proxy, mask, user, credential or service name change, connections made
// under the former identity are no longer used.
class CurlObject {
 public:
  using ReadFunction = size_t (*)(char*, size_t, size_t, void*);
  using DebugFunction = int (*)(CURL*, curl_infotype, char*, size_t, void*);

  // Cookie engine on, no signals, certificate checks on, 30 seconds (CURLOPT_TIMEOUT) for an exchange. No certificate
  // is trusted until a bundle (CURLOPT_CAINFO) or a folder (CURLOPT_CAPATH) is named: what is built into libcurl does
  // not count. Throws CurlException "Failed to create curl context".
  CurlObject();
  ~CurlObject();
  CurlObject(const CurlObject&) = delete;
  CurlObject& operator=(const CurlObject&) = delete;

  // Sets an option and records its number. Throws CurlException "curl error occurred in curl_easy_setopt: %s (%d)" and
  // does not record it when libcurl refuses; also when the mask is NTLM alone and libcurl has no NTLM.
  // Trust is one thing: a bundle takes the place of a folder and the reverse, and the bundle, the folder and the two
  // options of verification hold for the server and for a proxy that is reached by TLS.
  void setOpt(int option, long value);
  void setOpt(int option, int value) { setOpt(option, static_cast<long>(value)); }
  void setOpt(int option, const char* value);
  void setOpt(int option, const std::string& value) { setOpt(option, value.c_str()); }
  void setOpt(int option, const lumo::Shredder2& secret);
  void setOpt(int option, void* object);
  void setOpt(int option, ReadFunction callback);  // also write and header callbacks
  void setOpt(int option, DebugFunction callback);
  void setOpt(int option, gss_cred_id_t credential);
  void setOpt(int option, GssSetupFunction callback);
  void setOpt(int option, ProxyGssCallbacks* block);

  // Takes a recorded option away; one that is not recorded leaves the handle alone. Throws CurlException "curl error
  // occurred in curl_easy_setopt to clear option: %s (%d)"; the number is no longer recorded then.
  void clearOpt(int option);

  // An empty proxy means a direct connection. `authType` is a name of proxyAuthTypes in any case, an unknown one counts
  // as "anyauth" (a record at level 3 tells, once for each name), an empty one sets no authentication. Throws
  // CurlException, and what canonicalizeSpn throws.
  void setProxy(const std::string& proxy, const std::string& authType, const std::string& user,
                const lumo::Shredder2& password);
  // A direct connection from here on; credential, user and password are forgotten. `clearUserCache`: the user's tickets
  // too. Throws CurlException.
  void clearProxy(bool clearUserCache);

  // One exchange, repeated once when a Negotiate proxy asked again. `post` is 0 for GET. Returns HTTP status and body;
  // any status counts as success. The body ends at its first zero byte.
  // CURLOPT_TIMEOUT, or CURLOPT_TIMEOUT_MS, is the time for each attempt with all its connections and replies, whatever
  // a peer sends; 0 is none. An attempt that ends by it, or by lumo::stopExchanges, is not repeated.
  // Throws CurlException "curl error occurred in curl_easy_perform: %s (%d)", "Not enough memory for curl write buffer"
  // (or "header lines", "trace"), "The header lines of the reply are longer than 2097152 bytes together." or why a
  // challenge of the peer is not answered (NTLM that allows weak responses only, Basic in place of something better),
  // lumo::SystemException when the default Kerberos credential cannot be barred, and what the GSS set-up function
  // throws. Wipes its copy of the body.
  std::pair<long, std::string> perform(const std::string& url, const std::string& body, int post);

  // Gives back what the last exchange left in memory: body, header lines, trace. To be called when another user gets
  // the object.
  void forgetExchange() noexcept;

  // What the platform keeps its sessions in.
  static constexpr char SESSION_COOKIE[] = ".ASPXAUTH";
  // Sends the cookie with the following requests, in place of a session cookie that an earlier reply left.
  void setCookie(const std::string& cookie);
  // From here on neither that cookie goes along nor a session cookie that a reply left; other cookies stay.
  void forgetSession();
  // The value of a cookie that replies left for the host of `url`: the first one of exactly that name whose domain is
  // that host or holds it, empty where there is none. One without a value is passed over; a value ends at its first
  // white space.
  std::string cookie(const std::string& name, const std::string& url) const;

  // The callback for CURLOPT_DEBUGFUNCTION; its data (CURLOPT_DEBUGDATA) is the object.
  static int debugCallback(CURL* handle, curl_infotype type, char* data, size_t size, void* object);

  // The options that are set; valid until the object goes.
  const std::set<int>& recordedOptions() const { return options; }
  // The header lines of the last exchange, the proxy's too, as they came; valid until the next perform.
  const std::vector<std::string>& lastHeaderLines() const { return headerLines; }

  // Another one after each change of identity: to be looked up here for each use. Cookies come to it by replies and
  // setOpt alone.
  CURL* handle = nullptr;
  // Name -> value, sent with every request to a server, not to a proxy; perform adds Content-Length.
  std::map<std::string, std::string> headers;
  // What the debug callback was given since the last perform began, credentials in headers included; wiped by the next
  // perform and with the object. About 8 MiB at the most; one that is cut says so in its last line.
  std::vector<std::string> debugLines;

 private:
  friend class NegotiateLayer;
  friend struct CurlCallbacks;

  template <class Value>
  void giveOwnOrCurl(int option, Value value);
  void setTrustSource(int option, const char* path);
  void clearProxyOptions();
  void clearCredentialOptions();
  void setCredentialOptions();
  void setProxyAuthentication(const std::string& proxy, long mask, const std::string& user,
                              const lumo::Shredder2& password);
  void prepareAttempt(const std::string& url, const std::string& body, int post);
  void rewindAttempt();
  void dropBody();
  void dropHeaders();
  void forgetTrace();
  void noteCookie(std::string_view headerLine);
  void setTransportDefaults();
  void setAttemptDefaults();
  void buildHeaderList();
  // curl_easy_perform within the limits of the exchange.
  CURLcode transfer();

  std::set<int> options;
  std::string requestBody;
  std::string responseBody;
  const char* readPosition = nullptr;
  size_t readLeft = 0;
  char* writeBuffer = nullptr;
  size_t writeLength = 0;
  size_t writeCapacity = 0;
  std::vector<std::string> headerLines;
  std::vector<std::string> headerStrings;
  std::vector<curl_slist> headerNodes;  // the list for libcurl; points into headerStrings
  CurlProxyNegotiateHelper negotiate;

 public:
  // For Negotiate at the web server; filled by the sign-in code, zero until then.
  ProxyGssCallbacks serverGssCallbacks;

 private:
  // What a callback threw; carried past libcurl's frames and rethrown after the transfer.
  std::exception_ptr callbackFailure;
  const std::unique_ptr<ExchangeLimits> limits;
  // What the cookie engine may hold: a session since it was forgotten last, any other cookie. libcurl writes all of its
  // cookies out to tell.
  bool hasSession = false;
  bool hasOtherCookies = false;
  // The four own options and what is done in their name.
  std::unique_ptr<NegotiateLayer> layer;
};
