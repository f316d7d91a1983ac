// Negotiate with a real KDC, at a scripted proxy and a scripted web server that accept tokens with a real keytab.
#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>

#include <cstdlib>
#include <mutex>

#include "base/include/parameter_names.h"
#include "cloud/tests/curl_object_fixture.h"
#include "testsupport/captured_log.h"
#include "testsupport/http_server.h"
#include "testsupport/memory_directory.h"
#include "testsupport/mit_kdc.h"
#include "testsupport/private_host.h"

using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;
using testing::StartsWith;
using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;
using testsupport::tunnelReply;

namespace {

constexpr char REALM[] = "CORP.EXAMPLE.TEST";
constexpr char KEYTAB[] = "/etc/service.keytab";
constexpr char TARGET[] = "http://server.example.test/";

std::string base64(const std::string& bytes) {
  std::string text(bytes.size() * 2 + 4, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(length));
  return text;
}

std::string fromBase64(const std::string& text) {
  std::string bytes(text.size(), '\0');
  const int length =
      EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                      reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  bytes.resize(length < 0 ? 0
                          : static_cast<size_t>(length) -
                                (text.find('=') == std::string::npos ? 0 : text.size() - text.find('=')));
  return bytes;
}

// What the accepting side made of one token.
struct Accepted {
  std::string client;  // empty: refused
  std::string reply;   // bytes of the answering token
};

Accepted acceptToken(const std::string& token) {
  Accepted accepted;
  OM_uint32 minor = 0;
  gss_key_value_element_desc element = {"keytab", KEYTAB};
  const gss_key_value_set_desc store = {1, &element};
  gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
  gss_acquire_cred_from(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, GSS_C_NO_OID_SET, GSS_C_ACCEPT, &store, &credential,
                        nullptr, nullptr);
  std::string bytes = fromBase64(token);
  gss_buffer_desc input{bytes.size(), bytes.data()};
  gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
  gss_ctx_id_t context = GSS_C_NO_CONTEXT;
  gss_name_t client = GSS_C_NO_NAME;
  const OM_uint32 major = gss_accept_sec_context(&minor, &context, credential, &input, GSS_C_NO_CHANNEL_BINDINGS,
                                                 &client, nullptr, &output, nullptr, nullptr, nullptr);
  if (major == GSS_S_COMPLETE) {
    gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
    gss_display_name(&minor, client, &text, nullptr);
    accepted.client.assign(static_cast<const char*>(text.value), text.length);
    accepted.reply.assign(static_cast<const char*>(output.value), output.length);
    gss_release_buffer(&minor, &text);
  }
  gss_release_buffer(&minor, &output);
  gss_release_name(&minor, &client);
  gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
  gss_release_cred(&minor, &credential);
  return accepted;
}

// The token of a header value "Negotiate TOKEN", empty for another one.
std::string tokenOf(const std::string& value) {
  return value.compare(0, 10, "Negotiate ") == 0 ? value.substr(10) : std::string();
}

class NegotiateRoot : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    kdc = new testsupport::MitKdc(REALM);
    kdc->addUser("alice", "alice-pw");
    kdc->addUser("bob", "b:o%62 \"b\xc3\xa4");
    kdc->addUser("rootuser", "root-pw");
    kdc->addWithKeytab("HTTP/127.0.0.1", KEYTAB);
    kdc->addWithKeytab("HOST1$", lumo::path::MACHINE_KEYTAB);
    kdc->start();
  }
  static void TearDownTestSuite() {
    delete kdc;
    kdc = nullptr;
  }

  NegotiateRoot() {
    directory.add("CN=PROXY,DC=corp,DC=example,DC=test", {{"servicePrincipalName", {"HTTP/127.0.0.1"}}});
  }
  ~NegotiateRoot() override { unsetenv("KRB5CCNAME"); }

  // A proxy that lets in whoever brings a good token, and the server behind it.
  HttpServer::Handler negotiateProxy(std::vector<std::string> alsoOffered = {}, bool answersWithToken = false) {
    return [this, alsoOffered, answersWithToken](const HttpRequest& request) {
      if (request.method() != "CONNECT") return httpReply("200 OK", {}, "in");
      const std::string token = tokenOf(request.header("Proxy-Authorization"));
      const Accepted accepted = token.empty() ? Accepted() : acceptToken(token);
      if (!accepted.client.empty()) {
        note(accepted.client);
        if (!answersWithToken) return tunnelReply();
        return HttpReply{"HTTP/1.1 200 Connection established\r\nProxy-Authenticate: Negotiate " +
                             base64(spoil ? "no token" : accepted.reply) + "\r\n\r\n",
                         HttpReply::KeepOpen};
      }
      std::vector<std::string> lines = {"Proxy-Authenticate: Negotiate"};
      for (const std::string& scheme : alsoOffered) lines.push_back("Proxy-Authenticate: " + scheme);
      return httpReply("407 Proxy Authentication Required", lines);
    };
  }

  void note(const std::string& client) {
    const std::lock_guard<std::mutex> lock(mutex);
    clients.push_back(client);
  }

  // Root's own ticket in the default cache of the process.
  void giveRootATicket() {
    krb5_context context = nullptr;
    krb5_principal root = nullptr;
    krb5_creds ticket{};
    ASSERT_EQ(krb5_init_context(&context), 0);
    ASSERT_EQ(krb5_parse_name(context, "rootuser@CORP.EXAMPLE.TEST", &root), 0);
    ASSERT_EQ(krb5_get_init_creds_password(context, &ticket, root, "root-pw", nullptr, nullptr, 0, nullptr, nullptr),
              0);
    krb5_ccache cache = nullptr;
    ASSERT_EQ(krb5_cc_resolve(context, "FILE:/run/root.ccache", &cache), 0);
    ASSERT_EQ(krb5_cc_initialize(context, cache, root), 0);
    ASSERT_EQ(krb5_cc_store_cred(context, cache, &ticket), 0);
    krb5_cc_close(context, cache);
    krb5_free_cred_contents(context, &ticket);
    krb5_free_principal(context, root);
    krb5_free_context(context);
    setenv("KRB5CCNAME", "FILE:/run/root.ccache", 1);
  }

  static testsupport::MitKdc* kdc;
  testsupport::MemoryDirectory directory{"corp.example.test"};
  testsupport::DirectoryInForce inForce{directory};
  testsupport::CapturedLog log;
  std::mutex mutex;
  std::vector<std::string> clients;
  bool spoil = false;
};

testsupport::MitKdc* NegotiateRoot::kdc = nullptr;

std::vector<std::string> connectTokens(const HttpServer& proxy) {
  std::vector<std::string> tokens;
  for (const HttpRequest& request : proxy.requests()) {
    if (request.method() == "CONNECT") tokens.push_back(tokenOf(request.header("Proxy-Authorization")));
  }
  return tokens;
}

}  // namespace

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

TEST_F(NegotiateRoot, TicketInTheDefaultCacheIsNeverUsed) {
  giveRootATicket();
  HttpServer proxy(negotiateProxy({"Basic realm=\"x\""}));
  for (const char* type : {"negotiate", "anyauth"}) {
    CurlObject object;
    object.setProxy(proxy.address(), type, "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("wrong"));
    EXPECT_EQ(
        curlFailure([&] { object.perform(TARGET, "", 0); }),
        "CurlException -1 curl error occurred in curl_easy_perform: Failure when receiving data from the peer (56)");
    object.setProxy(proxy.address(), type, "alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
    EXPECT_THAT(object.perform(TARGET, "", 0), Pair(200, "in"));
  }
  EXPECT_THAT(clients, ElementsAre("alice@CORP.EXAMPLE.TEST", "alice@CORP.EXAMPLE.TEST"));
  for (const HttpRequest& request : proxy.requests()) {
    EXPECT_THAT(request.header("Proxy-Authorization"), Not(StartsWith("Basic")));
  }
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
  EXPECT_THAT(log.text(), HasSubstr("The proxy's Negotiate token does not fit the exchange."));
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
  EXPECT_THAT(log.text(), HasSubstr("Negotiate exchange failed: "));
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

// The web server's side.

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

TEST_F(NegotiateServerRoot, EveryRequestHasAFreshTokenOnOneConnection) {
  giveRootATicket();
  HttpServer server([this](const HttpRequest& request) {
    const Accepted accepted = acceptToken(tokenOf(request.header("Authorization")));
    if (accepted.client.empty()) return httpReply("401 Unauthorized", {"WWW-Authenticate: Negotiate"});
    note(accepted.client);
    return httpReply("200 OK", {"WWW-Authenticate: Negotiate " + base64(accepted.reply)}, request.body);
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
    return httpReply("401 Unauthorized", {"WWW-Authenticate: Negotiate " + base64(reply)}, "known, not wanted");
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
