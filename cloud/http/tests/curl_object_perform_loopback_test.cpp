#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/http/tests/curl_words.h"
#include "testsupport/http_server.h"
#include "testsupport/sanitizers.h"
#include "testsupport/temp_folder.h"

using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;

namespace {

std::string urlOf(const HttpServer& server, const std::string& path = "/") {
  return "http://" + server.address() + path;
}

std::string hostLine(const HttpServer& server) { return "Host: " + server.address() + "\r\n"; }

#ifndef FERRO_SANITIZED
// Bytes that this process has from malloc.
std::size_t allocated() {
  const struct mallinfo2 now = mallinfo2();
  return now.uordblks + now.hblkhd;
}
#endif

HttpServer::Handler always(const HttpReply& reply) {
  return [reply](const HttpRequest&) { return reply; };
}

}  // namespace

TEST_F(CurlObjectTest, GetSendsAContentLengthOfZeroAndReturnsStatusAndBody) {
  HttpServer server(always(httpReply("200 OK", {}, "hello")));
  CurlObject object;
  EXPECT_THAT(object.perform(urlOf(server, "/path?q=1"), "", 0), Pair(200, "hello"));
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].head,
            "GET /path?q=1 HTTP/1.1\r\n" + hostLine(server) + "Accept: */*\r\nContent-Length: 0\r\n\r\n");
  EXPECT_THAT(object.lastHeaderLines(), ElementsAre("HTTP/1.1 200 OK\r\n", "Content-Length: 5\r\n", "\r\n"));
}

TEST_F(CurlObjectTest, AttemptRecordsItsOptions) {
  HttpServer server(always(httpReply("200 OK")));
  CurlObject object;
  object.perform(urlOf(server), "", 0);
  EXPECT_EQ(object.recordedOptions(),
            defaultsAnd({CURLOPT_POST, CURLOPT_HEADERDATA, CURLOPT_HEADERFUNCTION, CURLOPT_URL, CURLOPT_READFUNCTION,
                         CURLOPT_WRITEFUNCTION, CURLOPT_READDATA, CURLOPT_WRITEDATA, CURLOPT_HTTPHEADER}));
}

TEST_F(CurlObjectTest, AnyStatusIsASuccess) {
  for (const char* status : {"204 No Content", "302 Found", "404 Not Found", "407 Proxy Authentication Required",
                             "500 Internal Server Error"}) {
    HttpServer server(always(httpReply(status, {"Location: http://127.0.0.1:1/"})));
    CurlObject object;
    EXPECT_THAT(object.perform(urlOf(server), "", 0), Pair(std::atol(status), "")) << status;
  }
}

TEST_F(CurlObjectTest, BodyEndsAtItsFirstZeroByte) {
  HttpServer server(always(httpReply("200 OK", {}, std::string("ab\0cd", 5))));
  CurlObject object;
  EXPECT_THAT(object.perform(urlOf(server), "", 0), Pair(200, "ab"));
}

TEST_F(CurlObjectTest, HeadersGoOutSortedByNameAndTheLengthIsTheObjects) {
  HttpServer server(always(httpReply("200 OK")));
  CurlObject object;
  object.headers["X-Zebra"] = "z";
  object.headers["Content-Type"] = "application/json";
  object.headers["Content-Length"] = "99";
  object.headers["A-First"] = "a";
  object.perform(urlOf(server), "{\"a\":1}", 1);
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(
      server.requests()[0].head,
      "POST / HTTP/1.1\r\n" + hostLine(server) +
          "Accept: */*\r\nA-First: a\r\nContent-Length: 7\r\nContent-Type: application/json\r\nX-Zebra: z\r\n\r\n");
  EXPECT_EQ(server.requests()[0].body, "{\"a\":1}");
  EXPECT_EQ(object.headers.at("Content-Length"), "7");
}

TEST_F(CurlObjectTest, HeadersAndOptionsStayFromOneRequestToTheNext) {
  HttpServer server(always(httpReply("200 OK", {}, "x")));
  CurlObject object;
  object.headers["X-One"] = "1";
  object.perform(urlOf(server), "body", 1);
  object.perform(urlOf(server), "", 0);
  ASSERT_EQ(server.requests().size(), 2u);
  EXPECT_EQ(server.connections(), 1) << "the connection is kept";
  EXPECT_EQ(server.requests()[1].head,
            "GET / HTTP/1.1\r\n" + hostLine(server) + "Accept: */*\r\nContent-Length: 0\r\nX-One: 1\r\n\r\n");
}

TEST_F(CurlObjectTest, PostsOfEverySizeGoOutAtOnceWithOneLength) {
  HttpServer server(always(httpReply("200 OK")));
  CurlObject object;
  for (const size_t size :
       {size_t{0}, size_t{1}, size_t{2000}, size_t{1024 * 1024}, size_t{1024 * 1024 + 1}, size_t{3 * 1024 * 1024}}) {
    std::string body(size, 'b');
    if (size > 1) body[size / 2] = '\0';
    object.perform(urlOf(server), body, 1);
    const HttpRequest request = server.requests().back();
    // With "Expect: 100-continue" libcurl would wait a whole second for leave to send the body.
    EXPECT_EQ(request.head, "POST / HTTP/1.1\r\n" + hostLine(server) + "Accept: */*\r\nContent-Length: " +
                                std::to_string(size) + "\r\nContent-Type: application/x-www-form-urlencoded\r\n\r\n");
    EXPECT_TRUE(request.body == body) << size;
    EXPECT_THAT(object.headers, ElementsAre(Pair("Content-Length", std::to_string(size))));
  }
}

TEST_F(CurlObjectTest, KeptConnectionThatDiesUnderAPostIsReplacedAndTheBodySentAgain) {
  // The server takes the second request of its first connection in whole and hangs up without a word.
  HttpServer server([](const HttpRequest& request) {
    return request.connection == 0 && request.number == 1 ? HttpReply{"", HttpReply::Close}
                                                          : httpReply("200 OK", {}, request.body);
  });
  CurlObject object;
  object.perform(urlOf(server), "first", 1);
  EXPECT_THAT(object.perform(urlOf(server), "the whole second body", 1), Pair(200, "the whole second body"));
  EXPECT_EQ(server.connections(), 2);
  ASSERT_EQ(server.requests().size(), 3u);
  EXPECT_EQ(server.requests()[1].body, "the whole second body");
  EXPECT_EQ(server.requests()[2].head, server.requests()[1].head);
}

TEST_F(CurlObjectTest, LongestHeaderLineOfLibcurlIsKept) {
  // One byte more, and libcurl itself ends the transfer: its limit is a byte below the callback's.
  const std::string line = "X-Long: " + std::string(102399 - 10, 'l');
  HttpServer server(always(httpReply("200 OK", {line, "X-Behind: yes"}, "body")));
  CurlObject object;
  EXPECT_THAT(object.perform(urlOf(server), "", 0), Pair(200, "body"));
  EXPECT_EQ(object.lastHeaderLines(), (std::vector<std::string>{"HTTP/1.1 200 OK\r\n", line + "\r\n",
                                                                "X-Behind: yes\r\n", "Content-Length: 4\r\n", "\r\n"}));
}

TEST_F(CurlObjectTest, FailureKeepsTheFailedAttemptAndTheObjectGoesOn) {
  HttpServer server([](const HttpRequest& request) {
    return request.target() == "/cut" ? HttpReply{"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf", HttpReply::Close}
                                      : httpReply("200 OK", {}, "whole");
  });
  CurlObject object;
  object.setOpt(CURLOPT_VERBOSE, 1);
  object.setOpt(CURLOPT_DEBUGDATA, static_cast<void*>(&object));
  object.setOpt(CURLOPT_DEBUGFUNCTION, &CurlObject::debugCallback);
  EXPECT_EQ(curlFailure([&] { object.perform(urlOf(server, "/cut"), "", 0); }),
            "CurlException -1 " + curltest::transferFailed(CURLE_PARTIAL_FILE));
  EXPECT_THAT(object.lastHeaderLines(), ElementsAre("HTTP/1.1 200 OK\r\n", "Content-Length: 10\r\n", "\r\n"));
  EXPECT_THAT(object.debugLines, testing::Contains("<half"));
  EXPECT_THAT(object.perform(urlOf(server, "/"), "", 0), Pair(200, "whole"));
  EXPECT_THAT(object.debugLines, Not(testing::Contains("<half"))) << "each attempt begins a new trace";
  EXPECT_THAT(object.debugLines,
              testing::Contains(">GET / HTTP/1.1\r\n" + hostLine(server) + "Accept: */*\r\nContent-Length: 0\r\n\r\n"));
}

TEST_F(CurlObjectTest, KeptConnectionsAreLeftBehindAFailedTransfer) {
  HttpServer server(always(httpReply("200 OK", {"Set-Cookie: kept=1"})));
  HttpServer cut(always({"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf", HttpReply::Close}));
  CurlObject object;
  object.perform(urlOf(server), "", 0);
  EXPECT_THROW(object.perform(urlOf(cut), "", 0), lumo::CurlException);
  object.perform(urlOf(server), "", 0);
  EXPECT_EQ(server.connections(), 2);
  EXPECT_EQ(server.requests().back().header("Cookie"), "kept=1");
  EXPECT_TRUE(server.waitForEnds(1, seconds(10))) << "the former one is closed";
}

TEST_F(CurlObjectTest, RefusedConnectionIsToldWithLibcurlsWords) {
  std::string url;
  {
    HttpServer server(always(httpReply("200 OK")));
    url = urlOf(server);
  }
  CurlObject object;
  EXPECT_EQ(curlFailure([&] { object.perform(url, "", 0); }),
            "CurlException -1 " + curltest::transferFailed(CURLE_COULDNT_CONNECT));
  EXPECT_EQ(curlFailure([&] { object.perform("", "", 0); }),
            "CurlException -1 " + curltest::transferFailed(CURLE_URL_MALFORMAT));
}

TEST_F(CurlObjectTest, SilentServerEndsTheTransferAtTheTimeout) {
  HttpServer server(always({"", HttpReply::Silence}));
  CurlObject object;
  object.setOpt(CURLOPT_TIMEOUT_MS, 200);
  EXPECT_EQ(curlFailure([&] { object.perform(urlOf(server), "", 0); }),
            "CurlException -1 " + curltest::transferFailed(CURLE_OPERATION_TIMEDOUT));
}

// libcurl would ignore SIGPIPE for the time of a transfer, and all threads of the process with it.
TEST_F(CurlObjectTest, TransferLeavesTheSignalsOfTheProcessAlone) {
  struct sigaction own {};
  own.sa_handler = [](int) {};
  std::atomic<bool> untouched{false};
  HttpServer server([&](const HttpRequest&) {
    struct sigaction meanwhile {};
    untouched = sigaction(SIGPIPE, nullptr, &meanwhile) == 0 && meanwhile.sa_handler == own.sa_handler;
    return httpReply("200 OK");
  });
  struct sigaction before {};
  ASSERT_EQ(sigaction(SIGPIPE, &own, &before), 0);
  CurlObject object;
  object.perform(urlOf(server), "", 0);
  sigaction(SIGPIPE, &before, nullptr);
  EXPECT_TRUE(untouched);
}

TEST_F(CurlObjectTest, ProxiesOfTheEnvironmentAreIgnored) {
  HttpServer proxy(always(httpReply("200 OK", {}, "proxy of the environment")));
  HttpServer server(always(httpReply("200 OK", {}, "server")));
  for (const char* name : {"http_proxy", "ALL_PROXY", "all_proxy"}) {
    setenv(name, ("http://" + proxy.address()).c_str(), 1);
  }
  CurlObject object;
  EXPECT_THAT(object.perform(urlOf(server), "", 0), Pair(200, "server"));
  for (const char* name : {"http_proxy", "ALL_PROXY", "all_proxy"}) unsetenv(name);
  EXPECT_EQ(proxy.connections(), 0);
}

TEST_F(CurlObjectTest, LargeBodyArrivesWhole) {
  const std::string body(8 * 1024 * 1024, 'L');
  HttpServer server(always(httpReply("200 OK", {}, body)));
  CurlObject object;
  EXPECT_TRUE(object.perform(urlOf(server), "", 0).second == body);
}

#ifndef FERRO_SANITIZED
TEST_F(CurlObjectTest, ForgottenExchangeTakesNoMemory) {
  const std::string body(8 << 20, 'L');
  HttpServer server(always(httpReply("200 OK", {}, body)));
  CurlObject object;
  object.perform(urlOf(server), "", 0);
  const std::size_t with = allocated();
  object.forgetExchange();
  EXPECT_GE(with - allocated(), 2 * body.size()) << "as it came, and as it was told";
  EXPECT_THAT(object.perform(urlOf(server), "", 0), Pair(200, body));
}

TEST_F(CurlObjectTest, NoMemoryForTheResponseIsAnExceptionAndTheObjectStaysUsable) {
  HttpServer server([](const HttpRequest& request) {
    return httpReply("200 OK", {}, request.target() == "/large" ? std::string(192 << 20, 'x') : "small");
  });
  CurlObject object;
  object.perform(urlOf(server), "", 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const rlimit limit{256 << 20, RLIM_INFINITY};
    setrlimit(RLIMIT_AS, &limit);
    const std::string failure = curlFailure([&] { object.perform(urlOf(server, "/large"), "", 0); });
    if (failure != "CurlException -1 Not enough memory for curl write buffer") _exit(2);
    _exit(object.perform(urlOf(server), "", 0) == std::make_pair(200L, std::string("small")) ? 0 : 3);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
}
#endif

TEST_F(CurlObjectTest, ServerWithAnUnknownCertificateIsRefused) {
  const testsupport::TempFolder folder;
  const auto certificate = testsupport::makeCertificate(folder.path(), "server", {});
  HttpServer server(
      [](const HttpRequest& request) {
        return request.tls ? httpReply("200 OK", {}, "secure") : testsupport::tunnelReply(true);
      },
      &certificate);
  CurlObject object;
  object.setProxy(server.address(), "", "", lumo::Shredder2());
  EXPECT_EQ(curlFailure([&] { object.perform("https://localhost/", "", 0); }),
            "CurlException -1 " + curltest::transferFailed(CURLE_PEER_FAILED_VERIFICATION));
  object.setOpt(CURLOPT_CAINFO, certificate.certificateFile);
  EXPECT_THAT(object.perform("https://localhost/", "", 0), Pair(200, "secure"));
  EXPECT_EQ(curlFailure([&] { object.perform("https://other.example.test/", "", 0); }),
            "CurlException -1 " + curltest::transferFailed(CURLE_PEER_FAILED_VERIFICATION));
  object.setOpt(CURLOPT_SSL_VERIFYPEER, 0);
  object.setOpt(CURLOPT_SSL_VERIFYHOST, 0);
  EXPECT_THAT(object.perform("https://other.example.test/", "", 0), Pair(200, "secure"));
}
