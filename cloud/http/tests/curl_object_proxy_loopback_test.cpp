#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/http/tests/curl_words.h"
#include "testsupport/http_server.h"
#include "testsupport/log_capture.h"
#include "testsupport/temp_folder.h"

using std::chrono::seconds;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
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

// The peer of every tunnel here: nobody resolves the name, the proxy plays the server itself.
constexpr char TARGET[] = "http://server.example.test/path";
constexpr char TARGET_HOST[] = "server.example.test:80";
const std::string TUNNEL_FAILED = "CurlException -1 " + curltest::transferFailed(CURLE_RECV_ERROR);

HttpReply challenge(const std::vector<std::string>& schemes) {
  std::vector<std::string> lines;
  for (const std::string& scheme : schemes) lines.push_back("Proxy-Authenticate: " + scheme);
  return httpReply("407 Proxy Authentication Required", lines);
}

// Lets every CONNECT pass whose Proxy-Authorization begins with `scheme`, challenges the others.
HttpServer::Handler proxyFor(const std::string& scheme, const std::vector<std::string>& offered) {
  return [scheme, offered](const HttpRequest& request) {
    if (request.method() != "CONNECT") return httpReply("200 OK", {}, "through the tunnel");
    const std::string given = request.header("Proxy-Authorization");
    return given.compare(0, scheme.size(), scheme) == 0 ? tunnelReply() : challenge(offered);
  };
}

// The Proxy-Authorization header of each CONNECT so far, in order.
std::vector<std::string> authorizations(const HttpServer& proxy) {
  std::vector<std::string> all;
  for (const HttpRequest& request : proxy.requests()) {
    if (request.method() == "CONNECT") all.push_back(request.header("Proxy-Authorization"));
  }
  return all;
}

std::string connectHead(const std::string& authorization) {
  return std::string("CONNECT ") + TARGET_HOST + " HTTP/1.1\r\nHost: " + TARGET_HOST + "\r\n" +
         (authorization.empty() ? "" : "Proxy-Authorization: " + authorization + "\r\n") +
         "Proxy-Connection: Keep-Alive\r\n\r\n";
}

// A cache that holds a ticket of nobody's making.
void writeCache(const std::string& name, const std::string& owner) {
  const KerberosContext context;
  krb5_principal principal = nullptr;
  krb5_ccache cache = nullptr;
  ASSERT_EQ(krb5_parse_name(context.get(), owner.c_str(), &principal), 0);
  ASSERT_EQ(krb5_cc_resolve(context.get(), name.c_str(), &cache), 0);
  ASSERT_EQ(krb5_cc_initialize(context.get(), cache, principal), 0);
  krb5_creds ticket = testsupport::handMadeTicket(context.get(), principal, 3600);
  ASSERT_EQ(krb5_cc_store_cred(context.get(), cache, &ticket), 0);
  krb5_free_cred_contents(context.get(), &ticket);
  krb5_cc_close(context.get(), cache);
  krb5_free_principal(context.get(), principal);
}

class CurlProxyTest : public CurlObjectTest {
 protected:
  // A realm whose KDC nobody is: every request for a service ticket is refused at once.
  CurlProxyTest() {
    testsupport::writeFile(m_folder.file("krb5.conf"),
                           "[libdefaults]\n default_realm = EXAMPLE.TEST\n dns_lookup_kdc = false\n"
                           " dns_lookup_realm = false\n dns_canonicalize_hostname = false\n"
                           "[realms]\n EXAMPLE.TEST = {\n  kdc = 127.0.0.1:1\n }\n");
    setenv("KRB5_CONFIG", m_folder.file("krb5.conf").c_str(), 1);
  }
  ~CurlProxyTest() override { unsetenv("KRB5_CONFIG"); }

 private:
  testsupport::TempFolder m_folder;
};

}  // namespace

TEST_F(CurlProxyTest, OpenProxyGetsNoCredentialsAndNoneOfTheServersHeaders) {
  HttpServer proxy(proxyFor("", {}));
  CurlObject object;
  object.headers["X-Private"] = "for the server";
  object.setProxy(proxy.address(), "", "alice", lumo::Shredder2("secret"));
  EXPECT_THAT(object.perform(TARGET, "body", 1), Pair(200, "through the tunnel"));
  ASSERT_EQ(proxy.requests().size(), 2u);
  EXPECT_EQ(proxy.requests()[0].head, connectHead(""));
  EXPECT_EQ(proxy.requests()[1].head,
            "POST /path HTTP/1.1\r\nHost: server.example.test\r\nAccept: */*\r\nContent-Length: 4\r\n"
            "X-Private: for the server\r\nContent-Type: application/x-www-form-urlencoded\r\n\r\n");
  EXPECT_THAT(object.lastHeaderLines(), ElementsAre("HTTP/1.1 200 Connection established\r\n", "\r\n",
                                                    "HTTP/1.1 200 OK\r\n", "Content-Length: 18\r\n", "\r\n"));
}

TEST_F(CurlProxyTest, BasicSendsUserAndPasswordToTheByte) {
  HttpServer proxy(proxyFor("Basic", {"Basic realm=\"x\""}));
  CurlObject object;
  object.setProxy(proxy.address(), "Basic", "al ice%41@x", lumo::Shredder2("p:a%41s/s?#\xc3\xa4 &\\\"'"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "through the tunnel"));
  ASSERT_EQ(proxy.requests().size(), 2u);
  // printf 'al ice%%41@x:p:a%%41s/s?#\xc3\xa4 &\\"'"'" | base64
  EXPECT_EQ(proxy.requests()[0].head, connectHead("Basic YWwgaWNlJTQxQHg6cDphJTQxcy9zPyPDpCAmXCIn"));
  EXPECT_EQ(proxy.requests()[1].header("Proxy-Authorization"), "");
}

TEST_F(CurlProxyTest, UnknownAuthTypeMeansAnyAuth) {
  HttpServer proxy(proxyFor("Basic", {"Basic realm=\"x\""}));
  CurlObject object;
  object.setProxy(proxy.address(), "kerberos", "alice", lumo::Shredder2("secret"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "through the tunnel"));
  EXPECT_THAT(authorizations(proxy), ElementsAre("", "Basic YWxpY2U6c2VjcmV0"));
}

TEST_F(CurlProxyTest, EnvironmentDoesNotSwitchTheProxyOff) {
  HttpServer proxy(proxyFor("", {}));
  for (const char* name : {"NO_PROXY", "no_proxy"}) setenv(name, "*", 1);
  CurlObject object;
  object.setProxy(proxy.address(), "", "", lumo::Shredder2());
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "through the tunnel"));
  for (const char* name : {"NO_PROXY", "no_proxy"}) unsetenv(name);
}

TEST_F(CurlProxyTest, TunnelOfTheSameIdentityIsUsedAgain) {
  HttpServer proxy(proxyFor("Basic", {"Basic realm=\"x\""}));
  CurlObject object;
  for (int i = 0; i < 3; ++i) {
    object.setProxy(proxy.address(), "basic", "alice", lumo::Shredder2("secret"));
    EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "through the tunnel"));
  }
  EXPECT_EQ(proxy.connections(), 1);
  EXPECT_THAT(authorizations(proxy), ElementsAre("Basic YWxpY2U6c2VjcmV0"));
}

TEST_F(CurlProxyTest, TunnelIsNeverSharedByTwoIdentities) {
  HttpServer proxy(proxyFor("", {}));
  HttpServer otherProxy(proxyFor("", {}));
  struct Identity {
    std::string proxy, type, user, password;
  };
  const std::vector<Identity> identities = {
      {proxy.address(), "basic", "alice", "secret"},
      {proxy.address(), "basic", "bob", "secret"},
      {proxy.address(), "basic", "bob", "other"},
      {proxy.address(), "anyauth", "bob", "other"},
      {proxy.address(), "", "", ""},
      {proxy.address(), "basic", "alice", "secret"},
  };
  CurlObject object;
  const std::set<int> before = object.recordedOptions();
  int expected = 0;
  for (const Identity& identity : identities) {
    object.setProxy(identity.proxy, identity.type, identity.user, lumo::Shredder2(identity.password));
    object.perform(TARGET, "", 0);
    object.perform(TARGET, "", 0);
    EXPECT_EQ(proxy.connections(), ++expected) << identity.type << " " << identity.user;
    EXPECT_TRUE(proxy.waitForEnds(static_cast<size_t>(expected) - 1, seconds(10))) << "the former tunnel is closed";
  }
  EXPECT_EQ(object.recordedOptions().count(CURLOPT_SHARE), 0u);
  object.setProxy(otherProxy.address(), "basic", "alice", lumo::Shredder2("secret"));
  object.perform(TARGET, "", 0);
  EXPECT_TRUE(proxy.waitForEnds(identities.size(), seconds(10)));
  object.clearProxy(false);
  HttpServer server([](const HttpRequest&) { return httpReply("200 OK", {}, "direct"); });
  EXPECT_THAT(object.perform("http://" + server.address() + "/", "", 0), Pair(200, "direct"));
  EXPECT_TRUE(otherProxy.waitForEnds(1, seconds(10)));
}

// However the name is given: as a text, as a secret, or first one and then the other.
TEST_F(CurlProxyTest, TunnelOfOneUserNameIsNotUsedForAnother) {
  HttpServer proxy(proxyFor("", {}));
  CurlObject object;
  object.setProxy(proxy.address(), "", "", lumo::Shredder2());
  object.setOpt(CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC));
  object.setOpt(CURLOPT_PROXYPASSWORD, lumo::Shredder2("secret"));
  const auto connectionsAfter = [&] {
    object.perform(TARGET, "", 0);
    return proxy.connections();
  };
  object.setOpt(CURLOPT_PROXYUSERNAME, lumo::Shredder2("alice"));
  EXPECT_EQ(connectionsAfter(), 1);
  object.setOpt(CURLOPT_PROXYUSERNAME, lumo::Shredder2("bob"));
  EXPECT_EQ(connectionsAfter(), 2);
  EXPECT_EQ(connectionsAfter(), 2);
  object.setOpt(CURLOPT_PROXYUSERNAME, "alice");
  EXPECT_EQ(connectionsAfter(), 3);
  object.setOpt(CURLOPT_PROXYUSERNAME, lumo::Shredder2("bob"));
  EXPECT_EQ(connectionsAfter(), 4);
  object.clearOpt(CURLOPT_PROXYUSERNAME);
  EXPECT_EQ(connectionsAfter(), 5);
  EXPECT_THAT(authorizations(proxy), ElementsAre("Basic YWxpY2U6c2VjcmV0", "Basic Ym9iOnNlY3JldA==",
                                                 "Basic YWxpY2U6c2VjcmV0", "Basic Ym9iOnNlY3JldA==", testing::_));
}

TEST_F(CurlProxyTest, DigestNonceOfOneUserIsNotGivenToTheNext) {
  HttpServer proxy(proxyFor("Digest", {"Digest realm=\"x\", nonce=\"n1\", qop=\"auth\", algorithm=MD5"}));
  CurlObject object;
  object.setProxy(proxy.address(), "digest", "alice", lumo::Shredder2("secret"));
  object.perform(TARGET, "", 0);
  object.setProxy(proxy.address(), "digest", "bob", lumo::Shredder2("secret"));
  object.perform(TARGET, "", 0);
  EXPECT_THAT(authorizations(proxy), ElementsAre("", StartsWith("Digest username=\"alice\", realm=\"x\", nonce=\"n1\""),
                                                 "", StartsWith("Digest username=\"bob\", realm=\"x\", nonce=\"n1\"")));
}

TEST_F(CurlProxyTest, RightPasswordWorksAfterAWrongOne) {
  // The proxy counts: the first answer to its challenge is refused with the same nonce, as after a wrong password.
  int answers = 0;
  HttpServer proxy([&answers](const HttpRequest& request) {
    if (request.method() != "CONNECT") return httpReply("200 OK", {}, "in");
    if (request.header("Proxy-Authorization").empty() || ++answers == 1) {
      return challenge({"Digest realm=\"x\", nonce=\"n1\", qop=\"auth\", algorithm=MD5"});
    }
    return tunnelReply();
  });
  CurlObject object;
  object.setProxy(proxy.address(), "digest", "alice", lumo::Shredder2("wrong"));
  EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), TUNNEL_FAILED);
  object.setProxy(proxy.address(), "digest", "alice", lumo::Shredder2("right"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
}

TEST_F(CurlProxyTest, SchemesWithoutStoredCredentialsNeverRepeat) {
  for (const char* type : {"basic", "digest", "ntlm", ""}) {
    HttpServer proxy([](const HttpRequest&) {
      HttpReply reply = challenge({"Negotiate"});
      reply.then = HttpReply::Close;
      return reply;
    });
    CurlObject object;
    object.setProxy(proxy.address(), type, "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
    EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), TUNNEL_FAILED) << type;
    EXPECT_EQ(proxy.connections(), 1) << type;
    EXPECT_TRUE(source.requests.empty()) << type;
  }
}

TEST_F(CurlProxyTest, UserOfAFormerProxyIsForgotten) {
  for (const char* type : {"basic", "digest", "ntlm"}) {
    HttpServer proxy(proxyFor("Negotiate", {"Negotiate"}));
    CurlObject object;
    object.setProxy(proxy.address(), "anyauth", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
    object.setProxy(proxy.address(), type, "bob@EXAMPLE.TEST", lumo::Shredder2("other"));
    EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), TUNNEL_FAILED) << type;
    EXPECT_TRUE(source.requests.empty()) << "no ticket for anybody";
    EXPECT_EQ(object.recordedOptions().count(CURLOPT_PROXY_GSS_CRED), 0u);
  }
}

TEST_F(CurlProxyTest, AnyAuthAtANegotiateProxyIsRepeatedOnceWithATicket) {
  HttpServer proxy(proxyFor("Negotiate", {"Negotiate", "Basic realm=\"x\""}));
  CurlObject object;
  object.setProxy(proxy.address(), "anyauth", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
  EXPECT_TRUE(source.requests.empty());
  // The ticket is nobody's, so the second attempt goes out without a token.
  EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), TUNNEL_FAILED);
  EXPECT_EQ(source.requests.size(), 1u);
  EXPECT_THAT(authorizations(proxy), Each(Not(HasSubstr("Basic")))) << "the password is not sent";
  const int perAttempt = proxy.connections();
  EXPECT_LE(perAttempt, 3);
  EXPECT_THAT(object.recordedOptions(), Contains(int{CURLOPT_PROXY_GSS_CRED}));
  // The next request begins with the credential: one attempt of the first kind less, and the same cache.
  EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), TUNNEL_FAILED);
  EXPECT_EQ(proxy.connections(), perAttempt + 2);
  EXPECT_EQ(source.requests.size(), 1u);
}

TEST_F(CurlProxyTest, NegotiateAtAProxyThatRefusesIsRepeatedOnceWithTheSameCache) {
  HttpServer proxy(proxyFor("Negotiate", {"Negotiate"}));
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
  EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), TUNNEL_FAILED);
  EXPECT_EQ(proxy.connections(), 2);
  EXPECT_THAT(authorizations(proxy), ElementsAre("", ""));
  EXPECT_EQ(source.requests.size(), 1u) << "the cache is kept";
}

TEST_F(CurlProxyTest, CredentialThatCannotBeMadeAnewIsNotUsedAgain) {
  const testsupport::TempFolder folder;
  const std::string cache = folder.file("machine.ccache");
  source.machineCacheName = "FILE:" + cache;
  writeCache(source.machineCacheName, "HOST1$@EXAMPLE.TEST");
  HttpServer proxy([&cache](const HttpRequest&) {
    std::remove(cache.c_str());
    return challenge({"Negotiate"});
  });
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "S-1-5-18", lumo::Shredder2());
  ASSERT_THAT(object.recordedOptions(), Contains(int{CURLOPT_PROXY_GSS_CRED}));
  EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), TUNNEL_FAILED);
  EXPECT_EQ(proxy.connections(), 2) << "the name of the cache is known, so there is a second attempt";
  for (const int option : {CURLOPT_PROXY_GSS_CRED, CURLOPT_PROXY_GSS_SETUP_FUNCTION, CURLOPT_PROXY_GSS_SETUP_DATA}) {
    EXPECT_EQ(object.recordedOptions().count(option), 0u) << option;
  }
  EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), TUNNEL_FAILED);
}

TEST_F(CurlProxyTest, NegotiateWithoutATicketAsksTheKdcOnceMore) {
  source.result = KRB5KDC_ERR_PREAUTH_FAILED;
  HttpServer proxy(proxyFor("Negotiate", {"Negotiate", "Basic realm=\"x\""}));
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("wrong"));
  EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), TUNNEL_FAILED);
  EXPECT_EQ(source.requests.size(), 2u);
  EXPECT_EQ(proxy.connections(), 1) << "still no ticket: no repeat";
  EXPECT_THAT(authorizations(proxy), ElementsAre(""));
}

TEST_F(CurlProxyTest, SecondFailureIsTheOneThatIsTold) {
  HttpServer proxy([](const HttpRequest& request) {
    return request.connection == 0 ? challenge({"Negotiate"}) : HttpReply{"", HttpReply::Silence};
  });
  CurlObject object;
  object.setOpt(CURLOPT_TIMEOUT_MS, 300);
  object.setProxy(proxy.address(), "negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
  EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }),
            "CurlException -1 " + curltest::transferFailed(CURLE_OPERATION_TIMEDOUT));
  EXPECT_EQ(proxy.connections(), 2);
  EXPECT_THAT(object.lastHeaderLines(), IsEmpty()) << "the second attempt's lines";
}

TEST_F(CurlProxyTest, WhatTheSetUpFunctionThrowsIsThrownByTheTransfer) {
  HttpServer proxy(proxyFor("", {}));
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
  object.setOpt(
      CURLOPT_PROXY_GSS_SETUP_FUNCTION, +[](void*, const char*, void*, void*, ProxyGssCallbacks*) -> int {
        throw KerberosException(42, "no set-up", __FILE__, __LINE__);
      });
  for (int i = 0; i < 2; ++i) {
    try {
      object.perform(TARGET, "", 0);
      ADD_FAILURE() << "nothing thrown";
    } catch (const KerberosException& failure) {
      EXPECT_EQ(failure.rc(), 42);
    }
  }
  EXPECT_TRUE(proxy.requests().empty());
  object.setOpt(CURLOPT_PROXY_GSS_SETUP_FUNCTION, &proxyGssSetup);
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "through the tunnel")) << "the handle lives on";
}

TEST_F(CurlProxyTest, SetUpFunctionThatFailsMakesNoToken) {
  HttpServer proxy(proxyFor("", {}));
  const testsupport::LogCapture log;
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
  object.setOpt(
      CURLOPT_PROXY_GSS_SETUP_FUNCTION,
      +[](void*, const char*, void*, void*, ProxyGssCallbacks*) { return static_cast<int>(GSS_S_FAILURE); });
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "through the tunnel"));
  EXPECT_THAT(authorizations(proxy), ElementsAre(""));
  EXPECT_THAT(log.texts(), Contains("DEBUG cloud.proxy.gss: The set-up of the Negotiate exchange failed."));
}

TEST_F(CurlProxyTest, ProxyThatWordsItsStatusOtherwiseGetsNoSecondAttempt) {
  HttpServer proxy(
      [](const HttpRequest&) { return httpReply("407 authentication required", {"Proxy-Authenticate: Negotiate"}); });
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
  EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }), TUNNEL_FAILED);
  EXPECT_EQ(proxy.connections(), 1);
}

TEST_F(CurlProxyTest, LeftoverServerNegotiationSendsNothing) {
  // The state after a sign-in that ended early: Negotiate for the server, no credential any more.
  HttpServer proxy([](const HttpRequest& request) {
    if (request.method() == "CONNECT") return tunnelReply();
    return httpReply("401 Unauthorized", {"WWW-Authenticate: Negotiate"}, "who are you");
  });
  CurlObject object;
  object.setOpt(CURLOPT_HTTPAUTH, 4);
  object.setOpt(CURLOPT_USERNAME, ":");
  object.setProxy(proxy.address(), "basic", "alice", lumo::Shredder2("secret"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(401, "who are you"));
  ASSERT_EQ(proxy.requests().size(), 2u);
  EXPECT_EQ(proxy.requests()[1].head,
            "GET /path HTTP/1.1\r\nHost: server.example.test\r\nAccept: */*\r\nContent-Length: 0\r\n\r\n");
}
