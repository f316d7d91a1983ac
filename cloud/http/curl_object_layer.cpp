#include "cloud/http/curl_object_layer.h"

#include <algorithm>
#include <iterator>

#include "base/include/logger.h"
#include "base/include/string_helpers.h"
#include "cloud/http/curl_object_internal.h"

namespace {

constexpr long NEGOTIATE = static_cast<long>(CURLAUTH_NEGOTIATE);

// Rounds with one web server; Kerberos needs one, a mechanism behind SPNEGO seldom more than two.
constexpr int MAX_SERVER_ROUNDS = 4;

// A header without a value is not sent: the node takes the place of the token to come.
constexpr char EMPTY_PROXY_LINE[] = "Proxy-Authorization:";

// Texts that make the identity of a connection, and the mask that each belongs to. Only a secret is worth locked
// memory, which costs several system calls.
struct WatchedText {
  int option;
  int mask;
  bool secret;
};
constexpr WatchedText WATCHED_TEXTS[] = {
    {CURLOPT_PROXY, 0, false},
    {CURLOPT_PROXY_GSS_SPN, 0, false},
    {CURLOPT_PROXYUSERPWD, CURLOPT_PROXYAUTH, true},
    {CURLOPT_PROXYUSERNAME, CURLOPT_PROXYAUTH, false},
    {CURLOPT_PROXYPASSWORD, CURLOPT_PROXYAUTH, true},
    {CURLOPT_USERPWD, CURLOPT_HTTPAUTH, true},
    {CURLOPT_USERNAME, CURLOPT_HTTPAUTH, false},
    {CURLOPT_PASSWORD, CURLOPT_HTTPAUTH, true},
};
constexpr int WATCHED_MASKS[] = {CURLOPT_PROXYAUTH, CURLOPT_HTTPAUTH};

const WatchedText* watchedText(int option) {
  const auto* found = std::find_if(std::begin(WATCHED_TEXTS), std::end(WATCHED_TEXTS),
                                   [option](const WatchedText& text) { return text.option == option; });
  return found == std::end(WATCHED_TEXTS) ? nullptr : found;
}

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.proxy.gss", false); }

// The handle takes over the cookies of another one: a copied handle has an empty cookie engine.
void copyCookies(CURL* from, CURL* to) {
  curl_slist* list = nullptr;
  if (curl_easy_getinfo(from, CURLINFO_COOKIELIST, &list) != CURLE_OK) return;
  const CurlList cookies(list);
  for (const curl_slist* node = list; node != nullptr; node = node->next) {
    curl_easy_setopt(to, CURLOPT_COOKIELIST, node->data);
  }
}

}  // namespace

bool NegotiateLayer::Identity::operator==(const Identity& other) const {
  return names == other.names && secrets == other.secrets && masks == other.masks &&
         hasCredential == other.hasCredential && credentialOwner == other.credentialOwner;
}

bool NegotiateLayer::keep(int option, long value) {
  if (std::find(std::begin(WATCHED_MASKS), std::end(WATCHED_MASKS), option) == std::end(WATCHED_MASKS)) return false;
  told.masks[option] = value;
  return true;
}

bool NegotiateLayer::keep(int option, const char* text) {
  const WatchedText* watched = watchedText(option);
  if (watched == nullptr) return false;
  told.names.erase(option);
  told.secrets.erase(option);
  if (text == nullptr) return true;
  if (watched->secret) {
    told.secrets[option] = lumo::Shredder2(text);
  } else {
    told.names[option] = text;
  }
  return true;
}

bool NegotiateLayer::keep(int option, const lumo::Shredder2& secret) {
  const WatchedText* watched = watchedText(option);
  if (watched == nullptr) return false;
  told.names.erase(option);
  told.secrets[option] = secret;
  return true;
}

bool NegotiateLayer::keep(int option, gss_cred_id_t newCredential) {
  if (option != CURLOPT_PROXY_GSS_CRED) return false;
  credential = newCredential;
  told.hasCredential = newCredential != GSS_C_NO_CREDENTIAL;
  // Asked now: the owner may release the credential before the option is set again.
  told.credentialOwner = credentialOwner(newCredential);
  return true;
}

bool NegotiateLayer::keep(int option, GssSetupFunction function) {
  if (option != CURLOPT_PROXY_GSS_SETUP_FUNCTION) return false;
  setup = function;
  return true;
}

bool NegotiateLayer::keep(int option, ProxyGssCallbacks* block) {
  if (option != CURLOPT_PROXY_GSS_SETUP_DATA) return false;
  setupData = block;
  return true;
}

void NegotiateLayer::forget(int option) {
  told.names.erase(option);
  told.secrets.erase(option);
  told.masks.erase(option);
  keep(option, gss_cred_id_t{GSS_C_NO_CREDENTIAL});
  keep(option, GssSetupFunction{nullptr});
  keep(option, static_cast<ProxyGssCallbacks*>(nullptr));
}

bool NegotiateLayer::isActiveAt(int maskOption) const {
  if (credential == GSS_C_NO_CREDENTIAL) return false;
  const auto mask = told.masks.find(maskOption);
  if (mask == told.masks.end() || (mask->second & NEGOTIATE) == 0) return false;
  return (told.names.count(CURLOPT_PROXY) != 0) == (maskOption == CURLOPT_PROXYAUTH);
}

long NegotiateLayer::maskForCurl(int option, long mask) const {
  return mask == NEGOTIATE || isActiveAt(option) ? 0 : mask;
}

// What libcurl is given; 0 where no mask was set.
long NegotiateLayer::maskOfCurl(int option) const {
  const auto mask = told.masks.find(option);
  return mask == told.masks.end() ? 0 : maskForCurl(option, mask->second);
}

bool NegotiateLayer::mayAnswer(std::string_view headerLine) {
  return guard.judge(owner.handle, headerLine, maskOfCurl(CURLOPT_PROXYAUTH), maskOfCurl(CURLOPT_HTTPAUTH));
}

void NegotiateLayer::throwRefusal() const {
  if (guard.refusal().empty()) return;
  LUMO_LOG(logger(), lumo::level::Error, "%s", guard.refusal().c_str());
  LUMO_THROW(lumo::CurlException, -1, "%s", guard.refusal().c_str());
}

bool NegotiateLayer::withholds(int option) const {
  const WatchedText* text = watchedText(option);
  if (text == nullptr || text->mask == 0) return false;
  const auto mask = told.masks.find(text->mask);
  return mask != told.masks.end() && mask->second != 0 && maskForCurl(mask->first, mask->second) == 0;
}

// Connections, authentication state and the rest of what the handle learnt about its peers stay behind; a share of
// connections would leave the connections alone behind.
void NegotiateLayer::renewHandle() {
  CurlHandle renewed(curl_easy_duphandle(owner.handle));
  if (!renewed) LUMO_THROW(lumo::CurlException, -1, "Failed to create curl context");
  copyCookies(owner.handle, renewed.get());
  curl_easy_cleanup(owner.handle);
  owner.handle = renewed.release();
}

void NegotiateLayer::applyText(int option, const char* text) {
  if (!owns(option)) setCurl(owner.handle, option, withholds(option) ? nullptr : text);
}

void NegotiateLayer::applyAuthentication() {
  for (const auto& [option, mask] : told.masks) setCurl(owner.handle, option, maskForCurl(option, mask));
  for (const auto& [option, name] : told.names) applyText(option, name.c_str());
  for (const auto& [option, secret] : told.secrets) applyText(option, secret.c_str());
}

void NegotiateLayer::applyProxyTokens() {
  const bool active = isActiveAt(CURLOPT_PROXYAUTH);
  if (!active && !hasProxyTokens) return;
  hasProxyTokens = true;
  proxyLine = EMPTY_PROXY_LINE;
  proxyNode.data = proxyLine.data();
  // The mere node keeps libcurl from sending Basic, so it is there for the layer's own exchange only.
  setCurl(owner.handle, CURLOPT_PROXYHEADER, active ? &proxyNode : nullptr);
  setCurl(owner.handle, CURLOPT_SOCKOPTFUNCTION, active ? &NegotiateLayer::onNewSocket : nullptr);
  setCurl(owner.handle, CURLOPT_SOCKOPTDATA, static_cast<void*>(this));
  hasProxyTokens = active;
}

std::string NegotiateLayer::freshToken() {
  running.reset();
  const auto name = told.names.find(CURLOPT_PROXY_GSS_SPN);
  const char* text = name == told.names.end() ? nullptr : name->second.c_str();
  if (setup != nullptr && GSS_ERROR(static_cast<OM_uint32>(setup(nullptr, text, nullptr, nullptr, setupData)))) {
    LUMO_LOG(logger(), lumo::level::Debug, "The set-up of the Negotiate exchange failed.");
    return std::string();
  }
  if (text == nullptr) {
    LUMO_LOG(logger(), lumo::level::Debug, "No service name is set for the Negotiate exchange.");
    return std::string();
  }
  running = std::make_unique<NegotiateExchange>(text, credential);
  return running->start();
}

// Once per new connection, before CONNECT is built: a reused tunnel needs no token.
int NegotiateLayer::onNewSocket(void* layer, curl_socket_t, curlsocktype) noexcept {
  auto* self = static_cast<NegotiateLayer*>(layer);
  try {
    const std::string token = self->freshToken();
    self->proxyLine = EMPTY_PROXY_LINE;
    if (!token.empty()) self->proxyLine += " Negotiate " + token;
    self->proxyNode.data = self->proxyLine.data();
    return CURL_SOCKOPT_OK;
  } catch (...) {
    self->owner.callbackFailure = std::current_exception();
    return CURL_SOCKOPT_ERROR;
  }
}

CURLcode NegotiateLayer::exchange() {
  const bool isSame = used && *used == told;
  if (used && (leave || !isSame)) renewHandle();
  leave = false;
  if (!isSame) used = told;
  applyAuthentication();
  applyProxyTokens();
  running.reset();
  guard.begin();
  const CURLcode code = performBarred();
  running.reset();
  serverLine.clear();
  if (code != CURLE_OK) leaveConnections();
  return code;
}

CURLcode NegotiateLayer::performBarred() {
  const DefaultCredentialBar bar;
  if (!isActiveAt(CURLOPT_HTTPAUTH)) {
    const CURLcode code = owner.transfer();
    if (code == CURLE_OK && running) checkProxyReply();
    return code;
  }
  std::string token = freshToken();
  for (int round = 1;; ++round) {
    serverLine = token.empty() ? std::string() : "Authorization: Negotiate " + token;
    owner.buildHeaderList();
    const CURLcode code = owner.transfer();
    if (code != CURLE_OK || !running || round == MAX_SERVER_ROUNDS || !continueAtServer()) return code;
    token = serverLine;
    owner.rewindAttempt();
  }
}

// Reads the web server's reply. True when it wants another round; the token is then in serverLine.
bool NegotiateLayer::continueAtServer() {
  long status = 0;
  curl_easy_getinfo(owner.handle, CURLINFO_RESPONSE_CODE, &status);
  for (const std::string& line : owner.headerLines) {
    const std::optional<std::string> token = negotiateChallenge(line, "WWW-Authenticate");
    if (!token || token->empty()) continue;
    const bool fits = running->proceed(*token, serverLine);
    if (!fits) LUMO_LOG(logger(), lumo::level::Warn, "The web server's Negotiate token does not fit the exchange.");
    return fits && status == 401 && !serverLine.empty();
  }
  return false;
}

// A proxy may prove itself in its reply to CONNECT, the first block of header lines; most send nothing.
void NegotiateLayer::checkProxyReply() {
  for (const std::string& line : owner.headerLines) {
    if (trimWhiteSpace(line).empty()) return;
    const std::optional<std::string> token = negotiateChallenge(line, "Proxy-Authenticate");
    if (!token || token->empty()) continue;
    std::string answer;
    if (!running->proceed(*token, answer)) {
      LUMO_LOG(logger(), lumo::level::Warn, "The proxy's Negotiate token does not fit the exchange.");
    }
    return;
  }
}
