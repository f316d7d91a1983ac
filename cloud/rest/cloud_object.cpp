#include "cloud/include/cloud_object.h"

#include <tuple>

#include "base/include/logger.h"
#include "base/include/wipe.h"
#include "cloud/http/curl_text.h"
#include "cloud/include/curl_object.h"
#include "cloud/rest/platform_url.h"

namespace {

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.object", false); }

std::string encode(const CloudBase::Parameters& params) {
  std::string text;
  for (const auto& [key, value] : params) {
    if (!text.empty()) text += "&";
    text += percentEncoded(key) + "=" + percentEncoded(value);
  }
  return text;
}

}  // namespace

CurlObject& CloudBase::heldCurl() const {
  if (curl == nullptr) {
    LUMO_THROW(lumo::CloudException, -1, "The client holds no connection: take one with getCurl before the first call");
  }
  return *curl;
}

void CloudBase::keep(std::pair<long, std::string> result) {
  wipe(responseBody);
  std::tie(httpCode, responseBody) = std::move(result);
}

int CloudBase::exchange(const std::string& url, const std::string& content, bool isPost) {
  CurlObject& connection = heldCurl();
  requirePlatformUrl(url);
  keep(connection.perform(url, content, isPost ? 1 : 0));
  return processResult();
}

int CloudBase::post(const std::string& url, const std::string& content) {
  LUMO_LOG(logger(), lumo::level::Debug, "HTTP post URL = %s. with content", url.c_str());
  return exchange(url, content, true);
}

int CloudBase::post(const std::string& url, const Parameters& params, const std::string& content) {
  const std::string whole = url + "?" + encode(params);
  LUMO_LOG(logger(), lumo::level::Debug, "HTTP post with params URL = %s. content: (hidden)", url.c_str());
  return exchange(whole, content, true);
}

int CloudBase::get(const std::string& url) { return getMasked(url, url); }

int CloudBase::getMasked(const std::string& url, const std::string& masked) {
  LUMO_LOG(logger(), lumo::level::Debug, "HTTP get URL = %s", masked.c_str());
  return exchange(url, std::string(), false);
}

int CloudBase::get(const std::string& url, const Parameters& params) {
  const std::string whole = url + "?" + encode(params);
  LUMO_LOG(logger(), lumo::level::Debug, "HTTP get with params URL = %s", url.c_str());
  return exchange(whole, std::string(), false);
}

void CloudBase::setVerbose() { heldCurl().setOpt(CURLOPT_VERBOSE, 1); }

void CloudBase::setDebugTrace() {
  heldCurl().setOpt(CURLOPT_VERBOSE, 1);
  curl->setOpt(CURLOPT_DEBUGDATA, static_cast<void*>(curl));
  curl->setOpt(CURLOPT_DEBUGFUNCTION, &CurlObject::debugCallback);
}
