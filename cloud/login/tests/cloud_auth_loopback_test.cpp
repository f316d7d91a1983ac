// Replies of every kind through a real HTTPS server.
#include <gmock/gmock.h>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/include/cloud_auth.h"
#include "cloud/login/tests/cloud_auth_client.h"
#include "testsupport/http_server.h"
#include "testsupport/log_capture.h"
#include "testsupport/temp_folder.h"

namespace {

using testing::ElementsAre;
using testsupport::httpReply;
using testsupport::HttpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;

using Client = AuthClient;

class CloudAuthLoopback : public CurlObjectTest {
 protected:
  CloudAuthLoopback() {
    access.maxConnections = 2;
    access.occupiedTimeout = 900;
    access.pool.setProxy(proxyInfo(server.address()));
    client.getCurl("alice", "login");
  }

  int answered(const HttpReply& answer) {
    reply = answer;
    return client.post(client.cloudUrl + "security/StartAuthentication", "{}");
  }
  std::string text(const char* key) const {
    std::string out;
    CloudAuth::getJsonStringOptional(client.document, key, out);
    return out;
  }

  testsupport::TempFolder folder;
  testsupport::Certificate certificate = testsupport::makeCertificate(folder.path(), "server", {});
  HttpReply reply;
  // The proxy, and the platform behind it.
  HttpServer server{[this](const HttpRequest& request) { return request.tls ? reply : testsupport::tunnelReply(true); },
                    &certificate};
  SettingsScope settings{{"ferrod.cloud.cert.store", certificate.certificateFile}};
  CloudCurlPoolAccess access;
  Client client{"https://localhost/"};
};

}  // namespace

TEST_F(CloudAuthLoopback, SuccessAndRefusal) {
  EXPECT_EQ(answered(httpReply("200 OK", {}, R"({"success":true,"Result":"token"})")), 1);
  EXPECT_EQ(text("Result"), "token");
  EXPECT_EQ(server.requests().back().target(), "/security/StartAuthentication");
  EXPECT_TRUE(server.requests().back().tls);
  EXPECT_EQ(answered(httpReply("200 OK", {}, R"({"success":false,"Message":"no"})")), 0);
  EXPECT_EQ(text("Message"), "no");
}

TEST_F(CloudAuthLoopback, UnauthorizedLeavesTheDocumentOfBefore) {
  answered(httpReply("200 OK", {}, R"({"success":true,"Result":"before"})"));
  for (const char* status : {"401 Unauthorized", "302 Found", "204 No Content", "500 Internal Server Error"}) {
    EXPECT_EQ(answered(httpReply(status, {}, R"({"success":true,"Result":"after"})")), 0) << status;
    EXPECT_EQ(client.getHttpCode(), std::atol(status));
    EXPECT_EQ(text("Result"), "before");
  }
}

TEST_F(CloudAuthLoopback, PlatformWithoutAUrlIsNotLookedForElsewhere) {
  const std::string words =
      "CloudException -1 The platform's URL is empty or has no scheme: set ferrod.legacyzone.mfa.cloudurl, or "
      "ferrod.zone.cloudurl for a hierarchical zone, beginning with https://";
  for (const std::string url : {"", "localhost/", "/"}) {
    Client other(url);
    other.getCurl("alice", "login");
    EXPECT_EQ(failureOf([&] { other.getVersion(); }), words) << url;
    EXPECT_EQ(failureOf([&] { other.post(url + "security/StartAuthentication", "{}"); }), words) << url;
  }
  EXPECT_THAT(server.requests(), testing::IsEmpty());
}

TEST_F(CloudAuthLoopback, HeadersOfThePlatformAreLoggedAndNoOthers) {
  const testsupport::LogCapture log;
  answered(httpReply("200 OK", {"X-MRV-Request: 17", "X-Other: 18", "Via: pod X-MRV-x", "x-mrv-lower: 19"},
                     R"({"success":true})"));
  EXPECT_THAT(recordsOf(log.texts(), "cloud.object"),
              ElementsAre("DEBUG HTTP post URL = " + client.cloudUrl + "security/StartAuthentication. with content",
                          "DEBUG HTTP code = 200", "DEBUG Dumping X-MRV-* headers:", "DEBUG X-MRV-Request: 17\\r",
                          "DEBUG Via: pod X-MRV-x\\r"));
}

TEST_F(CloudAuthLoopback, BodyOf64MebibytesIsRead) {
  constexpr std::size_t SIZE = 64U << 20U;
  EXPECT_EQ(answered(httpReply("200 OK", {}, R"({"success":true,"Result":")" + std::string(SIZE, 'x') + "\"}")), 1);
  EXPECT_EQ(text("Result"), std::string(SIZE, 'x'));
  EXPECT_EQ(answered(httpReply("200 OK", {}, std::string(SIZE, '['))), 0);
  EXPECT_TRUE(client.document.IsNull());
  EXPECT_EQ(answered(httpReply("200 OK", {}, R"({"success":true})")), 1) << "the connection serves on";
}

TEST_F(CloudAuthLoopback, DeepReplyOverTheWire) {
  constexpr std::size_t DEPTH = 100000;
  const std::string deep = std::string(DEPTH, '[') + std::string(DEPTH, ']');
  EXPECT_EQ(answered(httpReply("200 OK", {}, R"({"deep":)" + deep + R"(,"success":true})")), 1);
}

TEST_F(CloudAuthLoopback, BodyEndsAtItsFirstZeroByte) {
  EXPECT_EQ(answered(httpReply("200 OK", {}, std::string(R"({"success":true})") + '\0' + "rest")), 1);
}

TEST_F(CloudAuthLoopback, CutReplyIsATransferFailure) {
  answered(httpReply("200 OK", {}, R"({"success":true,"Result":"before"})"));
  const std::string failure = failureOf([&] {
    answered({"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"success\":true", HttpReply::Close});
  });
  EXPECT_THAT(failure, testing::StartsWith("CurlException -1 curl error occurred in curl_easy_perform: "));
  EXPECT_EQ(text("Result"), "before");
  EXPECT_EQ(client.getHttpCode(), 200);
}

TEST_F(CloudAuthLoopback, UntrustedServerIsNotTalkedTo) {
  const testsupport::Certificate other = testsupport::makeCertificate(folder.path(), "other", {});
  const SettingsScope foreign{{"ferrod.cloud.cert.store", other.certificateFile}};
  client.releaseCurl();
  client.getCurl("alice", "login");
  EXPECT_THAT(failureOf([&] { answered(httpReply("200 OK", {}, R"({"success":true})")); }), testing::HasSubstr("(60)"));
  EXPECT_EQ(server.requests().size(), 1U) << "the tunnel alone";
}
