// --test against scripted servers on loopback: proxy and platform at once.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "cli/tests/tested_connection.h"

namespace {

using namespace tooltest;
using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;
using testsupport::tunnelReply;

TEST_F(Connection, KerberosFilesOfTheEnvironmentDecideNothing) {
  const HttpServer proxy(open(OK));
  testsupport::writeFile("/etc/krb5.conf", "[libdefaults]\n default_realm = CORP.EXAMPLE.TEST\n");
  testsupport::writeFile("/var/morvand/damaged.conf", "[libdefaults]\n no equals sign\n");
  testsupport::ProcessOptions options;
  options.environment["KRB5_CONFIG"] = "/var/morvand/damaged.conf";
  const std::string url = "http://platform.example.test/";
  EXPECT_EQ(tool({"-T", "-c", url, "-s", proxy.address()}, options), passed(url, proxy.address()));
  EXPECT_TRUE(testsupport::exists("/etc/krb5.conf"));
  EXPECT_FALSE(testsupport::exists("/etc/krb5.conf.bad"));
}

TEST_F(Connection, PlainUrlGoesThroughATunnelWithoutCredentials) {
  const HttpServer proxy(open(OK));
  const std::string url = "http://platform.example.test/path?q";
  EXPECT_EQ(tool({"-T", "-c", url, "-s", proxy.address()}), passed(url, proxy.address()));
  const auto requests = proxy.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].head.rfind("CONNECT platform.example.test:80 HTTP/1.1\r\n", 0), 0U) << requests[0].head;
  EXPECT_EQ(requests[1].head.rfind("GET /path?q HTTP/1.1\r\n", 0), 0U) << requests[1].head;
  EXPECT_EQ(requests[1].header("Content-Length"), "0");
  for (const auto& request : requests) EXPECT_EQ(request.header("Proxy-Authorization"), "");
}

TEST_F(Connection, ConfiguredServerIsTakenWhereNoneIsGiven) {
  const HttpServer proxy(open(OK));
  configure("ferrod.cloud.proxy.server: " + proxy.address() + "\n");
  for (const Arguments& arguments : {Arguments{"--test", "--opx", "http://h/"}, {"-T", "-c", "http://h/", "-s", ""}}) {
    EXPECT_EQ(tool(arguments), passed("http://h/", proxy.address())) << joined(arguments);
  }
  const HttpServer other(open(OK));
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", other.address()}), passed("http://h/", other.address()));
}

TEST_F(Connection, EnvironmentDecidesNothing) {
  const HttpServer proxy(open(OK));
  testsupport::ProcessOptions options;
  options.environment = {
      {"no_proxy", "*"}, {"http_proxy", "http://127.0.0.1:1"}, {"https_proxy", "http://127.0.0.1:1"}};
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", proxy.address()}, options), passed("http://h/", proxy.address()));
  EXPECT_EQ(proxy.connections(), 1);
}

TEST_F(Connection, WithoutAuthenticationTheGivenUserIsNeitherAskedForNorNamed) {
  const HttpServer proxy(open(OK));
  for (const char* required : {"false", "True", "yes", "TRUE", "1"}) {
    configure("ferrod.cloud.proxy.auth.required: " + std::string(required) + "\n");
    EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", proxy.address(), "-u", "bob"}), passed("http://h/", proxy.address()))
        << required;
  }
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", proxy.address(), "-m"}), passed("http://h/", proxy.address()));
  for (const auto& request : proxy.requests()) EXPECT_EQ(request.header("Proxy-Authorization"), "");
}

TEST_F(Connection, AnyAnswerOfTheWebServerIsAConnection) {
  for (const char* status : {"200 OK", "204 No Content", "302 Found", "401 Unauthorized", "404 Not Found",
                             "407 Proxy Authentication Required", "500 Internal Server Error", "999 Odd"}) {
    const HttpServer proxy(open(httpReply(status, {"Location: http://elsewhere/"})));
    EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", proxy.address()}), passed("http://h/", proxy.address())) << status;
    EXPECT_EQ(proxy.requests().size(), 2U) << status;
  }
}

TEST_F(Connection, ProxyThatOpensNoTunnelFailsTheTest) {
  struct Row {
    const char* what;
    HttpReply reply;
  };
  const Row rows[] = {
      {"asks for a password",
       httpReply("407 Proxy Authentication Required", {"Proxy-Authenticate: Basic realm=\"x\""})},
      {"asks for Negotiate", httpReply("407 Proxy Authentication Required", {"Proxy-Authenticate: Negotiate"})},
      {"fails", httpReply("500 Internal Server Error", {}, "oops")},
      {"refuses", httpReply("403 Forbidden")},
      {"redirects", httpReply("302 Found", {"Location: http://elsewhere/"})},
      {"talks rubbish", {"\x01\x02rubbish\r\n\r\n", HttpReply::Close}},
      {"hangs up", {"", HttpReply::Close}},
      {"hangs up in its answer", {"HTTP/1.1 200 Conn", HttpReply::Close}},
      {"sends a broken status", {"HTTP/1.1 2\r\n\r\n", HttpReply::Close}},
  };
  for (const auto& row : rows) {
    const HttpServer proxy(always(row.reply));
    EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", proxy.address()}), failed("http://h/", proxy.address())) << row.what;
    EXPECT_EQ(proxy.requests().size(), 1U) << row.what;
  }
}

TEST_F(Connection, AnswerThatBreaksOffFailsTheTest) {
  const HttpServer cut(open({"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort", HttpReply::Close}));
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", cut.address()}), failed("http://h/", cut.address()));
  const HttpServer empty(open({"", HttpReply::Close}));
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", empty.address()}), failed("http://h/", empty.address()));
}

TEST_F(Connection, NobodyAtTheProxysAddressFailsTheTest) {
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", "127.0.0.1:9"}), failed("http://h/", "127.0.0.1:9"));
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", "nowhere.invalid:3128"}), failed("http://h/", "nowhere.invalid:3128"));
}

TEST_F(Connection, OddAddressesFailWithoutACrash) {
  for (const std::string url :
       {"nonsense://h/", "http://", "http:///", "h h", "\xFF\xFE", "://", "http://[::1", "%s%n"}) {
    const Outcome outcome = tool({"-T", "-c", url, "-s", "127.0.0.1:9"});
    EXPECT_EQ(outcome, failed(url, "127.0.0.1:9")) << url;
  }
  for (const std::string server : {"host:abc", "a:b:c", "127.0.0.1:99999", "ftp://h:1", " :1", "\xFF:1", "%s%n:1"}) {
    const Outcome outcome = tool({"-T", "-c", "http://h/", "-s", server});
    EXPECT_EQ(outcome, failed("http://h/", server)) << server;
  }
}

class Trace : public Connection {};

TEST_F(Trace, IsShownOnSuccessAndOnFailure) {
  const HttpServer proxy(open(OK));
  configure("ferrod.cloud.skip.cert.verification: true\n");
  const Outcome good = tool({"-T", "-V", "-c", "http://h/", "-s", proxy.address()});
  EXPECT_EQ(good.status, 0);
  EXPECT_EQ(good.out, "Connection to OPX is successful.\n\n");
  for (const char* part : {"\nCurl Debug Info...\n*", "\n>CONNECT h:80 HTTP/1.1\r\n",
                           "<HTTP/1.1 200 Connection established\r\n", "\n>GET / HTTP/1.1\r\n", "\n<hello"}) {
    EXPECT_NE(good.err.find(part), std::string::npos) << part << good;
  }
  const HttpServer refusing(always(httpReply("403 Forbidden")));
  const Outcome bad = tool({"-T", "-V", "-c", "http://h/", "-s", refusing.address()});
  EXPECT_EQ(bad.status, 162);
  EXPECT_NE(bad.err.find("<HTTP/1.1 403 Forbidden\r\n"), std::string::npos) << bad;
  const std::string end = "ERROR: Connection test failed.\n\n";
  EXPECT_EQ(bad.err.substr(bad.err.size() - end.size()), end);
}

TEST_F(Trace, AndLogHoldNoPasswordOfAnAddress) {
  const HttpServer proxy([](const HttpRequest& request) {
    if (request.method() == "CONNECT") return tunnelReply();
    // Asked for a password, libcurl quotes the URL; whatever it sends, the page shows it.
    if (request.header("Authorization").empty()) {
      return httpReply("401 Unauthorized",
                       {"WWW-Authenticate: Digest realm=\"r\", nonce=\"n\"", "WWW-Authenticate: Basic realm=\"r\""});
    }
    return httpReply("200 OK", {}, "you sent\n" + request.head);
  });
  configure("log: TRACE\nlogging.file: " + std::string(LOG) + "\nferrod.cloud.skip.cert.verification: true\n");
  const std::string base64 = "Ym9iOnNlY3JldC13b3Jk";  // bob:secret-word
  for (const std::string& server :
       {"bob:secret-word@" + proxy.address(), "http://bob:secret-word@" + proxy.address()}) {
    const Outcome outcome = tool({"-T", "-V", "-c", "http://bob:secret-word@h/", "-s", server});
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_NE(outcome.err.find("http://bob:******@h/"), std::string::npos) << outcome;
    EXPECT_NE(outcome.err.find(">GET / HTTP/1.1\r\nHost: h\r\nAuthorization: ******\n"), std::string::npos) << outcome;
    EXPECT_NE(outcome.err.find("Proxy-Authorization: ******\n"), std::string::npos) << outcome;
    const std::string log = testsupport::readFile(LOG);
    for (const std::string& secret : {std::string("secret"), base64}) {
      EXPECT_EQ(outcome.err.find(secret), std::string::npos) << outcome;
      EXPECT_EQ(log.find(secret), std::string::npos) << log;
    }
  }
  bool sent = false;
  for (const auto& request : proxy.requests()) sent |= request.header("Authorization") == "Basic " + base64;
  EXPECT_TRUE(sent) << "the password was to be sent, only not to be shown";
}

TEST_F(Trace, ErrorsOfTheTransportQuoteNoPassword) {
  configure("log: TRACE\nlogging.file: " + std::string(LOG) + "\n");
  for (const char* server : {"ftp://bob:secret-word@h:1", "bob:secret-word@a b:1", "bob:secret-word@h:99999",
                             "nonsense://bob:secret-word@h:1", "bob:secret-word@nowhere.invalid:1"}) {
    const Outcome outcome = tool({"-T", "-V", "-c", "http://bob:secret-word@[bad/", "-s", server});
    EXPECT_EQ(outcome.err.find("secret"), std::string::npos) << outcome;
  }
  EXPECT_EQ(testsupport::readFile(LOG).find("secret"), std::string::npos);
}

// The credential of --test, as far as it is settled before any network use.
class TestCredential : public Connection {
 protected:
  void SetUp() override {
    Connection::SetUp();
    configure("ferrod.cloud.proxy.auth.required: true\nferrod.cloud.proxy.auth.type: Basic\n");
  }
};

const Outcome NO_CREDENTIAL = error(159, "Failed to get credential data");

TEST_F(TestCredential, MissingFileIsAFailureToGetIt) {
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", "h:1"}), NO_CREDENTIAL);
  EXPECT_EQ(tool({"-T", "-V", "-c", "http://h/", "-s", "h:1"}), NO_CREDENTIAL);
  testsupport::writeFile(CREDENTIAL, "rubbish", 0600);
  EXPECT_EQ(tool({"-T", "-V", "-c", "http://h/", "-s", "h:1"}), NO_CREDENTIAL);
  chmod(CREDENTIAL, 0666);
  EXPECT_EQ(tool({"-T", "-V", "-c", "http://h/", "-s", "h:1"}), NO_CREDENTIAL);
}

TEST_F(TestCredential, UserWithoutAPasswordIsPromptedAlthoughThereIsAFile) {
  ASSERT_EQ(tool({"-S", "-u", "bob", "-p", "stored"}).status, 0);
  const Outcome outcome = tool({"-T", "-c", "http://h/", "-s", "h:1", "-u", "bob"});
  EXPECT_EQ(outcome.status, 159);
  EXPECT_NE(outcome.err.find("Cannot read the password from the terminal. Supply it with the --password option.\n\n"
                             "ERROR: Failed to get credential data.\n\n"),
            std::string::npos)
      << outcome;
}

TEST_F(TestCredential, SecretOfAWaitingTestIsInNoProcessList) {
  unlink(CONFIGURATION);
  const HttpServer mute(always({"", HttpReply::Silence}));
  for (const Arguments& password :
       {Arguments{"-p", "s3cretZq"}, {"-ps3cretZq"}, {"--password=s3cretZq"}, {"--pass", "s3cretZq"}}) {
    Arguments words{testsupport::toolPath(), "-T", "-c", "http://bob:s3cretZq@h/", "-s", mute.address()};
    words.insert(words.end(), password.begin(), password.end());
    const size_t before = mute.requests().size();
    const pid_t pid = fork();
    if (pid == 0) {
      std::vector<char*> argv;
      for (auto& word : words) argv.push_back(word.data());
      argv.push_back(nullptr);
      close(STDERR_FILENO);
      execv(argv[0], argv.data());
      _exit(127);
    }
    EXPECT_TRUE(mute.waitForRequests(before + 1, std::chrono::seconds(20)));
    const std::string line = testsupport::readFile("/proc/" + std::to_string(pid) + "/cmdline");
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    EXPECT_NE(line.find(mute.address()), std::string::npos);
    EXPECT_EQ(line.find("s3cret"), std::string::npos) << testing::PrintToString(line);
    EXPECT_EQ(line.find("Zq"), std::string::npos) << testing::PrintToString(line);
  }
}

// The one slow test: the limit of a transfer is 30 seconds.
TEST_F(Connection, SilentProxyEndsTheTestWhenTheTimeIsUp) {
  const HttpServer mute(always({"", HttpReply::Silence}));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", mute.address()}), failed("http://h/", mute.address()));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::seconds(29));
  EXPECT_LT(took, std::chrono::seconds(60));
}

}  // namespace
