// The newest login between a connector and a platform that answer by a script.
#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/include/parameter_names.h"
#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/http/tests/curl_words.h"
#include "cloud/login/tests/cloud_auth_v1s_client.h"
#include "testsupport/http_server.h"
#include "testsupport/log_capture.h"
#include "testsupport/reply_script.h"
#include "testsupport/setting.h"

namespace v1stest {

using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;
using Texts = std::vector<std::string>;

// What several peers were asked, in its order.
class Journal {
 public:
  void add(std::string text) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_texts.push_back(std::move(text));
  }
  // Since the last call.
  Texts take() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::exchange(m_texts, {});
  }

 private:
  std::mutex m_mutex;
  Texts m_texts;
};

// "NAME METHOD TARGET [COOKIES] BODY"; cookies and body only where there are any.
inline std::string textOf(const std::string& name, const HttpRequest& request) {
  std::string text = name + " " + request.method() + " " + request.target();
  const std::string cookie = request.header("Cookie");
  if (!cookie.empty()) text += " [" + cookie + "]";
  if (!request.body.empty()) text += " " + request.body;
  if (request.header("X-MORVANE-NATIVE-CLIENT") != "1") text += " without X-MORVANE-NATIVE-CLIENT";
  return text;
}

// Answers by a script; past its end with 500. Opens tunnels to itself, so that it serves as a proxy too.
class Peer {
 public:
  Peer(std::string name, Journal& journal, const testsupport::Certificate* certificate = nullptr)
      : m_name(std::move(name)),
        m_journal(journal),
        m_server([this](const HttpRequest& request) { return answer(request); }, certificate) {}

  void script(const std::vector<HttpReply>& replies) { m_replies.set(replies); }
  std::string url() const { return "http://" + m_server.address() + "/"; }
  const HttpServer& server() const { return m_server; }

 private:
  HttpReply answer(const HttpRequest& request) {
    if (request.method() == "CONNECT") {
      m_journal.add(m_name + " CONNECT " + request.target());
      return testsupport::tunnelReply();
    }
    m_journal.add(textOf(m_name, request));
    return m_replies.next();
  }

  const std::string m_name;
  Journal& m_journal;
  testsupport::ReplyScript m_replies;
  HttpServer m_server;
};

inline HttpReply json(const std::string& body, const Texts& headers = {}) { return httpReply("200 OK", headers, body); }
// Success, and a session.
inline HttpReply session(const std::string& value) {
  return json(R"({"success":true})", {"Set-Cookie: .ASPXAUTH=" + value + "; path=/; HttpOnly"});
}
inline HttpReply success() { return json(R"({"success":true})"); }
inline HttpReply refusal() { return json(R"({"success":false,"Message":"no"})"); }
inline HttpReply unauthorized() { return httpReply("401 Unauthorized"); }
// The connection ends in the middle of the reply.
inline HttpReply cut() { return {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nabc", HttpReply::Close}; }
inline const std::string CUT_SHORT = curltest::transferFailed(CURLE_PARTIAL_FILE);
// The connector's code.
inline HttpReply code(const std::string& otc = "CODE-1") {
  return json("<html>" + std::string(R"({"result":"success","otc":")") + otc + "\"}</html>");
}

constexpr char SPN[] = "HTTP/connector.example.test@EXAMPLE.TEST";
constexpr char USER[] = "alice@example.test";

class V1STest : public CurlObjectTest {
 protected:
  V1STest() {
    access.maxConnections = 2;
    access.occupiedTimeout = 900;
    begin();
  }

  // A new client with a new connection.
  void begin(int profile = PROFILE_LOGIN, const std::string& uuid = "ID-1") {
    begin(platform.url(), connector.url(), profile, uuid);
  }
  void begin(const std::string& platformUrl, const std::string& connectorUrl, int profile = PROFILE_LOGIN,
             const std::string& uuid = "ID-1") {
    client.reset();
    access.pool.reapCurls();
    // Neither has TLS: an administrator wrote both URLs into the configuration.
    zone.set(platformUrl);
    signIn.set(connectorUrl);
    client = std::make_unique<V1SClient>(platformUrl, "1.0S", USER, uuid, connectorUrl, SPN, &profile);
    client->getCurl("alice", "login");
    records();
  }

  // The client's records since the last call, as "LEVEL TEXT".
  Texts records() { return log.newTexts("cloud.object"); }
  // The same without what every exchange logs.
  Texts ownRecords() {
    Texts own;
    for (std::string& record : records()) {
      if (record.compare(0, 10, "DEBUG HTTP") == 0 || record.compare(0, 10, "TRACE HTTP") == 0 ||
          record == "DEBUG Dumping X-MRV-* headers:" || record.compare(0, 27, "DEBUG processResult returns") == 0) {
        continue;
      }
      own.push_back(std::move(record));
    }
    return own;
  }

  Journal journal;
  Peer connector{"connector", journal};
  Peer platform{"platform", journal};
  testsupport::Setting zone{lumo::PN::LEGACYZONE_CLOUDURL, ""};
  testsupport::Setting signIn{lumo::PN::CLOUD_IWA_URL_OVERRIDE, ""};
  CloudCurlPoolAccess access;
  testsupport::LogCapture log{"TRACE"};
  std::unique_ptr<V1SClient> client;
};

}  // namespace v1stest
