// A plain client of the simulator: it sends what a test says, with the headers that belong there.
#pragma once

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <memory>
#include <string>
#include <vector>

#include "lab/platform/platform_json.h"
#include "lab/platform/platform_simulator.h"

namespace ferrolab {

struct Reply {
  CURLcode code = CURLE_OK;
  long status = 0;
  std::string body;
  std::string headers;

  // The text at a path, empty where there is none.
  std::string at(const std::string& path) const {
    rapidjson::Document document;
    document.Parse(body.data(), body.size());
    const JsonValue* value = document.HasParseError() ? nullptr : valueAt(document, path);
    return value == nullptr ? "" : value->IsString() ? stringOf(*value) : written(*value);
  }
  bool succeeded() const { return status == 200 && at("success") == "true"; }
  // The value of the cookie that it sets.
  std::string cookie() const {
    const size_t start = headers.find("Set-Cookie: .ASPXAUTH=");
    return start == std::string::npos ? "" : headers.substr(start + 22, headers.find(';', start) - start - 22);
  }
};

// Without a cookie engine: `cookie` is what goes along. One connection, which stays open.
class Client {
 public:
  explicit Client(std::string base, std::string authority = {})
      : m_base(std::move(base)), m_authority(std::move(authority)), m_handle(curl_easy_init(), &curl_easy_cleanup) {}

  Reply get(const std::string& path) { return send(path, "GET", ""); }
  Reply post(const std::string& path, const std::string& body) { return send(path, "POST", body); }
  Reply send(const std::string& path, const std::string& method, const std::string& body) {
    Reply reply;
    CURL* curl = m_handle.get();
    curl_easy_reset(curl);
    const std::string url = m_base + path;
    curl_slist* lines = nullptr;
    for (const auto& line : headers) lines = curl_slist_append(lines, line.c_str());
    if (!cookie.empty()) lines = curl_slist_append(lines, ("Cookie: " + cookie).c_str());
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, limit);
    if (!m_authority.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, m_authority.c_str());
    if (method == "POST" || !body.empty()) curl_easy_setopt(curl, CURLOPT_COPYPOSTFIELDS, body.c_str());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, lines);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply.body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &append);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &reply.headers);
    reply.code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
    curl_slist_free_all(lines);
    return reply;
  }

  // The session's dialogue.
  Reply start(const std::string& user) {
    return post("security/StartAuthentication", R"({"User":")" + user + R"(","Version":"1.0"})");
  }
  Reply answer(const std::string& mechanism, const std::string& text) {
    return advance(R"("Action":"Answer","Answer":")" + text + R"(",)", mechanism);
  }
  Reply poll(const std::string& mechanism) { return advance(R"("Action":"Poll",)", mechanism); }
  Reply startOob(const std::string& mechanism) { return advance(R"("Action":"StartOOB",)", mechanism); }
  // A mechanism's id begins with the session's.
  Reply advance(const std::string& action, const std::string& mechanism) {
    return post("security/AdvanceAuthentication", "{" + action + R"("MechanismId":")" + mechanism +
                                                      R"(","SessionId":")" + mechanism.substr(0, mechanism.find('.')) +
                                                      R"(","TenantId":"LAB0001"})");
  }

  std::vector<std::string> headers{"Content-Type: application/json", "X-MORVANE-NATIVE-CLIENT: 1", "X-MRV-SRC: QRS",
                                   "X-TZOFF: -330"};
  std::string cookie;
  long limit = 10000;

 private:
  static size_t append(const char* data, size_t size, size_t count, void* text) {
    static_cast<std::string*>(text)->append(data, size * count);
    return size * count;
  }

  std::string m_base;
  std::string m_authority;
  std::unique_ptr<CURL, void (*)(CURL*)> m_handle;
};

// A simulator without TLS, and a client of it. A test that expects surprises takes them.
class PlatformTest : public testing::Test {
 protected:
  explicit PlatformTest(const PlatformOptions& options = {}) : platform(options), client(platform.url()) {}
  void TearDown() override { EXPECT_THAT(takeSurprises(), testing::IsEmpty()); }

  std::vector<std::string> takeSurprises() {
    std::vector<std::string> all = platform.surprises();
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(m_taken));
    m_taken += all.size();
    return all;
  }
  void reset() {
    platform.reset();
    m_taken = 0;
  }
  // The machine's cookie, ready to send.
  std::string machineCookie(const std::string& machine = "HOST1$") {
    return ".ASPXAUTH=" + client.get("security/sso?OneTimePass=" + platform.mintCode(machine)).cookie() + ";";
  }
  // A user's cookie by impersonation; the client sends it from now on.
  void actAs(const std::string& user) {
    client.cookie = machineCookie();
    client.cookie =
        ".ASPXAUTH=" + client.post("security/startimpersonate", R"({"username":")" + user + R"("})").cookie() + ";";
  }

  PlatformSimulator platform;
  Client client;

 private:
  size_t m_taken = 0;
};

}  // namespace ferrolab
