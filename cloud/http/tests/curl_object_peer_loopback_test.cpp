// Whom libcurl may speak with, and what of it a program started meanwhile would inherit.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <atomic>

#include "cloud/http/tests/curl_object_fixture.h"
#include "testsupport/http_server.h"
#include "testsupport/temp_folder.h"

using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;

namespace {

std::string unsupported() {
  return std::string("CurlException -1 curl error occurred in curl_easy_perform: ") +
         curl_easy_strerror(CURLE_UNSUPPORTED_PROTOCOL) + " (1)";
}

// Of the sockets of this process that are connected to the port, how many a new program would inherit and how many not.
std::pair<int, int> inheritedAndNot(unsigned short port) {
  std::pair<int, int> counts;
  for (int fd = 0; fd < 1024; ++fd) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0 || peer.sin_family != AF_INET) continue;
    if (ntohs(peer.sin_port) != port) continue;
    ((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0 ? counts.second : counts.first) += 1;
  }
  return counts;
}

}  // namespace

TEST_F(CurlObjectTest, SpeaksNothingButHttpAndHttps) {
  const testsupport::TempFolder folder;
  testsupport::writeFile(folder.file("secret"), "secret");
  CurlObject object;
  for (const std::string& url :
       {"file://" + folder.file("secret"), std::string("FILE://") + folder.file("secret"),
        std::string("ftp://127.0.0.1:1/"), std::string("gopher://127.0.0.1:1/"), std::string("dict://127.0.0.1:1/d:x"),
        std::string("ldap://127.0.0.1:1/"), std::string("smtp://127.0.0.1:1/"), std::string("telnet://127.0.0.1:1/"),
        std::string("ftp.example.test")}) {
    EXPECT_EQ(curlFailure([&] { object.perform(url, "", 0); }), unsupported()) << url;
  }
}

TEST_F(CurlObjectTest, SpeaksNothingElseAfterARedirect) {
  const testsupport::TempFolder folder;
  testsupport::writeFile(folder.file("secret"), "secret");
  for (const std::string& place : {"file://" + folder.file("secret"), std::string("ftp://127.0.0.1:1/")}) {
    HttpServer server([&place](const HttpRequest&) { return httpReply("302 Found", {"Location: " + place}); });
    CurlObject object;
    object.setOpt(CURLOPT_FOLLOWLOCATION, 1);
    EXPECT_EQ(curlFailure([&] { object.perform("http://" + server.address() + "/", "", 0); }), unsupported()) << place;
  }
}

TEST_F(CurlObjectTest, ProgramStartedMeanwhileInheritsNoConnection) {
  std::atomic<unsigned short> port{0};
  std::pair<int, int> counts;
  HttpServer server([&](const HttpRequest&) {
    counts = inheritedAndNot(port);
    return httpReply("200 OK");
  });
  port = server.port();
  CurlObject object;
  object.perform("http://" + server.address() + "/", "", 0);
  EXPECT_EQ(counts, std::make_pair(0, 1));
}
