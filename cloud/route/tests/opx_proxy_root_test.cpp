// The web proxy setting with its credential: real credential files of a real machine key.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "basalt/kerberos/protected_credential.h"
#include "base/include/parameter_names.h"
#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/include/opx.h"
#include "cloud/route/tests/cloudconnectorlocator_access.h"
#include "testsupport/keytab.h"
#include "testsupport/log_capture.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char URL[] = "https://tenant.example.test/";
constexpr char FILE_PATH[] = "/var/morvand/httpproxy.cred";
constexpr char NUMERIC_WARNING[] =
    "ERROR FQDN hostname should be specified when using 'negotiate' or 'anyauth' in proxy authentication, "
    "authentication to proxy might fail.";
constexpr char FORCED[] = "DEBUG Force authtype to 'negotiate' when using machine credential.";
constexpr char MISSING[] = "ERROR Failed to get proxy credential, none is stored. Use of Http Proxy Server might fail!";

std::string setting(const std::string& server, const std::string& auth) {
  return "DEBUG The http proxy setting from config is proxy: '" + server + "', auth: '" + auth + "'.";
}

class OpxCredential : public testing::Test {
 protected:
  OpxCredential() {
    testsupport::cleanPrivateHost();
    testsupport::writeKeytab(lumo::path::MACHINE_KEYTAB, {{"HOST1$@CORP.EXAMPLE.TEST"}});
  }
  ~OpxCredential() override {
    UpdateCloudHttpProxy();
    CloudConnectorLocatorAccess::resetProcess();
  }

  static void store(const std::string& user, const std::string& secret) {
    lumo::ProtectedCredential credential("httpproxy");
    credential.setCred(user, lumo::Shredder2(secret));
    credential.storeToFile();
  }

  // What a client gets with these settings, and what the update said.
  CloudProxyInfo update(const std::string& server, const std::vector<SettingsScope::Setting>& more) {
    std::vector<SettingsScope::Setting> all = {{lumo::PN::CLOUD_PROXY_SERVER, server},
                                               {lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, "true"}};
    all.insert(all.end(), more.begin(), more.end());
    const SettingsScope settings(all);
    const std::size_t before = recordsOf(log.text().empty() ? std::vector<std::string>() : log.texts(), LOGGER).size();
    UpdateCloudHttpProxy();
    const std::vector<std::string> now = recordsOf(log.texts(), LOGGER);
    records.assign(now.begin() + static_cast<std::ptrdiff_t>(before), now.end());
    try {
      return getCloudHttpProxy(URL);
    } catch (const lumo::CloudConnectorException& failure) {
      return proxyInfo(std::string("the connector: ") + failure.what());
    }
  }
  static SettingsScope::Setting authType(const std::string& value) { return {lumo::PN::CLOUD_PROXY_AUTH_TYPE, value}; }

  static constexpr char LOGGER[] = "cloud.opx.processor";
  testsupport::LogCapture log;
  std::vector<std::string> records;
};

}  // namespace

TEST_F(OpxCredential, StoredAccountIsUsed) {
  store("alice@CORP.EXAMPLE.TEST", "p:w %41\xc3\xa4");
  const CloudProxyInfo proxy = update("proxy.example.test", {authType("Basic")});
  EXPECT_EQ(proxy.proxyServer, "proxy.example.test:8080");
  EXPECT_EQ(proxy.proxyAuth, "basic");
  EXPECT_EQ(proxy.proxyUser, "alice@CORP.EXAMPLE.TEST");
  EXPECT_EQ(proxy.proxyPassword, lumo::Shredder2("p:w %41\xc3\xa4"));
  EXPECT_TRUE(proxy.proxyUsable);
  EXPECT_THAT(records, ElementsAre(setting("proxy.example.test:8080", "basic")));
  EXPECT_THAT(log.text(), Not(HasSubstr("p:w")));
}

TEST_F(OpxCredential, WithoutATypeItIsAnyauth) {
  store("alice", "pw");
  EXPECT_EQ(update("proxy.example.test", {}).proxyAuth, "anyauth");
  EXPECT_THAT(records, ElementsAre(setting("proxy.example.test:8080", "anyauth")));
}

TEST_F(OpxCredential, NumericAddressIsWarnedOfWhereKerberosNeedsAName) {
  struct Row {
    const char* server;
    const char* type;
    bool warned;
  };
  const Row rows[] = {{"10.0.0.1", "Negotiate", true},
                      {"10.0.0.1:3128", "AnyAuth", true},
                      {"10.0.0.1", "basic", false},
                      {"10.0.0.1", "ntlm", false},
                      {"proxy.example.test", "negotiate", false},
                      {"proxy.example.test", "anyauth", false},
                      {"10.1", "negotiate", true},
                      {"10.0.0.256", "negotiate", false}};
  store("alice", "pw");
  for (const Row& row : rows) {
    const CloudProxyInfo proxy = update(row.server, {authType(row.type)});
    EXPECT_EQ(proxy.proxyUser, "alice") << "used as it is";
    std::vector<std::string> wanted;
    if (row.warned) wanted.emplace_back(NUMERIC_WARNING);
    wanted.push_back(setting(proxy.proxyServer, proxy.proxyAuth));
    EXPECT_EQ(records, wanted) << row.server << " " << row.type;
  }
}

TEST_F(OpxCredential, MachineAccountForcesNegotiate) {
  store(MACHINE_MARKER, "never read");
  CloudProxyInfo proxy = update("proxy.example.test", {authType("basic")});
  EXPECT_EQ(proxy.proxyUser, MACHINE_MARKER);
  EXPECT_EQ(proxy.proxyAuth, "negotiate");
  EXPECT_TRUE(proxy.proxyPassword.empty());
  EXPECT_THAT(records, ElementsAre(FORCED, setting("proxy.example.test:8080", "negotiate")));
  update("10.0.0.1", {authType("basic")});
  EXPECT_THAT(records, ElementsAre(FORCED, NUMERIC_WARNING, setting("10.0.0.1:8080", "negotiate")));
}

TEST_F(OpxCredential, WeakTypesAreRefusedInFipsMode) {
  store("alice", "pw");
  const SettingsScope::Setting fips{lumo::PN::FIPS_MODE_ENABLE, "true"};
  for (const char* type : {"NTLM", "Digest"}) {
    const std::string low = std::string(type) == "NTLM" ? "ntlm" : "digest";
    EXPECT_EQ(update("proxy.example.test", {authType(type), fips}).proxyServer, "the connector: Can not get ADAgent")
        << "as if no proxy were set";
    EXPECT_THAT(records, ElementsAre("ERROR Auth Type '" + low + "' is not allowed when FIPS mode is enabled.",
                                     setting("proxy.example.test:8080", low)));
    EXPECT_EQ(update("proxy.example.test", {authType(type)}).proxyAuth, low) << "the next update forgets it";
  }
  for (const char* type : {"basic", "negotiate", "anyauth"}) {
    EXPECT_EQ(update("proxy.example.test", {authType(type), fips}).proxyAuth, type);
  }
  const CloudProxyInfo direct =
      update("proxy.example.test", {authType("ntlm"), fips, {lumo::PN::CLOUD_DIRECT_CONNECTION, "yes"}});
  EXPECT_EQ(direct.proxyServer, "");
  EXPECT_TRUE(direct.proxyUsable);
}

TEST_F(OpxCredential, MissingCredentialLeavesTheProxyWithoutOne) {
  const CloudProxyInfo proxy = update("proxy.example.test", {authType("basic")});
  EXPECT_EQ(proxy.proxyServer, "proxy.example.test:8080");
  EXPECT_EQ(proxy.proxyAuth, "basic");
  EXPECT_EQ(proxy.proxyUser, "");
  EXPECT_TRUE(proxy.proxyPassword.empty());
  EXPECT_THAT(records, ElementsAre(MISSING, setting("proxy.example.test:8080", "basic")));
}

TEST_F(OpxCredential, BadCredentialLeavesTheProxyWithoutOne) {
  store("alice", "pw");
  const std::string good = testsupport::readFile(FILE_PATH);
  const auto expectFailure = [this](const std::string& why) {
    const CloudProxyInfo proxy = update("10.0.0.1", {authType("negotiate")});
    EXPECT_EQ(proxy.proxyServer, "10.0.0.1:8080") << why;
    EXPECT_EQ(proxy.proxyAuth, "negotiate") << why;
    EXPECT_EQ(proxy.proxyUser, "") << why;
    EXPECT_TRUE(proxy.proxyPassword.empty()) << why;
    ASSERT_EQ(records.size(), 3U) << why;
    EXPECT_THAT(records[0], StartsWith("ERROR Failed to get proxy credential, ")) << why;
    EXPECT_THAT(records[0], testing::EndsWith("Use of Http Proxy Server might fail!")) << why;
    EXPECT_THAT(records[0].size(), testing::Gt(90U)) << "it says why: " << records[0];
    EXPECT_EQ(records[1], NUMERIC_WARNING) << why;
    EXPECT_EQ(records[2], setting("10.0.0.1:8080", "negotiate")) << why;
  };
  std::string damaged = good;
  damaged.back() = static_cast<char>(damaged.back() ^ 1);
  testsupport::writeFile(FILE_PATH, damaged, 0600);
  expectFailure("a changed byte");
  testsupport::writeFile(FILE_PATH, "", 0600);
  expectFailure("an empty file");
  testsupport::writeFile(FILE_PATH, good, 0600);
  ASSERT_EQ(chmod(FILE_PATH, 0644), 0);
  expectFailure("readable by all");
  ASSERT_EQ(chmod(FILE_PATH, 0600), 0);
  testsupport::writeKeytab(lumo::path::MACHINE_KEYTAB, {{"HOST1$@CORP.EXAMPLE.TEST", 2, 18, "another key"}});
  expectFailure("a key that is gone");
}

TEST_F(OpxCredential, NothingIsReadWhereAuthenticationIsNotRequired) {
  store("alice", "pw");
  testsupport::writeFile(FILE_PATH, "damaged", 0600);
  const CloudProxyInfo proxy =
      update("proxy.example.test", {{lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, "false"}, authType("basic")});
  EXPECT_EQ(proxy.proxyAuth, "");
  EXPECT_EQ(proxy.proxyUser, "");
  EXPECT_THAT(records, ElementsAre(setting("proxy.example.test:8080", "")));
}
