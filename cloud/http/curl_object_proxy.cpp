#include "base/include/logger.h"
#include "base/include/mutex.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"
#include "cloud/http/curl_object_internal.h"
#include "cloud/http/curl_object_layer.h"

namespace {

bool isUnreserved(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

void appendEscaped(lumo::Shredder2& text, const char* data, size_t length) {
  static constexpr char DIGITS[] = "0123456789ABCDEF";
  for (size_t i = 0; i < length; ++i) {
    const auto c = static_cast<unsigned char>(data[i]);
    if (isUnreserved(c)) {
      text += data[i];
    } else {
      const char escaped[] = {'%', DIGITS[c >> 4], DIGITS[c & 15]};
      text.append(escaped, sizeof escaped);
    }
  }
}

// user ":" password as libcurl wants it, which decodes both before use.
lumo::Shredder2 userAndPassword(const std::string& user, const lumo::Shredder2& password) {
  lumo::Shredder2 text;
  appendEscaped(text, user.data(), user.size());
  text += ':';
  appendEscaped(text, password.data(), password.size());
  return text;
}

// Once for each name in turn: a proxy is set for every request of a pool.
void noteUnknownType(const std::string& authType) {
  static lumo::Mutex mutex;
  static std::string noted;
  {
    const lumo::Lock lock(mutex);
    if (noted == authType) return;
    noted = authType;
  }
  LUMO_LOG(getLogger("cloud.proxy.gss", false), lumo::level::Warn,
           "The proxy authentication type '%s' is unknown and counts as 'anyauth'.", lumo::printable(authType).c_str());
}

long maskOf(const std::string& authType) {
  const auto found = proxyAuthTypes.find(lower(authType));
  if (found != proxyAuthTypes.end()) return found->second;
  noteUnknownType(authType);
  return proxyAuthTypes.at("anyauth");
}

}  // namespace

lumo::Shredder2 percentEscape(const char* data, size_t length) {
  lumo::Shredder2 text;
  appendEscaped(text, data, length);
  return text;
}

void CurlObject::clearProxyOptions() {
  for (const int option : {CURLOPT_PROXY, CURLOPT_PROXYAUTH, CURLOPT_PROXYUSERPWD}) clearOpt(option);
  setOpt(CURLOPT_HTTPPROXYTUNNEL, 0);
  clearOpt(CURLOPT_PROXY_GSS_SPN);
  clearCredentialOptions();
}

void CurlObject::clearCredentialOptions() {
  for (const int option : {CURLOPT_PROXY_GSS_CRED, CURLOPT_PROXY_GSS_SETUP_FUNCTION, CURLOPT_PROXY_GSS_SETUP_DATA}) {
    clearOpt(option);
  }
}

void CurlObject::setCredentialOptions() {
  if (negotiate.credential() == GSS_C_NO_CREDENTIAL) return;
  setOpt(CURLOPT_PROXY_GSS_CRED, negotiate.credential());
  setOpt(CURLOPT_PROXY_GSS_SETUP_FUNCTION, negotiate.setupFunction());
  negotiate.callbackBlock()->helper = &negotiate;
  setOpt(CURLOPT_PROXY_GSS_SETUP_DATA, negotiate.callbackBlock());
}

void CurlObject::setProxy(const std::string& proxy, const std::string& authType, const std::string& user,
                          const lumo::Shredder2& password) {
  clearProxyOptions();
  negotiate.clearGSSCredential(false);
  negotiate.setCredentials("", lumo::Shredder2());
  if (proxy.empty()) return;
  setOpt(CURLOPT_PROXY, proxy);
  if (!authType.empty()) setProxyAuthentication(proxy, maskOf(authType), user, password);
  setOpt(CURLOPT_HTTPPROXYTUNNEL, 1);
}

void CurlObject::setProxyAuthentication(const std::string& proxy, long mask, const std::string& user,
                                        const lumo::Shredder2& password) {
  setOpt(CURLOPT_PROXYAUTH, mask);
  setOpt(CURLOPT_PROXYUSERPWD, userAndPassword(user, password));
  const std::string plainName = "HTTP/" + proxy.substr(0, proxy.find(':'));
  const std::string canonicalName = negotiate.canonicalizeSpn(plainName);
  setOpt(CURLOPT_PROXY_GSS_SPN, canonicalName.empty() ? plainName : canonicalName);
  const bool alone = mask == static_cast<long>(CURLAUTH_NEGOTIATE);
  if (!alone && mask != static_cast<long>(CURLAUTH_ANY)) return;
  negotiate.setCredentials(user, password);
  if (!alone) return;
  negotiate.initGSSCredential();
  setCredentialOptions();
}

void CurlObject::clearProxy(bool clearUserCache) {
  clearProxyOptions();
  negotiate.clearGSSCredential(clearUserCache);
  negotiate.setCredentials("", lumo::Shredder2());
}
