// What a run of the tool leaves in the log: its own records, whole, with their levels and their order.
#include <algorithm>

#include "cli/tests/tool_host.h"
#include "testsupport/http_server.h"
#include "testsupport/log_capture.h"

namespace {

using namespace tooltest;
using testsupport::HttpRequest;
using testsupport::HttpServer;

using Records = std::vector<std::string>;

constexpr char HINTED[] = "ERROR Please run with -h option to get the help page.";
constexpr char SET_RECORD[] =
    "DEBUG Set the HTTP Proxy configuration successfully.\\n"
    "You may want to run ferrokick to make the new configuration effective.";

struct Row {
  Arguments arguments;
  int status;
  Records records;
};

class Log : public JoinedHost {
 protected:
  // Each run with these settings and a log of its own.
  static void expect(const std::vector<Row>& rows, const std::string& settings = {}) {
    for (const auto& row : rows) {
      configureLog(settings);
      EXPECT_EQ(tool(row.arguments).status, row.status) << joined(row.arguments);
      EXPECT_EQ(records(), row.records) << joined(row.arguments);
    }
  }
};

TEST_F(Log, OfARefusalIsAnErrorAndSoIsTheHint) {
  expect({
      {{"-X"}, 7, {"ERROR Invalid command.", HINTED}},
      {{"-D", "-V", "-D"}, 7, {"ERROR Only one command may be given.", HINTED}},
      {{"-L", "-S"}, 7, {"ERROR Wrong option.", HINTED}},
      {{"-C"}, 7, {HINTED}},
      {{"-S", "-u", ""}, 7, {"ERROR Username should not be empty.", HINTED}},
      {{"-S", "-s", "h"}, 7, {"ERROR Invalid server's name format specified in --server option.", HINTED}},
      {{"-S"}, 7, {"ERROR Must provide either of --username, --machine, --server or --authreq option.", HINTED}},
      {{"-T"}, 7, {"ERROR Must provide --opx option.", HINTED}},
  });
  expect({{{"-S", "-t", "ntlm"}, 7, {"ERROR Auth Type 'ntlm' is not allowed when FIPS mode is enabled.", HINTED}}},
         "fips.mode.enable: true\n");
}

TEST_F(Log, OfAResultIsAnErrorBehindWhatLedToIt) {
  expect({
      {{"-L"}, 158, {"ERROR ERROR: No credential data available."}},
      {{"-T", "-c", "http://h/"},
       163,
       {"ERROR HTTP proxy server is required for testing HTTP proxy credential.",
        "ERROR ERROR: No proxy server available."}},
      {{"-S", "-u", "bob"},
       160,
       {"ERROR Cannot read the password from the terminal. Supply it with the --password option.",
        "ERROR ERROR: Failed to set credential data."}},
  });
  expect({{{"-T", "-c", "http://h/", "-s", "h:1"},
           164,
           {"ERROR Auth type 'digest' is configured, which is not allowed when FIPS mode is enabled.",
            "ERROR ERROR: Proxy authtype configuration invalid."}}},
         "fips.mode.enable: true\nferrod.cloud.proxy.auth.type: Digest\n");
}

TEST_F(Log, KnowsTheReasonThatIsNotPrinted) {
  const std::string noCredential = "DEBUG The file holds no stored credential; store the credential again.";
  testsupport::writeFile(CREDENTIAL, std::string(64, 'n'), 0600);
  expect({{{"-L"}, 159, {noCredential, "ERROR ERROR: Failed to get credential data."}},
          {{"-C", "-u"}, 159, {noCredential}}});
  // Verbose or not, nothing but the code's text is printed here.
  const Row test{
      {"-T", "-V", "-c", "http://h/", "-s", "h:1"}, 159, {noCredential, "ERROR ERROR: Failed to get credential data."}};
  expect({test}, "ferrod.cloud.proxy.auth.required: true\n");

  chmod(CREDENTIAL, 0604);
  expect({{{"-L"},
           158,
           {"DEBUG A file security problem: /var/morvand/httpproxy.cred can be used by others than its owner (mode "
            "0604); run: chmod go-rwx '/var/morvand/httpproxy.cred'",
            "ERROR ERROR: No credential data available."}}});

  unlink(CREDENTIAL);
  ASSERT_EQ(mkdir(CREDENTIAL, 0700), 0);
  expect({{{"-D"},
           161,
           {"DEBUG Cannot remove /var/morvand/httpproxy.cred: Is a directory.",
            "ERROR ERROR: Failed to clear credential data."}},
          {{"-S", "-m"},
           160,
           {"DEBUG Cannot write /var/morvand/httpproxy.cred: Is a directory.",
            "ERROR ERROR: Failed to set credential data."}}});
}

TEST_F(Log, OfProgressIsOfTheLevelOfDetails) {
  expect({
      {{"-v"}, 0, {"DEBUG Morvand 5.5.0-200"}},
      {{"-S", "-s", "h:1"}, 0, {SET_RECORD}},
      {{"-S", "-p", "x", "-s", "h:1"}, 0, {"DEBUG Username is set to 'Administrator' as default", SET_RECORD}},
      {{"-S", "-m"},
       0,
       {"DEBUG Using machine credential, set ferrod.cloud.proxy.auth.type to 'negotiate'.", SET_RECORD}},
      {{"-h"}, 0, {}},
      {{"-L"}, 0, {}},
      {{"-D"}, 0, {}},
      {{"foo"}, 0, {}},
  });
}

TEST_F(Log, OfWhatEscapesIsOfThatLevelToo) {
  configureLog();
  testsupport::mountReadOnly("/etc/morvand");
  EXPECT_EQ(tool({"-S", "-s", "h:1"}).status, 6);
  EXPECT_EQ(records(), (Records{"DEBUG Error: Cannot lock /etc/morvand/.morvand.conf.lock: Read-only file system"}));
}

TEST_F(Log, OfATestTellsItsSteps) {
  const HttpServer proxy([](const HttpRequest& request) {
    return request.method() == "CONNECT" ? testsupport::tunnelReply() : testsupport::httpReply("200 OK");
  });
  const auto announced = [&proxy](const std::string& url) {
    return "DEBUG Connection Test to OPX " + url + " via proxy '" + proxy.address() + "' without authentication.";
  };
  const Arguments test{"-T", "-c", "http://h/", "-s", proxy.address()};
  const std::string success = "DEBUG Connection to OPX is successful.";
  expect({{test, 0, {announced("http://h/"), "DEBUG Skip cert verfication.", success}}},
         "ferrod.cloud.skip.cert.verification: true\n");
  expect({{test, 0, {announced("http://h/"), "DEBUG Using cert store: /nowhere.pem", success}}},
         "ferrod.cloud.cert.store: /nowhere.pem\n");

  for (const char* store : {"/etc/ssl/certs/ca-certificates.crt", "/etc/ssl/cert.pem"}) unlink(store);
  expect({{test, 0, {announced("http://h/"), success}},
          {{"-T", "-c", "https://h/", "-s", proxy.address()},
           162,
           {announced("https://h/"), "WARN No valid cert store found, OPX connection might fail!",
            "ERROR ERROR: Connection test failed."}}});

  configureLog();
  tool({"-T", "-V", "-c", "http://h/", "-s", proxy.address()});
  ASSERT_EQ(records().size(), 3U);
  EXPECT_EQ(records()[1].rfind("DEBUG \\nCurl Debug Info...\\n*", 0), 0U) << records()[1];
}

TEST_F(Log, OfATestWarnsOfANumericProxyForKerberosTypesAlone) {
  const std::string warning =
      "WARN FQDN hostname for proxy server is preferred when authentication type is 'negotiate' or 'anyauth'.";
  const auto begun = [](const std::string& type, const std::string& server) {
    configureLog("ferrod.cloud.proxy.auth.required: true\nferrod.cloud.proxy.auth.type: " + type + "\n");
    // There is no directory: the run ends behind the announcement.
    EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", server, "-m"}).status, 6);
    Records all = records();
    all.resize(2);
    return all;
  };
  const auto announced = [](const std::string& type, const std::string& server) {
    return "DEBUG Connection Test to OPX http://h/ via proxy '" + server + "' with '" + type +
           "' authtype and Machine Credential.";
  };
  for (const std::string type : {"negotiate", "anyauth"}) {
    EXPECT_EQ(begun(type, "192.0.2.1:9"), (Records{warning, announced(type, "192.0.2.1:9")}));
    EXPECT_EQ(begun(type, "h:9")[0], announced(type, "h:9"));
  }
  EXPECT_EQ(begun("basic", "192.0.2.1:9")[0], announced("basic", "192.0.2.1:9"));
}

TEST_F(Log, OfATestNamesATypeThatIsUnknownOnce) {
  configureLog("ferrod.cloud.proxy.auth.required: true\nferrod.cloud.proxy.auth.type: Kerberos\n");
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", "h:9", "-m"}).status, 6);
  Records warnings = testsupport::textsIn(testsupport::readFile(LOG));
  const auto isOther = [](const std::string& text) { return text.rfind("WARN cloud.proxy.gss: ", 0) != 0; };
  warnings.erase(std::remove_if(warnings.begin(), warnings.end(), isOther), warnings.end());
  EXPECT_EQ(warnings, Records{"WARN cloud.proxy.gss: The proxy authentication type 'kerberos' is unknown and counts as "
                              "'anyauth'."});
}

}  // namespace
