// How much a peer may send as header lines.
#include "cloud/http/exchange_limits.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/http/tests/curl_words.h"
#include "testsupport/http_server.h"

using testing::Contains;
using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;

namespace {

constexpr char TOO_MUCH[] = "CurlException -1 The header lines of the reply are longer than 2097152 bytes together.";

// Without an end, as far as the limit goes.
HttpReply endlessLines(const std::string& head) {
  return {head, HttpReply::Close, [sent = size_t{0}]() mutable {
            std::string lines;
            while (lines.size() < 16384) lines += "X-Trailer: " + std::string(50, 'x') + "\r\n";
            sent += lines.size();
            return sent > 4 * ExchangeLimits::MAX_HEADER_BYTES ? std::string() : lines;
          }};
}

std::string urlOf(const HttpServer& server) { return "http://" + server.address() + "/"; }

CURLcode plainResult(const std::string& url) {
  CURL* handle = curl_easy_init();
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  const CURLcode code = curl_easy_perform(handle);
  curl_easy_cleanup(handle);
  return code;
}

}  // namespace

TEST_F(CurlObjectTest, TrailersWithoutAnEndEndTheTransfer) {
  HttpServer server(
      [](const HttpRequest&) { return endlessLines("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n"); });
  CurlObject object;
  for (int i = 0; i < 2; ++i) EXPECT_EQ(curlFailure([&] { object.perform(urlOf(server), "", 0); }), TOO_MUCH);
}

TEST_F(CurlObjectTest, HeaderLinesAreCountedForEachExchangeByItself) {
  // libcurl has limits of its own for one reply, which differ between its versions.
  const std::vector<std::string> lines(4, "X-Long: " + std::string(50000, 'x'));
  HttpServer server([&lines](const HttpRequest&) { return httpReply("200 OK", lines, "hello"); });
  CurlObject object;
  for (int i = 0; i < 12; ++i) EXPECT_EQ(object.perform(urlOf(server), "", 0).second, "hello") << i;
  EXPECT_GT(12 * 4 * lines[0].size(), ExchangeLimits::MAX_HEADER_BYTES);
}

TEST_F(CurlObjectTest, LibcurlItselfEndsATransferAtALineOf100KiB) {
  const std::string name = "X-Long: ";
  for (const size_t length : {size_t{102399}, size_t{102400}, size_t{102401}}) {
    const std::string line = name + std::string(length - name.size() - 2, 'x');
    HttpServer server([&line](const HttpRequest&) { return httpReply("200 OK", {line}); });
    const CURLcode plain = plainResult(urlOf(server));
    EXPECT_EQ(plain == CURLE_OK, length < 102400) << length;
    CurlObject object;
    EXPECT_EQ(curlFailure([&] { object.perform(urlOf(server), "", 0); }),
              plain == CURLE_OK ? "nothing thrown" : "CurlException -1 " + curltest::transferFailed(plain));
    const bool isKept = testing::Matches(Contains(line + "\r\n"))(object.lastHeaderLines());
    EXPECT_EQ(isKept, length < 102400) << length;
  }
}
