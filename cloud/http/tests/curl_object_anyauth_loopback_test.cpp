// "anyauth" at proxies that offer more than Basic: the password never goes out by Basic, whatever libcurl has or reads.
#include <string>
#include <vector>

#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/http/tests/curl_words.h"
#include "cloud/http/tests/lesser_libcurl.h"
#include "testsupport/http_server.h"
#include "testsupport/log_capture.h"

using lessercurl::LibcurlWithout;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;
using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;
using testsupport::tunnelReply;

namespace {

using Lines = std::vector<std::string>;

constexpr char TARGET[] = "http://server.example.test/";
constexpr char BASIC_OF_ALICE[] = "Basic YWxpY2U6c2VjcmV0";
const std::string TUNNEL_FAILED = "CurlException -1 " + curltest::transferFailed(CURLE_RECV_ERROR);
constexpr long NEGOTIATE = static_cast<long>(CURLAUTH_NEGOTIATE);
constexpr long NTLM = static_cast<long>(CURLAUTH_NTLM);
constexpr long DIGEST = static_cast<long>(CURLAUTH_DIGEST);

// Offers these header lines until somebody sends a password by Basic.
HttpServer::Handler basicProxy(const Lines& offers) {
  return [offers](const HttpRequest& request) {
    if (request.method() != "CONNECT") return httpReply("200 OK", {}, "in");
    if (request.header("Proxy-Authorization").compare(0, 5, "Basic") == 0) return tunnelReply();
    return httpReply("407 Proxy Authentication Required", offers);
  };
}

Lines authorizations(const HttpServer& proxy) {
  Lines all;
  for (const HttpRequest& request : proxy.requests()) {
    if (request.method() == "CONNECT") all.push_back(request.header("Proxy-Authorization"));
  }
  return all;
}

std::string refusalOf(const std::string& offered) {
  return "The proxy offers " + offered + ", which cannot be used here. The password is not sent by Basic in its place.";
}

class CurlAnyAuthTest : public CurlObjectTest {
 protected:
  // What a GET through the proxy as alice fails with; the text of its body when it does not fail.
  static std::string ask(CurlObject& object) {
    std::string body;
    const std::string failure = curlFailure([&] { body = object.perform(TARGET, "", 0).second; });
    return body.empty() ? failure : body;
  }
  static std::string ask(const HttpServer& proxy, const std::string& type = "anyauth") {
    CurlObject object;
    object.setProxy(proxy.address(), type, "alice", lumo::Shredder2("secret"));
    return ask(object);
  }
};

}  // namespace

TEST_F(CurlAnyAuthTest, PasswordStaysWhereLibcurlLacksWhatIsOffered) {
  struct Case {
    long missing;
    Lines offers;
    std::string offered;
  };
  const std::vector<Case> cases = {
      {NTLM, {"Proxy-Authenticate: NTLM", "Proxy-Authenticate: Basic realm=\"x\""}, "NTLM"},
      {NTLM, {"Proxy-Authenticate: Basic realm=\"x\"", "Proxy-Authenticate: NTLM"}, "NTLM"},
      {NTLM, {"proxy-authenticate: ntlm", "proxy-authenticate: basic realm=\"x\""}, "NTLM"},
      {DIGEST, {"Proxy-Authenticate: Basic realm=\"x\", Digest realm=\"x\", nonce=\"n\""}, "Digest"},
      {DIGEST | NTLM, {"Proxy-Authenticate: NTLM,Digest realm=\"x\", nonce=\"n\",Basic"}, "Digest, NTLM"},
      {NEGOTIATE, {"proxy-authenticate: Negotiate", "proxy-authenticate: Basic realm=\"x\""}, "Negotiate"},
      {NEGOTIATE, {"PROXY-AUTHENTICATE:Negotiate", "Proxy-Authenticate:Basic"}, "Negotiate"},
      {NEGOTIATE, {"Proxy-Authenticate: Basic realm=\"Sales, NTLM\",negotiate"}, "Negotiate"},
  };
  for (const Case& one : cases) {
    const testsupport::LogCapture log;
    const LibcurlWithout without(one.missing);
    HttpServer proxy(basicProxy(one.offers));
    EXPECT_EQ(ask(proxy), "CurlException -1 " + refusalOf(one.offered)) << one.offers[0];
    EXPECT_THAT(authorizations(proxy), ElementsAre("")) << one.offers[0];
    EXPECT_THAT(log.texts(), Contains("ERROR cloud.proxy.gss: " + refusalOf(one.offered)));
  }
}

TEST_F(CurlAnyAuthTest, PasswordStaysWhereLibcurlDoesNotReadWhatIsOffered) {
  const std::vector<Lines> cases = {
      {"Proxy-Authenticate : Negotiate", "Proxy-Authenticate: Basic realm=\"x\""},
      {"Proxy-Authenticate: Basic realm=\"x\",", " Negotiate"},
      {"Proxy-Authenticate: Basic realm=\"x\"", "proxy-authenticate\t:\tnegotiate"},
  };
  for (const Lines& offers : cases) {
    HttpServer proxy(basicProxy(offers));
    EXPECT_EQ(ask(proxy), "CurlException -1 " + refusalOf("Negotiate")) << offers[0];
    EXPECT_THAT(authorizations(proxy), ElementsAre("")) << offers[0];
  }
}

TEST_F(CurlAnyAuthTest, MaskOfTheCallersThatLeavesTheBestOutFallsNoLower) {
  HttpServer proxy(basicProxy({"Proxy-Authenticate: Negotiate", "Proxy-Authenticate: Basic realm=\"x\""}));
  CurlObject object;
  object.setProxy(proxy.address(), "anyauth", "alice", lumo::Shredder2("secret"));
  object.setOpt(CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY) & ~NEGOTIATE);
  source.result = KRB5_KDC_UNREACH;
  EXPECT_EQ(ask(object), "CurlException -1 " + refusalOf("Negotiate"));
  EXPECT_THAT(authorizations(proxy), ElementsAre(""));
}

TEST_F(CurlAnyAuthTest, OfferThatIsWithdrawnLaterStillCounts) {
  // Digest first; when the answer comes, only Basic is left.
  HttpServer proxy([](const HttpRequest& request) {
    if (request.method() != "CONNECT") return httpReply("200 OK", {}, "in");
    const std::string given = request.header("Proxy-Authorization");
    if (given.compare(0, 5, "Basic") == 0) return tunnelReply();
    return httpReply("407 Proxy Authentication Required",
                     {given.empty() ? "Proxy-Authenticate: Digest realm=\"x\", nonce=\"n\""
                                    : "Proxy-Authenticate: Basic realm=\"x\""});
  });
  EXPECT_EQ(ask(proxy), "CurlException -1 " + refusalOf("Digest"));
  EXPECT_THAT(authorizations(proxy), ElementsAre("", StartsWith("Digest username=\"alice\"")));
}

TEST_F(CurlAnyAuthTest, BasicIsSentWhereNothingBetterIsOffered) {
  const std::vector<Lines> cases = {
      {"Proxy-Authenticate: Basic realm=\"x\""},
      {"Proxy-Authenticate: Basic realm=\"Negotiate or NTLM\""},
      {"Proxy-Authenticate: Bearer", "Proxy-Authenticate: Basic realm=\"x\""},
      {"X-Proxy-Authenticate: Negotiate", "WWW-Authenticate: Negotiate", "Proxy-Authenticate: Basic", "X: Digest"},
      {"Proxy-Authenticate: Basic", "Server: y", " Negotiate"},
  };
  for (const Lines& offers : cases) {
    HttpServer proxy(basicProxy(offers));
    EXPECT_EQ(ask(proxy), "in") << offers[0];
    EXPECT_THAT(authorizations(proxy), ElementsAre("", BASIC_OF_ALICE)) << offers[0];
  }
  const LibcurlWithout without(NEGOTIATE);
  HttpServer proxy(basicProxy({"Proxy-Authenticate: Basic realm=\"Sales, Negotiate\""}));
  EXPECT_EQ(ask(proxy), "in") << "a name in a quoted string is no offer";
}

TEST_F(CurlAnyAuthTest, BasicThatIsConfiguredIsSentWhateverElseIsOffered) {
  HttpServer proxy(basicProxy({"Proxy-Authenticate: Negotiate", "Proxy-Authenticate: Basic realm=\"x\""}));
  EXPECT_EQ(ask(proxy, "basic"), "in");
}

TEST_F(CurlAnyAuthTest, LibcurlAnswersWithTheNextBetterSchemeThatItHas) {
  const LibcurlWithout without(NEGOTIATE);
  HttpServer proxy([](const HttpRequest& request) {
    if (request.method() != "CONNECT") return httpReply("200 OK", {}, "in");
    if (!request.header("Proxy-Authorization").empty()) return tunnelReply();
    return httpReply("407 Proxy Authentication Required",
                     {"Proxy-Authenticate: Negotiate, Digest realm=\"x\", nonce=\"n\"", "Proxy-Authenticate: Basic"});
  });
  EXPECT_EQ(ask(proxy), "in");
  EXPECT_THAT(authorizations(proxy), ElementsAre("", StartsWith("Digest username=\"alice\"")));
}

TEST_F(CurlAnyAuthTest, OffersOfOneExchangeAreNotThoseOfTheNext) {
  const LibcurlWithout without(NEGOTIATE);
  Lines offers = {"proxy-authenticate: Negotiate", "proxy-authenticate: Basic realm=\"x\""};
  HttpServer proxy([&offers](const HttpRequest& request) { return basicProxy(offers)(request); });
  CurlObject object;
  object.setProxy(proxy.address(), "anyauth", "alice", lumo::Shredder2("secret"));
  EXPECT_EQ(ask(object), "CurlException -1 " + refusalOf("Negotiate"));
  offers = {"Proxy-Authenticate: Basic realm=\"x\""};
  EXPECT_EQ(ask(object), "in");
}

// The 407 of a web server behind the tunnel is a reply like any other.
TEST_F(CurlAnyAuthTest, OffersOfAWebServerAreNotTheProxys) {
  const LibcurlWithout without(NEGOTIATE);
  HttpServer proxy([](const HttpRequest& request) {
    if (request.method() == "CONNECT") return tunnelReply();
    return httpReply("407 Proxy Authentication Required",
                     {"Proxy-Authenticate: Negotiate", "Proxy-Authenticate: Basic"}, "the server's");
  });
  CurlObject object;
  object.setProxy(proxy.address(), "anyauth", "alice", lumo::Shredder2("secret"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(407, "the server's"));
}

TEST_F(CurlAnyAuthTest, WithoutSpnegoInLibcurlTheTicketIsAskedForAtTheFirst407) {
  const LibcurlWithout without(NEGOTIATE);
  HttpServer proxy(basicProxy({"Proxy-Authenticate: Negotiate", "Proxy-Authenticate: Basic realm=\"x\""}));
  CurlObject object;
  object.setProxy(proxy.address(), "anyauth", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
  // The ticket is worth nothing, so the second attempt goes out without a token.
  EXPECT_EQ(ask(object), TUNNEL_FAILED);
  EXPECT_THAT(source.requests, SizeIs(1));
  EXPECT_THAT(authorizations(proxy), ElementsAre("", ""));
  EXPECT_THAT(object.recordedOptions(), Contains(int{CURLOPT_PROXY_GSS_CRED}));
}
