#include "cloud/include/curl_object.h"

#include "cloud/http/curl_object_internal.h"
#include "cloud/http/curl_object_layer.h"
#include "cloud/http/exchange_limits.h"
#include "cloud/include/transport_start.h"

const std::map<std::string, long> proxyAuthTypes = {
    {"", static_cast<long>(CURLAUTH_NONE)},       {"negotiate", static_cast<long>(CURLAUTH_GSSNEGOTIATE)},
    {"ntlm", static_cast<long>(CURLAUTH_NTLM)},   {"digest", static_cast<long>(CURLAUTH_DIGEST)},
    {"basic", static_cast<long>(CURLAUTH_BASIC)}, {"anyauth", static_cast<long>(CURLAUTH_ANY)},
};

namespace {

constexpr long TRANSFER_SECONDS = 30;

// Two options, one limit of time: the later one counts, as with libcurl.
void noteTime(ExchangeLimits& limits, int option, long value) {
  if (option == CURLOPT_TIMEOUT) limits.setTime(std::chrono::seconds(value));
  if (option == CURLOPT_TIMEOUT_MS) limits.setTime(std::chrono::milliseconds(value));
}

}  // namespace

void throwSetOptFailure(CURLcode code) {
  LUMO_THROW(lumo::CurlException, -1, "curl error occurred in curl_easy_setopt: %s (%d)", curl_easy_strerror(code),
             static_cast<int>(code));
}

void requireNtlm(long mask, int features) {
  if (mask == static_cast<long>(CURLAUTH_NTLM) && (features & CURL_VERSION_NTLM) == 0) {
    LUMO_THROW(lumo::CurlException, -1,
               "The authentication type 'ntlm' cannot be used: the libcurl of this host is built without NTLM. "
               "Configure another type.");
  }
}

CurlObject::CurlObject() : limits(std::make_unique<ExchangeLimits>()), layer(std::make_unique<NegotiateLayer>(*this)) {
  lumo::startTransport();
  CurlHandle created(curl_easy_init());
  if (!created) LUMO_THROW(lumo::CurlException, -1, "Failed to create curl context");
  handle = created.get();
  setOpt(CURLOPT_COOKIEFILE, "");
  setOpt(CURLOPT_NOSIGNAL, 1);
  setOpt(CURLOPT_SSL_VERIFYPEER, 1);
  setOpt(CURLOPT_SSL_VERIFYHOST, 2);
  trustNothing(handle);
  setOpt(CURLOPT_TIMEOUT, TRANSFER_SECONDS);
  setTransportDefaults();
  hasOtherCookies = false;
  static_cast<void>(created.release());  // the destructor has it from here on
}

CurlObject::~CurlObject() {
  curl_easy_cleanup(handle);
  forgetExchange();
}

template <class Value>
void CurlObject::giveOwnOrCurl(int option, Value value) {
  if (!NegotiateLayer::owns(option)) {
    setCurl(handle, option, value);
  } else if (!layer->keep(option, value)) {
    throwSetOptFailure(CURLE_BAD_FUNCTION_ARGUMENT);
  }
  options.insert(option);
}

void CurlObject::setOpt(int option, long value) {
  if (NegotiateLayer::owns(option)) throwSetOptFailure(CURLE_BAD_FUNCTION_ARGUMENT);
  if (option == CURLOPT_PROXYAUTH || option == CURLOPT_HTTPAUTH) {
    requireNtlm(value, curl_version_info(CURLVERSION_NOW)->features);
  }
  setCurl(handle, option, layer->maskForCurl(option, value));
  if (const int ofProxy = verificationOfProxy(option); ofProxy != 0) setCurl(handle, ofProxy, value);
  layer->keep(option, value);
  noteTime(*limits, option, value);
  options.insert(option);
}

void CurlObject::setOpt(int option, const char* value) {
  if (NegotiateLayer::owns(option) && option != CURLOPT_PROXY_GSS_SPN) throwSetOptFailure(CURLE_BAD_FUNCTION_ARGUMENT);
  if (namesTrust(option)) {
    setTrustSource(option, value);
  } else if (option != CURLOPT_PROXY_GSS_SPN && !layer->withholds(option)) {
    setCurl(handle, option, value);
  }
  layer->keep(option, value);
  if (option == CURLOPT_COOKIEFILE || option == CURLOPT_COOKIELIST) hasOtherCookies = true;
  options.insert(option);
}

void CurlObject::setOpt(int option, const lumo::Shredder2& secret) {
  if (NegotiateLayer::owns(option)) throwSetOptFailure(CURLE_BAD_FUNCTION_ARGUMENT);
  if (!layer->withholds(option)) setCurl(handle, option, secret.c_str());
  layer->keep(option, secret);
  options.insert(option);
}

void CurlObject::setOpt(int option, void* object) {
  if (NegotiateLayer::owns(option)) throwSetOptFailure(CURLE_BAD_FUNCTION_ARGUMENT);
  setCurl(handle, option, object);
  options.insert(option);
}

void CurlObject::setOpt(int option, ReadFunction callback) {
  if (NegotiateLayer::owns(option)) throwSetOptFailure(CURLE_BAD_FUNCTION_ARGUMENT);
  setCurl(handle, option, callback);
  options.insert(option);
}

void CurlObject::setOpt(int option, DebugFunction callback) {
  if (NegotiateLayer::owns(option)) throwSetOptFailure(CURLE_BAD_FUNCTION_ARGUMENT);
  setCurl(handle, option, callback);
  options.insert(option);
}

void CurlObject::setOpt(int option, gss_cred_id_t credential) { giveOwnOrCurl(option, credential); }

void CurlObject::setOpt(int option, GssSetupFunction callback) { giveOwnOrCurl(option, callback); }

void CurlObject::setOpt(int option, ProxyGssCallbacks* block) { giveOwnOrCurl(option, block); }

void CurlObject::clearOpt(int option) {
  const auto recorded = options.find(option);
  if (recorded == options.end()) return;
  options.erase(recorded);
  layer->forget(option);
  noteTime(*limits, option, 0);
  if (NegotiateLayer::owns(option)) return;
  if (namesTrust(option)) return setTrustSource(option, nullptr);
  const CURLcode code = curl_easy_setopt(handle, static_cast<CURLoption>(option), nullptr);
  if (code != CURLE_OK) {
    LUMO_THROW(lumo::CurlException, -1, "curl error occurred in curl_easy_setopt to clear option: %s (%d)",
               curl_easy_strerror(code), static_cast<int>(code));
  }
}
