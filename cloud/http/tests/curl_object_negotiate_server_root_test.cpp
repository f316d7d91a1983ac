// Negotiate with a real KDC at a scripted web server.
#include "cloud/http/tests/negotiate_host.h"

using namespace negotiatetest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;
using testing::StartsWith;

namespace {

class NegotiateServerRoot : public NegotiateRoot {
 protected:
  // As the sign-in code prepares it: the machine's credential, straight to the server.
  void prepare(CurlObject& object, lumo::GSSCredential& credential) {
    object.clearProxy(false);
    object.setOpt(CURLOPT_PROXY_GSS_CRED, credential.acquireCred(ADHelper::GetMachineCredCache().c_str()));
    object.setOpt(CURLOPT_PROXY_GSS_SPN, "HTTP/127.0.0.1@CORP.EXAMPLE.TEST");
    object.setOpt(CURLOPT_PROXY_GSS_SETUP_FUNCTION, &serverGssSetup);
    object.serverGssCallbacks = ProxyGssCallbacks();
    object.setOpt(CURLOPT_PROXY_GSS_SETUP_DATA, &object.serverGssCallbacks);
    object.setOpt(CURLOPT_HTTPAUTH, 4);
    object.setOpt(CURLOPT_USERNAME, ":");
  }
};

}  // namespace

TEST_F(NegotiateServerRoot, EveryRequestHasAFreshTokenOnOneConnection) {
  giveRootATicket();
  HttpServer server([this](const HttpRequest& request) {
    return answerAtServer(request, [&request](const std::string&) { return request.body; });
  });
  CurlObject object;
  lumo::GSSCredential credential;
  prepare(object, credential);
  object.headers["X-Other"] = "1";
  object.headers["A-First"] = "1";
  const std::string url = "http://" + server.address() + "/iwa/SiteCheck";
  EXPECT_THAT(object.perform(url, "", 0), Pair(200, ""));
  EXPECT_THAT(object.perform(url, "posted", 1), Pair(200, "posted"));
  EXPECT_EQ(server.connections(), 1);
  EXPECT_THAT(clients, ElementsAre("HOST1$@CORP.EXAMPLE.TEST", "HOST1$@CORP.EXAMPLE.TEST"));
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  const std::string authorization = requests[0].header("Authorization");
  EXPECT_NE(authorization, requests[1].header("Authorization"));
  EXPECT_EQ(requests[0].head, "GET /iwa/SiteCheck HTTP/1.1\r\nHost: " + server.address() +
                                  "\r\nAccept: */*\r\nA-First: 1\r\nAuthorization: " + authorization +
                                  "\r\nContent-Length: 0\r\nX-Other: 1\r\n\r\n");
  EXPECT_THAT(log.text(), Not(HasSubstr("does not fit the exchange")));
  EXPECT_EQ(object.headers.count("Authorization"), 0u);
}

TEST_F(NegotiateServerRoot, ConnectionOfOneCredentialIsNotTheNextOnes) {
  giveRootATicket();
  HttpServer server([this](const HttpRequest& request) {
    note(acceptToken(tokenOf(request.header("Authorization"))).client);
    return httpReply("200 OK");
  });
  const std::string url = "http://" + server.address() + "/";
  CurlObject object;
  lumo::GSSCredential credential;
  prepare(object, credential);
  object.perform(url, "", 0);
  lumo::GSSCredential another;
  object.setOpt(CURLOPT_PROXY_GSS_CRED, another.acquireCred("FILE:/run/root.ccache"));
  object.perform(url, "", 0);
  object.perform(url, "", 0);
  EXPECT_THAT(clients,
              ElementsAre("HOST1$@CORP.EXAMPLE.TEST", "rootuser@CORP.EXAMPLE.TEST", "rootuser@CORP.EXAMPLE.TEST"));
  EXPECT_EQ(server.connections(), 2);
}

TEST_F(NegotiateServerRoot, WhatTheSetUpFunctionThrowsIsThrownByTheTransfer) {
  HttpServer server([](const HttpRequest&) { return httpReply("200 OK"); });
  CurlObject object;
  lumo::GSSCredential credential;
  prepare(object, credential);
  object.setOpt(
      CURLOPT_PROXY_GSS_SETUP_FUNCTION, +[](void*, const char*, void*, void*, ProxyGssCallbacks*) -> int {
        throw KerberosException(42, "no set-up", __FILE__, __LINE__);
      });
  const std::string url = "http://" + server.address() + "/";
  EXPECT_THROW(object.perform(url, "", 0), KerberosException);
  EXPECT_TRUE(server.requests().empty());
  object.setOpt(CURLOPT_PROXY_GSS_SETUP_FUNCTION, &serverGssSetup);
  EXPECT_EQ(object.perform(url, "", 0).first, 200);
  EXPECT_THAT(server.requests().at(0).header("Authorization"), StartsWith("Negotiate "));
}

TEST_F(NegotiateServerRoot, SignInEndsAndThePlatformGetsNoToken) {
  HttpServer server([](const HttpRequest&) { return httpReply("200 OK"); });
  HttpServer platform([](const HttpRequest&) { return httpReply("200 OK"); });
  CurlObject object;
  {
    lumo::GSSCredential credential;
    prepare(object, credential);
    object.perform("http://" + server.address() + "/", "", 0);
    object.setOpt(CURLOPT_HTTPAUTH, 1);
    object.clearOpt(CURLOPT_USERNAME);
    object.setProxy("", "", "", lumo::Shredder2());
  }
  object.perform("http://" + platform.address() + "/", "", 0);
  EXPECT_THAT(server.requests().at(0).header("Authorization"), StartsWith("Negotiate "));
  EXPECT_EQ(platform.requests().at(0).header("Authorization"), "");
}

TEST_F(NegotiateServerRoot, RefusalIsHandedBackAsItCame) {
  HttpServer server(
      [](const HttpRequest&) { return httpReply("401 Unauthorized", {"WWW-Authenticate: Negotiate"}, "no"); });
  CurlObject object;
  lumo::GSSCredential credential;
  prepare(object, credential);
  EXPECT_THAT(object.perform("http://" + server.address() + "/", "", 0), Pair(401, "no"));
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(NegotiateServerRoot, RefusalWithATokenThatEndsTheExchangeIsNotAnswered) {
  HttpServer server([](const HttpRequest& request) {
    const std::string reply = acceptToken(tokenOf(request.header("Authorization"))).reply;
    return httpReply("401 Unauthorized", {"WWW-Authenticate: Negotiate " + encoded(reply)}, "known, not wanted");
  });
  CurlObject object;
  lumo::GSSCredential credential;
  prepare(object, credential);
  EXPECT_THAT(object.perform("http://" + server.address() + "/", "", 0), Pair(401, "known, not wanted"));
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_THAT(log.text(), Not(HasSubstr("does not fit the exchange")));
}

TEST_F(NegotiateServerRoot, SpoiltTokenOfTheServerIsToldInTheLog) {
  HttpServer server(
      [](const HttpRequest&) { return httpReply("200 OK", {"WWW-Authenticate: Negotiate bm8gdG9rZW4="}, "in"); });
  CurlObject object;
  lumo::GSSCredential credential;
  prepare(object, credential);
  EXPECT_THAT(object.perform("http://" + server.address() + "/", "", 0), Pair(200, "in"));
  EXPECT_THAT(log.text(), HasSubstr("The web server's Negotiate token does not fit the exchange."));
}
