// A peer that always has more to send, and an exchange that its process wants to end.
#include <atomic>

#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/http/tests/curl_words.h"
#include "cloud/include/exchange_stop.h"
#include "testsupport/http_server.h"
#include "testsupport/manual_clock.h"

using testing::Pair;
using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;

namespace {

constexpr char TARGET[] = "http://server.example.test/";
constexpr int PIECES_BEFORE = 16;
constexpr int PIECES_BEHIND = 240;  // then the peer gives up, so that a test fails instead of lasting for ever

// `head`, and pieces without an end, before one of which `then` is done.
HttpReply endless(const std::string& head, const std::string& piece, const std::function<void()>& then) {
  return {head, HttpReply::Close, [piece, then, count = 0]() mutable {
            if (++count == PIECES_BEFORE) then();
            return count == PIECES_BEFORE + PIECES_BEHIND ? std::string() : piece;
          }};
}

std::string refusal(const std::string& scheme) {
  return "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: " + scheme + "\r\n";
}

std::string chunk() { return "1000\r\n" + std::string(4096, 'x') + "\r\n"; }

std::string failed(CURLcode code) { return "CurlException -1 " + curltest::transferFailed(code); }

class ExchangeDeadline : public CurlObjectTest {
 protected:
  ~ExchangeDeadline() override { lumo::resumeExchanges(); }

  const std::function<void()> halfAMinutePasses = [this] { clock.advance(std::chrono::seconds(30)); };
  const std::string timedOut = failed(CURLE_OPERATION_TIMEDOUT);
  const std::string stopped = failed(CURLE_ABORTED_BY_CALLBACK);
  testsupport::ManualClock clock;
};

}  // namespace

TEST_F(ExchangeDeadline, EndsARefusalOfAProxyThatNeverEnds) {
  for (const auto& [line, piece] : {std::make_pair(std::string("Transfer-Encoding: chunked"), chunk()),
                                    std::make_pair(std::string("Content-Length: 999999999999"), chunk())}) {
    const std::string head = refusal("Basic realm=\"proxy\"") + line + "\r\n\r\n";
    HttpServer proxy([&, &bytes = piece](const HttpRequest&) { return endless(head, bytes, halfAMinutePasses); });
    CurlObject object;
    object.setProxy(proxy.address(), "anyauth", "alice", lumo::Shredder2("secret"));
    // The second time the object works on a copy of its handle.
    for (int i = 1; i <= 2; ++i) {
      EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), timedOut) << line;
      EXPECT_EQ(proxy.connections(), i);
    }
  }
}

TEST_F(ExchangeDeadline, EndsAReplyOfAServerThatNeverEnds) {
  HttpServer server([this](const HttpRequest&) {
    return endless("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", chunk(), halfAMinutePasses);
  });
  CurlObject object;
  EXPECT_EQ(curlFailure([&] { object.perform("http://" + server.address() + "/", "", 0); }), timedOut);
}

TEST_F(ExchangeDeadline, AttemptThatItEndsIsNotRepeated) {
  HttpServer proxy([this](const HttpRequest&) {
    return endless(refusal("Negotiate") + "Transfer-Encoding: chunked\r\n\r\n", chunk(), halfAMinutePasses);
  });
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
  EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), timedOut);
  EXPECT_EQ(proxy.connections(), 1);
}

TEST_F(ExchangeDeadline, BeginsWithEachExchange) {
  HttpServer server([this](const HttpRequest&) {
    clock.advance(std::chrono::seconds(29));
    return httpReply("200 OK", {}, "in time");
  });
  CurlObject object;
  for (int i = 0; i < 3; ++i) {
    EXPECT_THAT(object.perform("http://" + server.address() + "/", "", 0), Pair(200, "in time"));
    clock.advance(std::chrono::seconds(60));
  }
}

TEST_F(ExchangeDeadline, StopEndsAnExchangeThatRunsAndItIsNotRepeated) {
  HttpServer proxy([](const HttpRequest&) {
    return endless(refusal("Negotiate") + "Transfer-Encoding: chunked\r\n\r\n", chunk(), &lumo::stopExchanges);
  });
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
  EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), stopped);
  EXPECT_EQ(proxy.connections(), 1);
}

TEST_F(ExchangeDeadline, StopEndsAnExchangeInWhichNothingHappens) {
  HttpServer server([](const HttpRequest&) {
    lumo::stopExchanges();
    return HttpReply{"", HttpReply::Silence};
  });
  CurlObject object;
  EXPECT_EQ(curlFailure([&] { object.perform("http://" + server.address() + "/", "", 0); }), stopped);
}

TEST_F(ExchangeDeadline, StoppedProcessBeginsNoExchangeUntilItMayAgain) {
  HttpServer server([](const HttpRequest&) { return httpReply("200 OK", {}, "hello"); });
  CurlObject object;
  lumo::stopExchanges();
  EXPECT_EQ(curlFailure([&] { object.perform("http://" + server.address() + "/", "", 0); }), stopped);
  EXPECT_EQ(server.connections(), 0);
  lumo::resumeExchanges();
  EXPECT_THAT(object.perform("http://" + server.address() + "/", "", 0), Pair(200, "hello"));
}
