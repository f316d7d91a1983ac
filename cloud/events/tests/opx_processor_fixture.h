// The processor between a connector that gives codes and a platform behind a web proxy, each answering by a script.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "cloud/events/tests/opx_processor_access.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/include/opx.h"
#include "testsupport/http_server.h"
#include "testsupport/log_capture.h"
#include "testsupport/reply_script.h"
#include "testsupport/temp_folder.h"

class OpxTest : public CurlObjectTest {
 protected:
  static constexpr const char* PLATFORM = "https://localhost/";
  static constexpr const char* SSO = "GET /security/sso?OneTimePass=c-1";
  static constexpr const char* CODE = R"(<html>{"result":"success","otc":"c-1"}</html>)";
  static constexpr const char* SUCCESS = R"({"success":true})";

  static testsupport::HttpReply json(const std::string& body, const std::string& status = "200 OK") {
    return testsupport::httpReply(status, {}, body);
  }
  static testsupport::HttpReply session(const std::string& cookie = "m-1", const std::string& body = SUCCESS) {
    return testsupport::httpReply("200 OK", {"Set-Cookie: .ASPXAUTH=" + cookie + "; path=/; secure; HttpOnly"}, body);
  }
  static testsupport::HttpReply cut() {
    return {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{", testsupport::HttpReply::Close};
  }
  static std::string sent(const std::string& body) { return "POST /qrsintegration/LogPrivEvent " + body; }

  OpxTest() {
    access.platformUrl = PLATFORM;
    access.certStore = certificate.certificateFile;
    UpdateCloudHttpProxy();
  }
  // The next test finds what a process begins with.
  ~OpxTest() override {
    lumo::Props(false, true).eraseProperty("ferrod.cloud.proxy.server");
    UpdateCloudHttpProxy();
  }

  // What the platform answers next; past the end it is 500.
  void script(const std::vector<testsupport::HttpReply>& answers) { replies.set(answers); }
  void connectorSays(const testsupport::HttpReply& reply) {
    const std::lock_guard<std::mutex> lock(mutex);
    connectorReply = reply;
  }
  void signIn() {
    script({session()});
    access.processor.initProc(PLATFORM);
    ASSERT_EQ(access.machineCookie, "m-1");
    asked();
    logged();
  }

  // What the platform was asked since the last call: "METHOD TARGET BODY".
  std::vector<std::string> asked() { return askedOf(server, true); }
  std::vector<std::string> connectorAsked() { return askedOf(connector, false); }
  // The processor's records since the last call, as "LEVEL TEXT".
  std::vector<std::string> logged() { return log.newTexts("OPX.processor"); }
  std::string siteCheckUrl() const { return "http://" + connector.address() + "/iwa/SiteCheck"; }

 private:
  static std::vector<std::string> askedOf(testsupport::HttpServer& whom, bool tls) {
    std::vector<std::string> list;
    for (const testsupport::HttpRequest& request : whom.requests()) {
      if (request.tls != tls) continue;
      list.push_back(request.method() + " " + request.target() + (request.body.empty() ? "" : " " + request.body));
    }
    whom.forgetRequests();
    return list;
  }
  testsupport::HttpReply next(const testsupport::HttpRequest& request) {
    if (!request.tls) return testsupport::tunnelReply(true);
    const std::lock_guard<std::mutex> lock(mutex);
    cookies.push_back(request.header("Cookie"));
    if (duringRequest) duringRequest();
    return replies.next();
  }
  testsupport::HttpReply code() {
    const std::lock_guard<std::mutex> lock(mutex);
    return connectorReply;
  }

  std::mutex mutex;
  testsupport::ReplyScript replies;
  testsupport::HttpReply connectorReply = json(CODE);
  testsupport::TempFolder folder;

 protected:
  std::vector<std::string> cookies;  // of each request to the platform
  std::function<void()> duringRequest;
  testsupport::Certificate certificate = testsupport::makeCertificate(folder.path(), "server", {});
  // The proxy, and the platform behind it.
  testsupport::HttpServer server{[this](const testsupport::HttpRequest& request) { return next(request); },
                                 &certificate};
  testsupport::HttpServer connector{[this](const testsupport::HttpRequest&) { return code(); }};
  const SettingsScope settings{{"ferrod.cloud.proxy.server", server.address()},
                               {"ferrod.cloud.iwa.url", "http://" + connector.address() + "/"}};
  lumo::OPXProcessorAccess access;
  testsupport::LogCapture log{"TRACE"};
};
