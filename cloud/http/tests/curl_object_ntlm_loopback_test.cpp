// NTLM with challenges of a scripted proxy and a scripted web server: only those that NTLM version 2 can answer are.
#include <chrono>
#include <string>
#include <vector>

#include "basalt/files/base64.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "testsupport/http_server.h"
#include "testsupport/log_capture.h"

using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::StartsWith;
using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;
using testsupport::tunnelReply;

namespace {

constexpr char TARGET[] = "http://server.example.test/";
// Base64 of "NTLMSSP\0" and the number of the message, as far as whole groups of three bytes go.
constexpr char FIRST_MESSAGE[] = "NTLM TlRMTVNTUAAB";
constexpr char THIRD_MESSAGE[] = "NTLM TlRMTVNTUAAD";

constexpr unsigned UNICODE = 0x00000001;
constexpr unsigned NTLM = 0x00000200;
constexpr unsigned NTLM2 = 0x00080000;
constexpr unsigned TARGET_INFO = 0x00800000;

void append(std::string& message, unsigned value, int bytes) {
  for (; bytes > 0; --bytes, value >>= 8) message += static_cast<char>(value & 0xff);
}

// A type-2 message with these flags and so much target information (one domain name and the end mark).
std::string challengeMessage(unsigned flags, bool withTargetInfo) {
  const std::string info = withTargetInfo ? std::string("\x02\x00\x02\x00X\x00\x00\x00\x00\x00", 10) : std::string();
  std::string message("NTLMSSP\0\x02\x00\x00\x00", 12);
  append(message, 0, 4);  // target name: none
  append(message, 48, 4);
  append(message, flags, 4);
  message += "\x01\x23\x45\x67\x89\xab\xcd\xef";
  append(message, 0, 8);
  append(message, static_cast<unsigned>(info.size()), 2);
  append(message, static_cast<unsigned>(info.size()), 2);
  append(message, 48, 4);
  return message + info;
}

std::string encoded(const std::string& bytes) { return toBase64(bytes.data(), bytes.size()); }

const std::string STRONG = encoded(challengeMessage(UNICODE | NTLM | NTLM2 | TARGET_INFO, true));

// Asks for NTLM, answers the first message with `challenge`, lets the third in.
HttpServer::Handler ntlmProxy(const std::string& challenge) {
  return [challenge](const HttpRequest& request) {
    if (request.method() != "CONNECT") return httpReply("200 OK", {}, "in");
    const std::string given = request.header("Proxy-Authorization");
    if (given.compare(0, sizeof THIRD_MESSAGE - 1, THIRD_MESSAGE) == 0) return tunnelReply();
    return httpReply("407 Proxy Authentication Required",
                     {"Proxy-Authenticate: NTLM" + (given.empty() ? "" : " " + challenge)});
  };
}

std::string refusalOf(const std::string& peer, const std::string& fault) {
  return "The " + peer + " sends an NTLM challenge " + fault +
         ". NTLM version 2 cannot answer it, and no weaker response is sent.";
}

// The header of each request, as far as it tells which message it is.
std::vector<std::string> authorizations(const HttpServer& peer, const std::string& header) {
  std::vector<std::string> all;
  for (const HttpRequest& request : peer.requests())
    all.push_back(request.header(header).substr(0, sizeof FIRST_MESSAGE - 1));
  return all;
}

using CurlNtlmTest = CurlObjectTest;

}  // namespace

TEST_F(CurlNtlmTest, ChallengeForVersion2IsAnswered) {
  HttpServer proxy(ntlmProxy(STRONG));
  CurlObject object;
  object.setProxy(proxy.address(), "ntlm", "alice", lumo::Shredder2("secret"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
  EXPECT_THAT(authorizations(proxy, "Proxy-Authorization"), ElementsAre(StartsWith(FIRST_MESSAGE), THIRD_MESSAGE, ""));
}

TEST_F(CurlNtlmTest, WeakChallengeOfAProxyEndsTheTransferUnanswered) {
  struct Weak {
    const char* name;
    std::string challenge;
    const char* fault;
  };
  const std::vector<Weak> all = {
      {"neither", encoded(challengeMessage(UNICODE | NTLM, false)), "without the NTLM2 flag"},
      {"no flag", encoded(challengeMessage(UNICODE | NTLM | TARGET_INFO, true)), "without the NTLM2 flag"},
      {"no information", encoded(challengeMessage(UNICODE | NTLM | NTLM2, false)), "without target information"},
      {"information unannounced", encoded(challengeMessage(UNICODE | NTLM | NTLM2, true)),
       "without target information"},
      {"information empty", encoded(challengeMessage(UNICODE | NTLM | NTLM2 | TARGET_INFO, false)),
       "without target information"},
      {"no base64", "TlRM*", "that is malformed"},
      {"good, then weak", STRONG + ", NTLM " + encoded(challengeMessage(UNICODE | NTLM, false)),
       "without the NTLM2 flag"},
  };
  for (const char* type : {"ntlm", "anyauth"}) {
    for (const Weak& weak : all) {
      const testsupport::LogCapture log;
      HttpServer proxy(ntlmProxy(weak.challenge));
      CurlObject object;
      object.setProxy(proxy.address(), type, "alice", lumo::Shredder2("secret"));
      const std::string refusal = refusalOf("proxy", weak.fault);
      EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), "CurlException -1 " + refusal) << weak.name;
      std::vector<std::string> sent = authorizations(proxy, "Proxy-Authorization");
      ASSERT_THAT(sent, Not(IsEmpty())) << weak.name;
      EXPECT_THAT(sent.back(), StartsWith(FIRST_MESSAGE)) << weak.name;
      EXPECT_THAT(sent, Each(Not(AnyOf(StartsWith("Basic"), THIRD_MESSAGE)))) << weak.name;
      EXPECT_THAT(log.texts(), Contains("ERROR cloud.proxy.gss: " + refusal)) << weak.name;
    }
  }
}

TEST_F(CurlNtlmTest, ChallengeForAnotherSchemeIsNotJudged) {
  const std::string weak = encoded(challengeMessage(UNICODE | NTLM, false));
  HttpServer proxy([&weak](const HttpRequest& request) {
    if (request.method() != "CONNECT") return httpReply("200 OK", {"WWW-Authenticate: NTLM " + weak}, "in");
    if (!request.header("Proxy-Authorization").empty()) return tunnelReply();
    return httpReply("407 Proxy Authentication Required",
                     {"Proxy-Authenticate: NTLM " + weak, "Proxy-Authenticate: Digest realm=\"x\", nonce=\"n\""});
  });
  CurlObject object;
  object.setProxy(proxy.address(), "digest", "alice", lumo::Shredder2("secret"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
}

TEST_F(CurlNtlmTest, WeakChallengeOfAWebServerEndsTheTransferUnanswered) {
  std::string challenge = STRONG;
  HttpServer server([&challenge](const HttpRequest& request) {
    const std::string given = request.header("Authorization");
    if (given.compare(0, sizeof THIRD_MESSAGE - 1, THIRD_MESSAGE) == 0) return httpReply("200 OK", {}, "in");
    return httpReply("401 Unauthorized", {"WWW-Authenticate: NTLM" + (given.empty() ? "" : " " + challenge)});
  });
  const std::string url = "http://" + server.address() + "/";
  const auto ask = [&url] {
    CurlObject object;
    object.setOpt(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_NTLM));
    object.setOpt(CURLOPT_USERPWD, lumo::Shredder2("alice:secret"));
    return object.perform(url, "", 0);
  };
  EXPECT_THAT(ask(), Pair(200, "in"));
  server.forgetRequests();
  challenge = encoded(challengeMessage(UNICODE | NTLM, false));
  EXPECT_EQ(curlFailure(ask), "CurlException -1 " + refusalOf("web server", "without the NTLM2 flag"));
  EXPECT_THAT(authorizations(server, "Authorization"), ElementsAre(StartsWith(FIRST_MESSAGE)));
}

TEST_F(CurlNtlmTest, ObjectWorksAfterARefusal) {
  HttpServer hostile(ntlmProxy(encoded(challengeMessage(UNICODE | NTLM, false))));
  HttpServer proxy(ntlmProxy(STRONG));
  CurlObject object;
  object.setProxy(hostile.address(), "ntlm", "alice", lumo::Shredder2("secret"));
  EXPECT_THROW(object.perform(TARGET, "", 0), lumo::CurlException);
  EXPECT_TRUE(hostile.waitForEnds(1, std::chrono::seconds(10))) << "the connection is closed";
  object.setProxy(proxy.address(), "ntlm", "alice", lumo::Shredder2("secret"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
}
