// The same requests by libcurl alone: what somebody writes who needs no more than them.
#pragma once

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "bench/platform.h"

// One kept connection. Bodies go out as libcurl has it easiest, in one packet with their heads, or by a callback that
// hands them out, as packets of their own.
class PlainCurl {
 public:
  enum Bodies { AsFields, ByCallback };

  PlainCurl(const Platform& platform, Bodies bodies) : m_url(platform.url()), m_bodies(bodies) {
    for (const char* line :
         {"Content-Type: application/json", "X-MORVANE-NATIVE-CLIENT: 1", "X-MRV-SRC: QRS", "X-TZOFF: 0"}) {
      m_headers = curl_slist_append(m_headers, line);
    }
    curl_easy_setopt(m_curl, CURLOPT_HTTPHEADER, m_headers);
    curl_easy_setopt(m_curl, CURLOPT_CAINFO, platform.bundle().c_str());
    curl_easy_setopt(m_curl, CURLOPT_WRITEFUNCTION, &PlainCurl::write);
    curl_easy_setopt(m_curl, CURLOPT_WRITEDATA, &m_reply);
    curl_easy_setopt(m_curl, CURLOPT_READFUNCTION, &PlainCurl::read);
    curl_easy_setopt(m_curl, CURLOPT_READDATA, &m_left);
    curl_easy_setopt(m_curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(m_curl, CURLOPT_NOSIGNAL, 1L);  // as in every process with threads
  }
  ~PlainCurl() {
    curl_easy_cleanup(m_curl);
    curl_slist_free_all(m_headers);
  }
  PlainCurl(const PlainCurl&) = delete;
  PlainCurl& operator=(const PlainCurl&) = delete;

  // All further requests go with this session.
  void useSession(const std::string& session) {
    curl_easy_setopt(m_curl, CURLOPT_COOKIE, (".ASPXAUTH=" + session + ";").c_str());
  }
  // The same with one of the machine's.
  void signIn(const std::string& code) {
    curl_easy_setopt(m_curl, CURLOPT_COOKIEFILE, "");
    require(get("security/sso?OneTimePass=" + code).find(R"("success":true)") != std::string::npos, "plain sign-in");
  }
  // Return the body of the reply, valid until the next request; throw std::runtime_error.
  const std::string& post(const std::string& path, const std::string& body) {
    curl_easy_setopt(m_curl, CURLOPT_POST, 1L);
    curl_easy_setopt(m_curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    if (m_bodies == AsFields) curl_easy_setopt(m_curl, CURLOPT_POSTFIELDS, body.c_str());
    m_left = body;
    return perform(path);
  }
  const std::string& get(const std::string& path) {
    curl_easy_setopt(m_curl, CURLOPT_HTTPGET, 1L);
    return perform(path);
  }

 private:
  static size_t write(char* data, size_t size, size_t count, void* reply) {
    static_cast<std::string*>(reply)->append(data, size * count);
    return size * count;
  }
  static size_t read(char* buffer, size_t size, size_t count, void* left) {
    auto& body = *static_cast<std::string_view*>(left);
    const size_t handed = std::min(size * count, body.size());
    std::memcpy(buffer, body.data(), handed);
    body.remove_prefix(handed);
    return handed;
  }
  const std::string& perform(const std::string& path) {
    m_reply.clear();
    curl_easy_setopt(m_curl, CURLOPT_URL, (m_url + path).c_str());
    require(curl_easy_perform(m_curl) == CURLE_OK, "plain transfer");
    return m_reply;
  }

  const std::string m_url;
  const Bodies m_bodies;
  CURL* m_curl = curl_easy_init();
  curl_slist* m_headers = nullptr;
  std::string m_reply;
  std::string_view m_left;
};
