// Negotiate with a real KDC at a scripted proxy.
#include "cloud/http/tests/curl_words.h"
#include "cloud/http/tests/lesser_libcurl.h"
#include "cloud/http/tests/negotiate_host.h"

using namespace negotiatetest;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;
using testing::StartsWith;

TEST_F(NegotiateRoot, UserPassesWithOneTokenForOneTunnel) {
  HttpServer proxy(negotiateProxy());
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
  EXPECT_THAT(clients, ElementsAre("alice@CORP.EXAMPLE.TEST"));
  ASSERT_EQ(proxy.requests().size(), 3u);
  const HttpRequest connect = proxy.requests()[0];
  EXPECT_EQ(connect.head,
            "CONNECT server.example.test:80 HTTP/1.1\r\nHost: server.example.test:80\r\n"
            "Proxy-Connection: Keep-Alive\r\nProxy-Authorization: Negotiate " +
                tokenOf(connect.header("Proxy-Authorization")) + "\r\n\r\n");
  EXPECT_EQ(proxy.requests()[1].header("Proxy-Authorization"), "") << "the token is not the server's";
  EXPECT_THAT(log.text(), HasSubstr("setAllowableEtypes for realm 'CORP.EXAMPLE.TEST'"));
}

TEST_F(NegotiateRoot, EachConnectionHasAFreshToken) {
  HttpServer proxy([handler = negotiateProxy()](const HttpRequest& request) {
    HttpReply reply = handler(request);
    if (request.method() != "CONNECT") reply.then = HttpReply::Close;
    return reply;
  });
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  object.perform(TARGET, "", 0);
  ASSERT_TRUE(proxy.waitForEnds(1, seconds(10)));
  object.perform(TARGET, "", 0);
  const auto tokens = connectTokens(proxy);
  ASSERT_EQ(tokens.size(), 2u);
  EXPECT_NE(tokens[0], tokens[1]);
  EXPECT_THAT(clients, ElementsAre("alice@CORP.EXAMPLE.TEST", "alice@CORP.EXAMPLE.TEST"));
}

TEST_F(NegotiateRoot, TwoUsersAndTheMachinePassAsThemselvesOnOneObject) {
  HttpServer proxy(negotiateProxy());
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  object.perform(TARGET, "", 0);
  object.setProxy(proxy.address(), "negotiate", "bob", lumo::Shredder2("b:o%62 \"b\xc3\xa4"));
  object.perform(TARGET, "", 0);
  object.setProxy(proxy.address(), "negotiate", MACHINE_MARKER, lumo::Shredder2());
  object.perform(TARGET, "", 0);
  object.perform(TARGET, "", 0);
  EXPECT_THAT(clients, ElementsAre("alice@CORP.EXAMPLE.TEST", "bob@CORP.EXAMPLE.TEST", "HOST1$@CORP.EXAMPLE.TEST"));
  EXPECT_TRUE(proxy.waitForEnds(2, seconds(10))) << "the former tunnels are closed";
}

TEST_F(NegotiateRoot, AnyAuthPassesAtTheSecondAttempt) {
  HttpServer proxy(negotiateProxy({"Basic realm=\"x\""}));
  CurlObject object;
  object.setProxy(proxy.address(), "anyauth", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
  EXPECT_THAT(clients, ElementsAre("alice@CORP.EXAMPLE.TEST"));
  for (const HttpRequest& request : proxy.requests()) {
    EXPECT_THAT(request.header("Proxy-Authorization"), Not(StartsWith("Basic")));
  }
}

TEST_F(NegotiateRoot, AnyAuthPassesAlsoWithALibcurlWithoutSpnego) {
  const lessercurl::LibcurlWithout without(static_cast<long>(CURLAUTH_NEGOTIATE));
  HttpServer proxy(negotiateProxy({"Basic realm=\"x\""}));
  CurlObject object;
  object.setProxy(proxy.address(), "anyauth", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
  EXPECT_THAT(clients, ElementsAre("alice@CORP.EXAMPLE.TEST"));
  EXPECT_THAT(connectTokens(proxy), ElementsAre("", Not("")));
  EXPECT_THAT(log.text(), Not(HasSubstr("The password is not sent by Basic"))) << "the second attempt passed";
  for (const HttpRequest& request : proxy.requests()) {
    EXPECT_THAT(request.header("Proxy-Authorization"), Not(StartsWith("Basic")));
  }
}

TEST_F(NegotiateRoot, TicketInTheDefaultCacheIsNeverUsed) {
  giveRootATicket();
  HttpServer proxy(negotiateProxy({"Basic realm=\"x\""}));
  for (const char* type : {"negotiate", "anyauth"}) {
    CurlObject object;
    object.setProxy(proxy.address(), type, "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("wrong"));
    EXPECT_EQ(curlFailure([&] { object.perform(TARGET, "", 0); }),
              "CurlException -1 " + curltest::transferFailed(CURLE_RECV_ERROR));
    object.setProxy(proxy.address(), type, "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
    EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
  }
  EXPECT_THAT(clients, ElementsAre("alice@CORP.EXAMPLE.TEST", "alice@CORP.EXAMPLE.TEST"));
  for (const HttpRequest& request : proxy.requests()) {
    EXPECT_THAT(request.header("Proxy-Authorization"), Not(StartsWith("Basic")));
  }
}

TEST_F(NegotiateRoot, CredentialForTheProxyIsNotTheServers) {
  HttpServer proxy(negotiateProxy());
  CurlObject object;
  // What a sign-in at a web server that ended early leaves.
  object.setOpt(CURLOPT_HTTPAUTH, 4);
  object.setOpt(CURLOPT_USERNAME, ":");
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
  ASSERT_EQ(proxy.requests().size(), 2u);
  EXPECT_EQ(proxy.requests()[1].header("Authorization"), "");
}

TEST_F(NegotiateRoot, TunnelOfAGoodPasswordIsNotTheBadOnes) {
  HttpServer proxy(negotiateProxy());
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  object.perform(TARGET, "", 0);
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("wrong"));
  EXPECT_THROW(object.perform(TARGET, "", 0), lumo::CurlException);
}

TEST_F(NegotiateRoot, ProxysOwnTokenIsChecked) {
  HttpServer proxy(negotiateProxy({}, true));
  {
    CurlObject object;
    object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
    EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
    EXPECT_THAT(log.text(), Not(HasSubstr("does not fit the exchange")));
  }
  spoil = true;
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  object.perform(TARGET, "", 0);
  EXPECT_THAT(log.text(), HasSubstr("WARN cloud.proxy.gss: The proxy's Negotiate token does not fit the exchange."));
}

TEST_F(NegotiateRoot, TokenOfTheWebServerIsNotTakenForTheProxys) {
  HttpServer proxy([handler = negotiateProxy()](const HttpRequest& request) {
    if (request.method() == "CONNECT") return handler(request);
    return httpReply("200 OK", {"Proxy-Authenticate: Negotiate " + encoded("no token")}, "in");
  });
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
  EXPECT_THAT(log.text(), Not(HasSubstr("does not fit the exchange")));
}

TEST_F(NegotiateRoot, SecretsAreNotInTheLog) {
  HttpServer proxy(negotiateProxy({"Basic realm=\"x\""}));
  CurlObject object;
  object.setProxy(proxy.address(), "anyauth", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  object.perform(TARGET, "", 0);
  EXPECT_THAT(log.text(), Not(HasSubstr("alice-pw")));
  for (const std::string& token : connectTokens(proxy)) {
    if (token.empty()) continue;
    EXPECT_THAT(log.text(), Not(HasSubstr(token)));
  }
}

TEST_F(NegotiateRoot, ServerThatIsNotInTheDatabaseGetsNoToken) {
  directory.remove("CN=PROXY,DC=corp,DC=example,DC=test");
  directory.add("CN=PROXY,DC=corp,DC=example,DC=test", {{"servicePrincipalName", {"HTTP/127.0.0.1:8080"}}});
  HttpServer proxy(negotiateProxy());
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  object.setOpt(CURLOPT_PROXY_GSS_SPN, "HTTP/nobody.example.test@CORP.EXAMPLE.TEST");
  EXPECT_THROW(object.perform(TARGET, "", 0), lumo::CurlException);
  EXPECT_EQ(proxy.connections(), 2);
  EXPECT_THAT(connectTokens(proxy), ElementsAre("", ""));
  EXPECT_THAT(log.text(), HasSubstr("WARN cloud.proxy.gss: Negotiate exchange failed: "));
  EXPECT_THAT(log.text(), HasSubstr(" (service name 'HTTP/nobody.example.test@CORP.EXAMPLE.TEST')"));
}

TEST_F(NegotiateRoot, ProxyThatTheDirectoryDoesNotKnowIsAskedForByItsHost) {
  directory.remove("CN=PROXY,DC=corp,DC=example,DC=test");
  HttpServer proxy(negotiateProxy());
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
  EXPECT_THAT(clients, ElementsAre("alice@CORP.EXAMPLE.TEST"));
  EXPECT_THAT(log.text(), HasSubstr("setAllowableEtypes for realm ''"));
}

TEST_F(NegotiateRoot, StoppedKdcEndsInARefusalAtTheProxy) {
  HttpServer proxy(negotiateProxy());
  // The look-up of the service name has the machine's ticket already: what is missing is the user's.
  ADHelper::GetMachineCredCache();
  kdc->stop();
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  EXPECT_THROW(object.perform(TARGET, "", 0), lumo::CurlException);
  EXPECT_THAT(log.text(), HasSubstr("Failed to get kerberos credential to access Http Proxy Server for "
                                    "user=alice@CORP.EXAMPLE.TEST, rc=-1765328228."));
  kdc->start();
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
}

// Tickets that came too late.
class ExpiredTickets : public KerberosCredentialSource {
 public:
  ExpiredTickets() { setInstance(this); }
  ~ExpiredTickets() override { setInstance(nullptr); }
  ExpiredTickets(const ExpiredTickets&) = delete;
  ExpiredTickets& operator=(const ExpiredTickets&) = delete;

  krb5_error_code ticketByPassword(krb5_context context, krb5_principal principal, const lumo::Shredder&,
                                   const std::string&, int, krb5_creds* creds, std::string*) override {
    ++requests;
    *creds = testsupport::handMadeTicket(context, principal, -3600);
    return 0;
  }
  std::string machineCache() override { return "MEMORY:nobody"; }

  int requests = 0;
};

TEST_F(NegotiateRoot, ExpiredTicketIsKeptAndEndsInARefusal) {
  ExpiredTickets tickets;
  HttpServer proxy(negotiateProxy());
  CurlObject object;
  object.setProxy(proxy.address(), "negotiate", "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
  EXPECT_THROW(object.perform(TARGET, "", 0), lumo::CurlException);
  EXPECT_EQ(proxy.connections(), 2);
  EXPECT_EQ(tickets.requests, 1);
  EXPECT_THAT(connectTokens(proxy), ElementsAre("", ""));
}
