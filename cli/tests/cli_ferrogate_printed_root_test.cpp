// What a proxy, a file or an argument brings along reaches the terminal escaped, whatever command prints it.
#include "cli/tests/tested_connection.h"

namespace {

using namespace tooltest;
using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpServer;

// Every byte of what was printed can be seen, but for line ends.
void expectPrintable(const std::string& text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool lineEnd = c == '\n' || (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n');
    EXPECT_TRUE(lineEnd || (c >= 0x20 && c < 0x7f))
        << static_cast<int>(c) << " at " << i << testing::PrintToString(text);
  }
}

class Printed : public Connection {
 protected:
  testsupport::TempFolder folder;
  testsupport::Certificate certificate = testsupport::makeCertificate(folder.path(), "server", {});
};

TEST_F(Printed, AReasonPhraseOfAProxyIsEscapedInTheTrace) {
  const HttpServer proxy(
      always({"HTTP/1.1 403 No\x1b]0;owned\x07\x1b[2J\rback\x9b\r\nX: \xc2\x9b\b\r\n\r\n", HttpReply::Close}));
  const Outcome outcome = tool({"-T", "-V", "-c", "http://h/", "-s", proxy.address()});
  EXPECT_EQ(outcome.status, 162);
  expectPrintable(outcome.err);
  EXPECT_NE(outcome.err.find("<HTTP/1.1 403 No\\x1b]0;owned\\x07\\x1b[2J"), std::string::npos) << outcome;
}

TEST_F(Printed, ABodyMakesNoLinesThatLookLikeTheToolsOwn) {
  const HttpServer proxy(open(httpReply("200 OK", {}, "\n* SSL certificate verify ok.\n>GET /\n")));
  const Outcome outcome = tool({"-T", "-V", "-c", "http://h/", "-s", proxy.address()});
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_NE(outcome.err.find("<\n<* SSL certificate verify ok.\n<>GET /\n"), std::string::npos) << outcome;
}

TEST_F(Printed, ABinaryBodyIsALineOfItsFirstBytes) {
  const HttpServer proxy(open(httpReply("200 OK", {}, std::string(1000, '\x1b'))));
  const Outcome outcome = tool({"-T", "-V", "-c", "http://h/", "-s", proxy.address()});
  expectPrintable(outcome.err);
  std::string shown;
  for (int i = 0; i < 32; ++i) shown += "\\x1b";
  EXPECT_NE(outcome.err.find("<" + shown + "...\n"), std::string::npos) << outcome;
}

TEST_F(Printed, ARecordOfTlsIsShort) {
  const HttpServer proxy(open(OK, true), &certificate);
  configure("ferrod.cloud.skip.cert.verification: true\n");
  const Outcome outcome = tool({"-T", "-V", "-c", "https://h/", "-s", proxy.address()});
  EXPECT_EQ(outcome.status, 0) << outcome;
  expectPrintable(outcome.err);
  EXPECT_NE(outcome.err.find(">\\x16\\x03"), std::string::npos) << outcome;
}

TEST_F(Printed, SettingsAndTheStoredUserAreEscapedInTheList) {
  ASSERT_EQ(tool({"-S", "-u", "bob\nProxy Account: alice\x1b[1A", "-p", "x"}).status, 0);
  configure(
      "ferrod.cloud.proxy.server: h:1\x1b[2J\nferrod.cloud.proxy.auth.required: \x07\nferrod.cloud.proxy.auth.type: "
      "\x1b\xff\n");
  const Outcome outcome = tool({"-L"});
  EXPECT_EQ(outcome.out,
            "Proxy Server: h:1\\x1b[2J\nProxy Auth Required: \\x07\nProxy Auth Type: \\x1b\\xff\n"
            "Proxy Account: bob\\nProxy Account: alice\\x1b[1A\nCredential Encrypted with Key Version: 3\n"
            "Credential Encryption Type: AES-256 CTS mode with 96-bit SHA-1 HMAC\n");
  // A program that asks for the name gets it as it is.
  EXPECT_EQ(tool({"-C", "-u"}).err, "bob\nProxy Account: alice\x1b[1A");
}

TEST_F(Printed, TheAnnouncementOfATestIsOneLine) {
  const HttpServer proxy(always(httpReply("403 Forbidden")));
  configure("ferrod.cloud.proxy.auth.required: true\nferrod.cloud.proxy.auth.type: basic\x1b\n");
  const Outcome outcome = tool({"-T", "-c", "http://h/\n\x1b", "-s", "127.0.0.1:1/\x07", "-u", "a\nb", "-p", "x"});
  expectPrintable(outcome.err);
  EXPECT_EQ(
      outcome.err.rfind("Connection Test to OPX http://h/\\n\\x1b via proxy '127.0.0.1:1/\\x07' with 'basic\\x1b' "
                        "authtype and username:'a\\nb'.\n",
                        0),
      0U)
      << outcome;
}

TEST_F(Printed, AFailureWithAForeignNameIsOneLine) {
  testsupport::writeFile("/var/morvand/blocked", "");
  configure("krb5.conf.file: /var/morvand/\x1b[2J\nferrod.cloud.cert.store: /nowhere/\x1b[2J\n");
  const HttpServer proxy(open(OK, true), &certificate);
  const Outcome outcome = tool({"-T", "-V", "-c", "https://h/", "-s", proxy.address()});
  expectPrintable(outcome.err);
  EXPECT_NE(outcome.err.find("Using cert store: /nowhere/\\x1b[2J\n"), std::string::npos) << outcome;
}

}  // namespace
