// What a connection trusts in TLS, at the server and at a proxy that is itself reached by TLS.
#include "cloud/http/curl_object_internal.h"

namespace {

constexpr const char* NOTHING = nullptr;

// A bundle and a folder of trusted certificates, and the option that says the same for the proxy.
struct TrustSource {
  int option;
  int ofProxy;
};
constexpr TrustSource BUNDLE = {CURLOPT_CAINFO, CURLOPT_PROXY_CAINFO};
constexpr TrustSource FOLDER = {CURLOPT_CAPATH, CURLOPT_PROXY_CAPATH};

void giveSource(CURL* handle, const TrustSource& source, const char* path) {
  setCurl(handle, source.option, path);
  setCurl(handle, source.ofProxy, path);
}

}  // namespace

bool namesTrust(int option) { return option == BUNDLE.option || option == FOLDER.option; }

int verificationOfProxy(int option) {
  if (option == CURLOPT_SSL_VERIFYPEER) return CURLOPT_PROXY_SSL_VERIFYPEER;
  return option == CURLOPT_SSL_VERIFYHOST ? CURLOPT_PROXY_SSL_VERIFYHOST : 0;
}

void trustNothing(CURL* handle) {
  giveSource(handle, BUNDLE, NOTHING);
  giveSource(handle, FOLDER, NOTHING);
  // libcurl would keep the certificates of a bundle for a day, whatever the file says meanwhile. Another TLS library
  // knows no such store and refuses the option.
  static_cast<void>(curl_easy_setopt(handle, CURLOPT_CA_CACHE_TIMEOUT, 0L));
}

void CurlObject::setTrustSource(int option, const char* path) {
  const TrustSource& named = option == BUNDLE.option ? BUNDLE : FOLDER;
  const TrustSource& other = option == BUNDLE.option ? FOLDER : BUNDLE;
  options.erase(other.option);
  giveSource(handle, other, NOTHING);
  giveSource(handle, named, path);
}
