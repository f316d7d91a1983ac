// The Negotiate exchange that libcurl cannot do for us: a given credential for a given service name, at the proxy or at
// the web server.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "cloud/http/curl_gsssetup_token.h"
#include "cloud/http/curl_object_challenge.h"
#include "cloud/include/curl_object.h"

// Keeps what CurlObject was told about authentication and does the exchange around curl_easy_perform. With a proxy set
// the four own options speak of the proxy, without one of the web server. libcurl never sees a mask of Negotiate alone,
// nor user and password that belong to it: it would use the process's default credential. One thread.
class NegotiateLayer {
 public:
  explicit NegotiateLayer(CurlObject& object) : owner(object) {}
  NegotiateLayer(const NegotiateLayer&) = delete;
  NegotiateLayer& operator=(const NegotiateLayer&) = delete;

  // One of the four options that libcurl does not have?
  static constexpr bool owns(int option) {
    return option == CURLOPT_PROXY_GSS_SPN || option == CURLOPT_PROXY_GSS_CRED ||
           option == CURLOPT_PROXY_GSS_SETUP_FUNCTION || option == CURLOPT_PROXY_GSS_SETUP_DATA;
  }

  // Remember a value. False when the option is none that the layer watches with a value of this kind.
  bool keep(int option, long value);
  bool keep(int option, const char* text);
  bool keep(int option, const lumo::Shredder2& secret);
  bool keep(int option, gss_cred_id_t newCredential);
  bool keep(int option, GssSetupFunction function);
  bool keep(int option, ProxyGssCallbacks* block);
  void forget(int option);

  // The mask that libcurl is given in place of `mask`.
  long maskForCurl(int option, long mask) const;
  // Is the text kept from libcurl, as it belongs to an exchange of the layer's own?
  bool withholds(int option) const;

  // One exchange with the owner's handle, all options set: leaves connections of another identity behind, bars the
  // default credential, adds tokens, and continues at a web server that answers with one.
  CURLcode exchange();
  // Takes the next header line of the exchange, before libcurl acts on it. False when the answer would reveal the
  // password: the transfer is to be ended.
  bool mayAnswer(std::string_view headerLine);
  // Throws CurlException with the reason when mayAnswer ended the last exchange; logs it at level 4.
  void throwRefusal() const;
  // The next request does not use the connections and the authentication state of this handle.
  void leaveConnections() { leave = true; }

  // The line "Authorization: Negotiate TOKEN" of the request that is being prepared, empty for none.
  const std::string& authorizationLine() const { return serverLine; }

 private:
  // Under whose name connections were made. Names, secrets and masks by option number.
  struct Identity {
    std::map<int, std::string> names;
    std::map<int, lumo::Shredder2> secrets;
    std::map<int, long> masks;
    bool hasCredential = false;
    std::string credentialOwner;
    bool operator==(const Identity& other) const;
  };

  bool isActiveAt(int maskOption) const;
  long maskOfCurl(int option) const;
  void renewHandle();
  void applyAuthentication();
  void applyText(int option, const char* text);
  void applyProxyTokens();
  std::string freshToken();
  CURLcode performBarred();
  bool continueAtServer();
  void checkProxyReply();
  static int onNewSocket(void* layer, curl_socket_t socket, curlsocktype purpose) noexcept;

  CurlObject& owner;
  Identity told;
  std::optional<Identity> used;
  bool leave = false;

  gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
  GssSetupFunction setup = nullptr;
  ProxyGssCallbacks* setupData = nullptr;

  ChallengeGuard guard;
  std::unique_ptr<NegotiateExchange> running;
  std::string proxyLine;
  std::string serverLine;
  curl_slist proxyNode{};
  bool hasProxyTokens = false;  // does the handle know proxyNode and onNewSocket?
};
