// The one repeat of a request that failed at a Negotiate proxy, and how the choice of proxy and type is respected.
#include <algorithm>
#include <string>
#include <vector>

#include "cloud/http/tests/curl_object_fixture.h"
#include "testsupport/http_server.h"
#include "testsupport/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;

namespace {

constexpr char TARGET[] = "http://server.example.test/";
constexpr char ALICE[] = "alice@EXAMPLE.TEST";
constexpr char LOGGER[] = "cloud.proxy.gss";

class CurlRetryTest : public CurlObjectTest {
 protected:
  // Refuses everybody, and so that libcurl itself does not try again.
  HttpServer proxy{[](const HttpRequest&) {
    return httpReply("407 Proxy Authentication Required", {"Proxy-Authenticate: Negotiate", "Connection: close"});
  }};
  testsupport::LogCapture log;

  CurlObject object;
};

}  // namespace

TEST_F(CurlRetryTest, WithoutAnAuthenticationMaskThereIsNoRepeat) {
  object.setProxy(proxy.address(), "anyauth", ALICE, lumo::Shredder2("secret"));
  object.clearOpt(CURLOPT_PROXYAUTH);
  EXPECT_THROW(object.perform(TARGET, "", 0), lumo::CurlException);
  EXPECT_EQ(proxy.connections(), 1);
  EXPECT_THAT(source.requests, IsEmpty()) << "nothing is asked of the KDC";
}

TEST_F(CurlRetryTest, RepeatReleasesTheCredentialBeforeItMakesANewOne) {
  object.setProxy(proxy.address(), "negotiate", ALICE, lumo::Shredder2("secret"));
  log.newTexts(LOGGER);
  EXPECT_THROW(object.perform(TARGET, "", 0), lumo::CurlException);
  EXPECT_EQ(proxy.connections(), 2);
  std::vector<std::string> life = log.newTexts(LOGGER);
  life.erase(std::remove_if(life.begin(), life.end(),
                            [](const std::string& text) {
                              return text.find("GSS credential") == std::string::npos &&
                                     text.find("initGSSCredential") == std::string::npos;
                            }),
             life.end());
  ASSERT_THAT(life, SizeIs(2));
  EXPECT_EQ(life[0], "DEBUG Release GSS credential handler.");
  EXPECT_EQ(life[1].substr(0, 46), "DEBUG initGSSCredential with KRB5 CCache 'MEMO");
}

TEST_F(CurlRetryTest, UnknownTypeIsNamedOnce) {
  const auto warnings = [this] {
    std::vector<std::string> all = log.newTexts(LOGGER);
    all.erase(std::remove_if(all.begin(), all.end(), [](const std::string& text) { return text[0] != 'W'; }),
              all.end());
    return all;
  };
  const auto choose = [this](const char* type) { object.setProxy(proxy.address(), type, ALICE, lumo::Shredder2("x")); };
  for (int i = 0; i < 3; ++i) choose("Kerberos5");
  EXPECT_THAT(warnings(),
              ElementsAre("WARN The proxy authentication type 'Kerberos5' is unknown and counts as 'anyauth'."));
  { CurlObject().setProxy(proxy.address(), "Kerberos5", ALICE, lumo::Shredder2("x")); }
  EXPECT_THAT(warnings(), IsEmpty()) << "another connection of the process";
  for (const char* known : {"", "AnyAuth", "NEGOTIATE", "ntlm", "digest", "basic"}) choose(known);
  EXPECT_THAT(warnings(), IsEmpty());
  choose("neg\notiate");
  EXPECT_THAT(warnings(),
              ElementsAre("WARN The proxy authentication type 'neg\\notiate' is unknown and counts as 'anyauth'."));
  choose("Kerberos5");
  EXPECT_THAT(warnings(), SizeIs(1)) << "the setting was changed twice";
}

TEST_F(CurlRetryTest, HostThatACallerTakesOutOfTheProxyIsAskedDirectly) {
  HttpServer server([](const HttpRequest&) { return httpReply("200 OK", {}, "direct"); });
  object.setProxy(proxy.address(), "", "", lumo::Shredder2());
  object.setOpt(CURLOPT_NOPROXY, "127.0.0.1");
  EXPECT_EQ(object.perform("http://" + server.address() + "/", "", 0).second, "direct");
  EXPECT_EQ(proxy.connections(), 0);
}

TEST_F(CurlRetryTest, BasicIsSentOnAnObjectThatUsedNegotiateBefore) {
  HttpServer basic([](const HttpRequest& request) {
    if (request.method() != "CONNECT") return httpReply("200 OK", {}, "in");
    if (!request.header("Proxy-Authorization").empty()) return testsupport::tunnelReply();
    return httpReply("407 Proxy Authentication Required", {"Proxy-Authenticate: Basic realm=\"x\""});
  });
  object.setProxy(proxy.address(), "negotiate", ALICE, lumo::Shredder2("secret"));
  EXPECT_THROW(object.perform(TARGET, "", 0), lumo::CurlException);
  object.setProxy(basic.address(), "basic", "alice", lumo::Shredder2("secret"));
  EXPECT_EQ(object.perform(TARGET, "", 0).second, "in");
}
