// A login over real exchanges: a platform that answers by a script, and a list of what it was asked.
#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "testsupport/http_server.h"
#include "testsupport/log_capture.h"
#include "testsupport/reply_script.h"
#include "testsupport/temp_folder.h"

// All that goes out passes the proxy, so the platform may have any port.
template <class Client>
class LoginTest : public CurlObjectTest {
 protected:
  static constexpr const char* PLATFORM = "https://localhost/";
  static constexpr const char* POD = "127.0.0.1";
  static constexpr const char* USER = "alice@example.test";

  static testsupport::HttpReply json(const std::string& body) { return testsupport::httpReply("200 OK", {}, body); }
  // Success with that "Result", which is JSON text.
  static testsupport::HttpReply success(const std::string& result = "{}") {
    return json(R"({"success":true,"Result":)" + result + "}");
  }
  static testsupport::HttpReply refusal() { return json(R"({"success":false,"Message":"refused"})"); }
  static testsupport::HttpReply cut() {
    return {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"success\":true", testsupport::HttpReply::Close};
  }

  LoginTest() {
    access.maxConnections = 2;
    access.occupiedTimeout = 900;
    access.pool.setProxy(proxyInfo(server.address()));
    begin();
  }

  // A new login.
  void begin() {
    client = std::make_unique<Client>(PLATFORM, Client::VERSION, USER);
    client->getCurl("alice", "login");
    server.forgetRequests();
  }

  // What the platform answers next; past the end it is 500.
  void script(const std::vector<testsupport::HttpReply>& answers) { replies.set(answers); }
  bool scriptIsOver() { return replies.isOver(); }

  // What the log has to say, at TRACE, of an exchange with the platform that begins with this and is answered with
  // that.
  static std::vector<std::string> recordsOfExchange(const std::string& first, const std::string& answer) {
    return {"DEBUG HTTP " + first, "DEBUG HTTP code = 200",
            "DEBUG Dumping X-MRV-* headers:", "TRACE HTTP response: " + answer};
  }

  // What the platform was asked since the last call: "METHOD HOST TARGET BODY".
  std::vector<std::string> asked() {
    std::vector<std::string> list;
    for (const testsupport::HttpRequest& request : server.requests()) {
      if (!request.tls) continue;
      list.push_back(request.method() + " " + request.header("Host") + " " + request.target() +
                     (request.body.empty() ? "" : " " + request.body));
    }
    server.forgetRequests();
    return list;
  }

 private:
  testsupport::HttpReply next(const testsupport::HttpRequest& request) {
    return request.tls ? replies.next() : testsupport::tunnelReply(true);
  }

  testsupport::ReplyScript replies;
  testsupport::TempFolder folder;
  testsupport::Certificate certificate = testsupport::makeCertificate(folder.path(), "server", {"localhost", POD});

 protected:
  // The proxy, and the platform behind it.
  testsupport::HttpServer server{[this](const testsupport::HttpRequest& request) { return next(request); },
                                 &certificate};
  SettingsScope settings{{"ferrod.cloud.cert.store", certificate.certificateFile}};
  CloudCurlPoolAccess access;
  testsupport::LogCapture log{"TRACE"};
  std::unique_ptr<Client> client;
};
