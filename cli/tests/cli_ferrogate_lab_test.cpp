// --test against real proxies in the private domain, as a user and as the machine.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <thread>

#include "base/include/string_helpers.h"
#include "cli/tests/tool_host.h"

namespace {

using namespace tooltest;

std::string lab(const std::string& name) {
  const char* value = std::getenv(("FERRO_LAB_" + name).c_str());
  EXPECT_NE(value, nullptr) << name;
  return value == nullptr ? "" : value;
}

void control(const Arguments& words) {
  Arguments argv{lab("TOOL"), "ctl"};
  argv.insert(argv.end(), words.begin(), words.end());
  const auto result = testsupport::run(argv);
  ASSERT_EQ(result.status, 0) << joined(words) << result.err;
}

// What a proxy's access log has got since the mark was made.
class AccessLog {
 public:
  explicit AccessLog(const std::string& proxy) : m_path(lab("LOG_" + proxy)), m_start(size()) {}

  // Waits for a line with this in it: a tunnel's line is written when it closes.
  bool shows(const std::string& part) const {
    for (int i = 0; i < 500; ++i) {
      if (text().find(part) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }
  std::string text() const { return size() > m_start ? testsupport::readFile(m_path).substr(m_start) : ""; }

 private:
  size_t size() const { return testsupport::exists(m_path) ? testsupport::readFile(m_path).size() : 0; }

  std::string m_path;
  size_t m_start;
};

class Lab : public testing::Test {
 protected:
  void SetUp() override { clean(); }
  void TearDown() override { clean(); }

  static void clean() {
    for (const char* path : {CONFIGURATION, CREDENTIAL, LOG}) unlink(path);
  }
  // Requires authentication of this type and trusts the lab's authority.
  static void require(const std::string& type, const std::string& more = {}) {
    configure("ferrod.cloud.cert.store: " + lab("CA") + "\nferrod.cloud.proxy.auth.required: true\n" +
              "ferrod.cloud.proxy.auth.type: " + type + "\nlog: TRACE\nlogging.file: " + LOG + "\n" + more);
  }
  static Outcome test(const std::string& proxy, const Arguments& more) {
    Arguments words{"-T", "-c", lab("PLATFORM_URL"), "-s", lab("PROXY_" + proxy)};
    words.insert(words.end(), more.begin(), more.end());
    return tool(words);
  }
  static std::string announced(const std::string& proxy, const std::string& type, const std::string& who) {
    return "Connection Test to OPX " + lab("PLATFORM_URL") + " via proxy '" + lab("PROXY_" + proxy) + "' with '" +
           type + "' authtype and " + who + ".\n";
  }
  static Outcome passed(const std::string& proxy, const std::string& type, const std::string& who) {
    return {0, "Connection to OPX is successful.\n\n", announced(proxy, type, who)};
  }
  static Outcome failed(const std::string& proxy, const std::string& type, const std::string& who) {
    return {162, "", announced(proxy, type, who) + "ERROR: Connection test failed.\n\n"};
  }
};

std::string user(const std::string& name) { return "username:'" + name + "'"; }

TEST_F(Lab, OpenProxyNeedsNoCredential) {
  configure("ferrod.cloud.cert.store: " + lab("CA") + "\n");
  EXPECT_EQ(test("OPEN", {}), (Outcome{0, "Connection to OPX is successful.\n\n",
                                       "Connection Test to OPX " + lab("PLATFORM_URL") + " via proxy '" +
                                           lab("PROXY_OPEN") + "' without authentication.\n"}));
}

TEST_F(Lab, BasicLetsInWhoKnowsThePassword) {
  require("Basic");
  const AccessLog log("BASIC");
  EXPECT_EQ(test("BASIC", {"-u", "alice", "-p", lab("PASSWORD_ALICE")}), passed("BASIC", "basic", user("alice")));
  EXPECT_TRUE(log.shows("user=alice status=200")) << log.text();
  EXPECT_EQ(test("BASIC", {"-u", "alice", "-p", "wrong"}), failed("BASIC", "basic", user("alice")));
  EXPECT_EQ(test("BASIC", {"-u", "nobody", "-p", "x"}), failed("BASIC", "basic", user("nobody")));
}

TEST_F(Lab, EveryOddPasswordArrivesAsItWasGiven) {
  for (const char* type : {"Basic", "Digest"}) {
    require(type);
    const std::string proxy = upper(type);
    EXPECT_EQ(test(proxy, {"-u", "odd", "-p", lab("PASSWORD_ODD")}), passed(proxy, lower(type), user("odd"))) << type;
  }
}

TEST_F(Lab, DigestAndNtlmAnswerTheirChallenges) {
  for (const char* type : {"Digest", "NTLM"}) {
    require(type);
    const std::string proxy = upper(type);
    EXPECT_EQ(test(proxy, {"-u", "alice", "-p", lab("PASSWORD_ALICE")}), passed(proxy, lower(type), user("alice")));
    EXPECT_EQ(test(proxy, {"-u", "alice", "-p", "wrong"}), failed(proxy, lower(type), user("alice")));
  }
}

TEST_F(Lab, NegotiateAsAUser) {
  require("Negotiate");
  const AccessLog log("NEGOTIATE");
  EXPECT_EQ(test("NEGOTIATE", {"-u", "alice", "-p", lab("PASSWORD_ALICE")}),
            passed("NEGOTIATE", "negotiate", user("alice")));
  EXPECT_TRUE(log.shows("user=alice@" + lab("REALM") + " status=200")) << log.text();
  for (const char* bad : {"disabled", "expired", "stale"}) {
    EXPECT_EQ(test("NEGOTIATE", {"-u", bad, "-p", lab("PASSWORD_" + upper(bad))}),
              failed("NEGOTIATE", "negotiate", user(bad)));
  }
  EXPECT_EQ(test("NEGOTIATE", {"-u", "alice", "-p", "wrong"}), failed("NEGOTIATE", "negotiate", user("alice")));
  EXPECT_EQ(test("NEGOTIATE", {"-u", "odd", "-p", lab("PASSWORD_ODD")}), passed("NEGOTIATE", "negotiate", user("odd")));
}

TEST_F(Lab, MachineAccountNeedsNoPassword) {
  require("Negotiate");
  const AccessLog log("NEGOTIATE");
  EXPECT_EQ(test("NEGOTIATE", {"-m"}), passed("NEGOTIATE", "negotiate", "Machine Credential"));
  EXPECT_TRUE(log.shows("user=" + lab("MACHINE") + "@" + lab("REALM") + " status=200")) << log.text();
}

TEST_F(Lab, AnyAuthFindsTheWayOfEachProxy) {
  require("AnyAuth");
  for (const char* proxy : {"BASIC", "DIGEST", "NTLM", "NEGOTIATE", "NEGBASIC"}) {
    const AccessLog log(proxy);
    EXPECT_EQ(test(proxy, {"-u", "alice", "-p", lab("PASSWORD_ALICE")}), passed(proxy, "anyauth", user("alice")));
    if (std::string(proxy).rfind("NEG", 0) == 0) {
      EXPECT_TRUE(log.shows("user=alice@" + lab("REALM") + " status=200")) << log.text();
    }
  }
  EXPECT_EQ(test("NEGOTIATE", {"-m"}), passed("NEGOTIATE", "anyauth", "Machine Credential"));
  // A wrong password at a proxy that offers Negotiate is not sent in Basic.
  const AccessLog log("NEGBASIC");
  EXPECT_EQ(test("NEGBASIC", {"-u", "alice", "-p", "wrong"}), failed("NEGBASIC", "anyauth", user("alice")));
  EXPECT_EQ(log.text().find("Basic"), std::string::npos) << log.text();
}

TEST_F(Lab, StoredCredentialIsTaken) {
  require("Basic");
  ASSERT_EQ(tool({"-S", "-u", "alice", "-p", lab("PASSWORD_ALICE")}).status, 0);
  EXPECT_EQ(test("BASIC", {}), passed("BASIC", "basic", user("alice")));
  ASSERT_EQ(tool({"-S", "-m"}).status, 0);
  EXPECT_EQ(test("NEGOTIATE", {}), passed("NEGOTIATE", "negotiate", "Machine Credential"));
  EXPECT_EQ(tool({"-D"}).status, 0);
  EXPECT_EQ(test("NEGOTIATE", {}), error(159, "Failed to get credential data"));
}

TEST_F(Lab, PasswordAloneIsTheDefaultUsersAndTheFileIsNotRead) {
  require("Basic");
  ASSERT_EQ(tool({"-S", "-u", "alice", "-p", lab("PASSWORD_ALICE")}).status, 0);
  EXPECT_EQ(test("BASIC", {"-p", "x"}), failed("BASIC", "basic", user("Administrator")));
}

TEST_F(Lab, UserIsPromptedAlthoughThereIsAFile) {
  require("Basic");
  ASSERT_EQ(tool({"-S", "-u", "alice", "-p", "not this one"}).status, 0);
  testsupport::ProcessOptions options;
  options.terminal = true;
  options.typeAfter = "Password:";
  options.input = lab("PASSWORD_ALICE") + "\n";
  const auto result =
      testsupport::runTool({"-T", "-c", lab("PLATFORM_URL"), "-s", lab("PROXY_BASIC"), "-u", "alice"}, options);
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(result.out.rfind("Password:\r\nConnection Test to OPX ", 0), 0U) << result.out;
  EXPECT_EQ(result.out.find(lab("PASSWORD_ALICE")), std::string::npos);
}

TEST_F(Lab, NumericProxyIsWarnedOfForKerberosTypesAlone) {
  const std::string warning =
      "FQDN hostname for proxy server is preferred when authentication type is 'negotiate' or 'anyauth'.\n";
  for (const std::string type : {"negotiate", "anyauth"}) {
    require(type);
    const Outcome outcome =
        tool({"-T", "-c", lab("PLATFORM_URL"), "-s", "127.0.0.4:3131", "-u", "alice", "-p", lab("PASSWORD_ALICE")});
    EXPECT_EQ(outcome.err.rfind(warning + "Connection Test to OPX ", 0), 0U) << outcome;
  }
  require("basic");
  const Outcome basic =
      tool({"-T", "-c", lab("PLATFORM_URL"), "-s", "127.0.0.4:3128", "-u", "alice", "-p", lab("PASSWORD_ALICE")});
  EXPECT_EQ(basic.status, 0) << basic;
  EXPECT_EQ(basic.err.rfind("Connection Test to OPX ", 0), 0U) << basic;
  // A server without a colon comes from the configuration alone.
  require("negotiate", "ferrod.cloud.proxy.server: 127.0.0.4\n");
  const Outcome bare = tool({"-T", "-c", lab("PLATFORM_URL"), "-u", "alice", "-p", lab("PASSWORD_ALICE")});
  EXPECT_EQ(bare.err.rfind("Connection Test to OPX ", 0), 0U) << bare;
}

TEST_F(Lab, TraceShowsTheSchemeNowhereBehindTheHeadersName) {
  struct Row {
    const char* proxy;
    const char* type;
  };
  for (const Row& row : {Row{"BASIC", "Basic"},
                         {"DIGEST", "Digest"},
                         {"NTLM", "NTLM"},
                         {"NEGOTIATE", "Negotiate"},
                         {"NEGBASIC", "AnyAuth"}}) {
    unlink(LOG);
    require(row.type);
    const Outcome outcome = test(row.proxy, {"-V", "-u", "alice", "-p", lab("PASSWORD_ALICE")});
    EXPECT_EQ(outcome.status, 0) << outcome;
    const std::string log = testsupport::readFile(LOG);
    EXPECT_NE(outcome.err.find("\nProxy-Authorization: ******\n"), std::string::npos) << outcome;
    for (const std::string& text : {outcome.err, log}) {
      EXPECT_EQ(text.find(lab("PASSWORD_ALICE")), std::string::npos) << text;
      for (const char* token : {"Authorization: Basic", "Authorization: Negotiate", "Authorization: NTLM",
                                "Authorization: Digest", "YII", "TlRMTVNTUAAD"}) {
        EXPECT_EQ(text.find(token), std::string::npos) << token << " in " << text;
      }
    }
  }
}

TEST_F(Lab, TicketOfTheCallerIsNeverUsed) {
  testsupport::ProcessOptions password;
  password.input = lab("ADMIN_PASSWORD") + "\n";
  ASSERT_EQ(testsupport::run({"kinit", lab("ADMIN") + "@" + lab("REALM")}, password).status, 0);
  ASSERT_EQ(testsupport::run({"klist", "-s"}).status, 0);
  for (const char* type : {"Negotiate", "AnyAuth"}) {
    require(type);
    const AccessLog log("NEGOTIATE");
    EXPECT_EQ(test("NEGOTIATE", {"-u", "alice", "-p", lab("PASSWORD_ALICE")}).status, 0);
    EXPECT_TRUE(log.shows("user=alice@" + lab("REALM") + " status=200")) << log.text();
    EXPECT_EQ(test("NEGOTIATE", {"-u", "alice", "-p", "wrong"}).status, 162);
    EXPECT_EQ(test("NEGOTIATE", {"-m"}).status, 0);
    EXPECT_TRUE(log.shows("user=" + lab("MACHINE") + "@")) << log.text();
    EXPECT_EQ(log.text().find(lab("ADMIN")), std::string::npos) << log.text();
  }
  testsupport::run({"kdestroy"});
}

// The folder is whoever's root happens to stand in, the home whoever's root came from.
TEST_F(Lab, SettingsOfTheLdapLibraryAreNotRead) {
  require("Negotiate");
  struct Row {
    const char* what;
    std::function<void(const std::string& path)> make;
  };
  const auto file = [](const char* text) {
    return [text](const std::string& path) { testsupport::writeFile(path, text); };
  };
  const Row rows[] = {
      {"pipe without a writer", [](const std::string& path) { ASSERT_EQ(mkfifo(path.c_str(), 0666), 0) << path; }},
      {"connection without protection", file("SASL_SECPROPS maxssf=0\n")},
      {"what crashes the library while it begins", file("KEEPALIVE_IDLE 1\n")},
  };
  for (const Row& row : rows) {
    unlink(LOG);
    const testsupport::TempFolder folder, home;
    for (const std::string& path : {folder.file("ldaprc"), home.file("ldaprc"), home.file(".ldaprc")}) row.make(path);
    const auto result =
        testsupport::run({"env", "--chdir=" + folder.path(), "HOME=" + home.path(), testsupport::toolPath(), "-T", "-c",
                          lab("PLATFORM_URL"), "-s", lab("PROXY_NEGOTIATE"), "-m"});
    EXPECT_FALSE(result.timedOut) << row.what;
    EXPECT_EQ((Outcome{result.status, result.out, result.err}), passed("NEGOTIATE", "negotiate", "Machine Credential"))
        << row.what;
    const std::string log = testsupport::exists(LOG) ? testsupport::readFile(LOG) : "";
    EXPECT_NE(log.find(" base.directory: Signed in to the directory server "), std::string::npos)
        << row.what << ": the directory was not asked\n"
        << log;
  }
}

TEST_F(Lab, CertificatesOfThePlatformDecide) {
  require("Basic");
  const auto outcome = [](const std::string& url) {
    return tool({"-T", "-c", url, "-s", lab("PROXY_BASIC"), "-u", "alice", "-p", lab("PASSWORD_ALICE")}).status;
  };
  for (const char* bad : {"FOREIGN", "EXPIRED", "WRONGNAME"}) {
    EXPECT_EQ(outcome(lab("PLATFORM_" + std::string(bad) + "_URL")), 162) << bad;
  }
  require("Basic", "ferrod.cloud.skip.cert.verification: true\n");
  for (const char* bad : {"FOREIGN", "EXPIRED", "WRONGNAME"}) {
    EXPECT_EQ(outcome(lab("PLATFORM_" + std::string(bad) + "_URL")), 0) << bad;
  }
  EXPECT_EQ(outcome(lab("PLATFORM_HTTP_URL")), 0);
}

TEST_F(Lab, AnyAnswerOfThePlatformIsAConnection) {
  require("Basic");
  for (const char* status : {"400", "401", "403", "404", "407", "500", "503"}) {
    const std::string url = lab("PLATFORM_URL") + (lab("PLATFORM_URL").back() == '/' ? "" : "/") + "status/" + status;
    EXPECT_EQ(tool({"-T", "-c", url, "-s", lab("PROXY_BASIC"), "-u", "alice", "-p", lab("PASSWORD_ALICE")}).status, 0)
        << status;
  }
}

TEST_F(Lab, RotatedMachinePasswordLeavesTheStoredCredentialReadable) {
  require("Basic");
  ASSERT_EQ(tool({"-S", "-u", "alice", "-p", lab("PASSWORD_ALICE")}).status, 0);
  control({"rotate-machine-password"});
  EXPECT_EQ(test("BASIC", {}), passed("BASIC", "basic", user("alice")));
  require("Negotiate");
  EXPECT_EQ(test("NEGOTIATE", {"-m"}), passed("NEGOTIATE", "negotiate", "Machine Credential"));
}

TEST_F(Lab, DirectoryThatIsDownIsAClearEndAndNoHang) {
  control({"stop", "dc"});
  const auto start = std::chrono::steady_clock::now();
  require("Negotiate");
  const Outcome negotiate = test("NEGOTIATE", {"-u", "alice", "-p", lab("PASSWORD_ALICE")});
  require("Basic");
  const Outcome basic = test("BASIC", {"-u", "alice", "-p", lab("PASSWORD_ALICE")});
  const auto took = std::chrono::steady_clock::now() - start;
  control({"start", "dc"});
  EXPECT_TRUE(negotiate.status == 162 || negotiate.status == 6) << negotiate;
  EXPECT_TRUE(basic.status == 0 || basic.status == 6) << basic;
  for (const Outcome& outcome : {negotiate, basic}) {
    EXPECT_EQ(outcome.err.find(lab("PASSWORD_ALICE")), std::string::npos);
    if (outcome.status == 6) {
      EXPECT_NE(outcome.err.find("\nError: "), std::string::npos) << outcome;
    }
  }
  EXPECT_LT(took, std::chrono::seconds(120));
}

}  // namespace
