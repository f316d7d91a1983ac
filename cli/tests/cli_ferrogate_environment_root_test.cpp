// The real tool in the environment of a hostile caller: none of its variables has an effect.
#include <sys/stat.h>

#include <algorithm>

#include "cli/tests/tool_host.h"
#include "testsupport/canary.h"
#include "testsupport/http_server.h"

namespace {

using namespace tooltest;
using testsupport::CANARY_FILE;
using testsupport::canaryLibrary;

constexpr char FOLDER[] = "/var/tmp/hostile";
std::string in(const std::string& name) { return std::string(FOLDER) + "/" + name; }

class Environment : public JoinedHost {
 protected:
  void SetUp() override {
    JoinedHost::SetUp();
    std::filesystem::remove_all(FOLDER);
    std::filesystem::create_directory(FOLDER);
    std::filesystem::remove(CANARY_FILE);
  }

  // Whatever opens it to read waits for ever.
  static std::string pipeAt(const std::string& name) {
    EXPECT_EQ(mkfifo(in(name).c_str(), 0666), 0);
    return in(name);
  }
  // A run through all libraries: TLS to the web server, and a sign-in that finds no directory.
  static Outcome listIn(const std::map<std::string, std::string>& environment) {
    testsupport::ProcessOptions options;
    options.environment = environment;
    return tool({"-L"}, options);
  }
};

const Outcome LISTED = {158, "Proxy Server: \nProxy Auth Required: false\nProxy Auth Type: anyauth\n",
                        "ERROR: No credential data available.\n\n"};

TEST_F(Environment, IsCleanBeforeTheConstructorsOfLibrariesRun) {
  const Outcome outcome = listIn({{"LD_PRELOAD", canaryLibrary()},
                                  {"PATH", "/a:/b"},
                                  {"LANG", "C.UTF-8"},
                                  {"LC_TIME", "C"},
                                  {"LC_ALL", "/tmp/x"},
                                  {"TERM", "xterm"},
                                  {"TZ", "Europe/Berlin"},
                                  {"SUDO_USER", "alice"},
                                  {"SUDO_UID", "1000"},
                                  {"SUDO_GID", "100"},
                                  {"SUDO_COMMAND", "/usr/sbin/ferrogate -S -p s3cret"},
                                  {"HOME", "/root"},
                                  {"OPENSSL_ia32cap", "~0x0"},
                                  {"GNUTLS_DEBUG_LEVEL", "9"},
                                  {"LDAPNOINIT", "x"}});
  EXPECT_EQ(outcome, LISTED);
  std::vector<std::string> found;
  std::istringstream lines(testsupport::readFile(CANARY_FILE));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("GCOV_", 0) != 0) found.push_back(line);  // a build that counts lines keeps these
  }
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, (std::vector<std::string>{"LANG=C.UTF-8", "LC_TIME=C", "PATH=/a:/b",
                                             "SUDO_COMMAND=/usr/sbin/ferrogate", "SUDO_GID=100", "SUDO_UID=1000",
                                             "SUDO_USER=alice", "TERM=xterm", "TZ=Europe/Berlin"}));
}

TEST_F(Environment, ChangesNothingOfAShortRun) {
  const std::string pipe = pipeAt("pipe");
  for (const auto& [name, value] : std::map<std::string, std::string>{{"GNUTLS_SYSTEM_PRIORITY_FILE", pipe},
                                                                      {"GNUTLS_DEBUG_LEVEL", "9"},
                                                                      {"P11_KIT_DEBUG", "all"},
                                                                      {"NETTLE_FAT_VERBOSE", "1"},
                                                                      {"OPENSSL_ia32cap", "~0x0"},
                                                                      {"COMERR_DEBUG", "1"},
                                                                      {"KRB5_TRACE", pipe},
                                                                      {"LC_ALL", pipe},
                                                                      {"LOCPATH", FOLDER},
                                                                      {"TZ", pipe},
                                                                      {"TZDIR", FOLDER},
                                                                      {"MALLOC_TRACE", in("trace")},
                                                                      {"GCONV_PATH", FOLDER}}) {
    EXPECT_EQ(listIn({{name, value}}), LISTED) << name;
  }
  EXPECT_FALSE(testsupport::exists(in("trace")));
}

TEST_F(Environment, DoesNotChangeHowOptionsAreRead) {
  testsupport::ProcessOptions options;
  options.environment = {{"POSIXLY_CORRECT", "1"}};
  EXPECT_EQ(tool({"word", "-v"}, options), (Outcome{0, "Morvand 5.5.0-200\n", ""}));
}

// TLS to a server behind the proxy, and with authentication a sign-in that finds no directory.
class HostileTest : public Environment {
 protected:
  Outcome test(const std::map<std::string, std::string>& environment, bool authenticates) {
    configure("ferrod.cloud.skip.cert.verification: true\nferrod.cloud.proxy.auth.required: " +
              std::string(authenticates ? "true" : "false") + "\n");
    testsupport::ProcessOptions options;
    options.environment = environment;
    return tool({"-T", "-c", "https://h.example.test/", "-s", m_proxy.address(), "-m"}, options);
  }
  static void expectSilence() {
    EXPECT_FALSE(testsupport::exists(CANARY_FILE));
    std::vector<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(FOLDER)) left.push_back(entry.path().filename());
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{"libcanary.so", "mech", "openssl.cnf"}));
  }
  void SetUp() override {
    Environment::SetUp();
    const std::string library = in("libcanary.so");
    std::filesystem::copy(canaryLibrary(), library);
    testsupport::writeFile(in("mech"), "canary 1.3.6.1.4.1.5322.22.1.14 " + library + "\n");
    testsupport::writeFile(in("openssl.cnf"),
                           "openssl_conf = start\n[start]\nproviders = all\n[all]\ncanary = one\ndefault = two\n[one]\n"
                           "module = " +
                               library + "\nactivate = 1\n[two]\nactivate = 1\n");
  }

 private:
  testsupport::Certificate m_certificate = testsupport::makeCertificate("/run", "server", {});
  testsupport::HttpServer m_proxy{[](const testsupport::HttpRequest& request) {
                                    return request.method() == "CONNECT" ? testsupport::tunnelReply(true)
                                                                         : testsupport::httpReply("200 OK");
                                  },
                                  &m_certificate};
};

TEST_F(HostileTest, LoadsNoCodeAndWritesNoSecrets) {
  for (const auto& [name, value] : std::map<std::string, std::string>{{"OPENSSL_CONF", in("openssl.cnf")},
                                                                      {"OPENSSL_MODULES", FOLDER},
                                                                      {"OPENSSL_ENGINES", FOLDER},
                                                                      {"SSLKEYLOGFILE", in("keys")},
                                                                      {"SSL_CERT_FILE", in("mech")},
                                                                      {"CURL_CA_BUNDLE", in("mech")},
                                                                      {"https_proxy", "http://127.0.0.1:1/"},
                                                                      {"GSS_MECH_CONFIG", in("mech")}}) {
    EXPECT_EQ(test({{name, value}}, false).status, 0) << name;
    expectSilence();
  }
}

TEST_F(HostileTest, SignsInAsWithoutTheVariables) {
  const Outcome without = test({}, true);
  EXPECT_EQ(without.status, 6);
  for (const auto& [name, value] : std::map<std::string, std::string>{{"SASL_PATH", FOLDER},
                                                                      {"SASL_CONF_PATH", FOLDER},
                                                                      {"GSS_MECH_CONFIG", in("mech")},
                                                                      {"KRB5_TRACE", in("trace")},
                                                                      {"KRB5_CONFIG", in("mech")},
                                                                      {"KRB5_KTNAME", in("mech")},
                                                                      {"KRB5CCNAME", in("cache")},
                                                                      {"KRB5RCACHENAME", in("rcache")},
                                                                      {"HOME", FOLDER},
                                                                      {"LDAPCONF", in("mech")},
                                                                      {"RES_OPTIONS", "debug"},
                                                                      {"LOCALDOMAIN", "x.test"},
                                                                      {"HOSTALIASES", in("mech")}}) {
    EXPECT_EQ(test({{name, value}}, true), without) << name;
    expectSilence();
  }
}

}  // namespace
