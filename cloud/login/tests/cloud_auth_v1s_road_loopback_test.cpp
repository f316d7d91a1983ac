// The machine's sign-in: which exchange goes by which road, and what is left of it on the connection.
#include "cloud/login/tests/cloud_auth_v1s_machine_sign_in.h"
#include "testsupport/setting.h"

using namespace v1stest;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const std::string NO_CODE =
    "FATAL Morvane Identity Platform failed to authenticate this computer through the Morvane Connector. Please verify "
    "that 'Web Server (IWA)' is an enabled service for the Morvane Connector in the Admin Portal. If 'Web Server "
    "(IWA)' is already enabled, please contact Morvane support for help.";
const std::set<int> GSS_OPTIONS = {CURLOPT_PROXY_GSS_CRED, CURLOPT_PROXY_GSS_SPN, CURLOPT_PROXY_GSS_SETUP_FUNCTION,
                                   CURLOPT_PROXY_GSS_SETUP_DATA};

}  // namespace

// The road of the exchanges.

class MachineSignInByProxy : public MachineSignInLoopback {
 protected:
  MachineSignInByProxy() {
    access.pool.setProxy(proxyInfo(platform.server().address()));
    begin();
  }
  std::string throughProxy(const Peer& to) const { return "platform CONNECT " + to.server().address(); }
};

TEST_F(MachineSignInByProxy, OnlyTheConnectorIsReachedStraight) {
  connector.script({code()});
  platform.script({success(), session("machine")});
  client->getVersion();
  const std::set<int> before = client->curl->recordedOptions();
  EXPECT_EQ(client->getMachineAuthToken(), 1);
  EXPECT_THAT(journal.take(),
              ElementsAre(throughProxy(platform), "platform GET /sysinfo/version", "connector GET /iwa/SiteCheck",
                          throughProxy(platform), "platform GET /security/sso?OneTimePass=CODE-1"));
  EXPECT_THAT(records(), Contains("DEBUG Set CURL web proxy to: '" + platform.server().address() + "' with auth: ''."));
  std::set<int> after = client->curl->recordedOptions();
  EXPECT_EQ(after.erase(CURLOPT_HTTPAUTH), 1U);
  EXPECT_EQ(after, before) << "neither user, nor credential, nor folder of certificates";
}

TEST_F(MachineSignInByProxy, ProxyIsTheOneThatThePoolHasThen) {
  const HttpServer other([](const HttpRequest&) { return httpReply("407 Proxy Authentication Required"); });
  access.pool.setProxy(proxyInfo(other.address(), "Basic", "carol", "word"));
  records();
  askConnector(code());
  EXPECT_THAT(records(), Contains("DEBUG Set CURL web proxy to: '" + other.address() + "' with auth: 'Basic'."));
  EXPECT_THAT(failureOf([this] { client->getVersion(); }), HasSubstr("(56)"));
  EXPECT_EQ(other.requests().at(0).header("Proxy-Authorization"), "Basic Y2Fyb2w6d29yZA==");
}

TEST_F(MachineSignInByProxy, PasswordsAreBasicAgain) {
  askConnector(code());
  client->curl->setOpt(CURLOPT_USERPWD, "carol:word");
  client->getVersion();
  EXPECT_EQ(platform.server().requests().back().header("Authorization"), "Basic Y2Fyb2w6d29yZA==");
}

TEST_F(MachineSignInByProxy, AfterARefusalItIsBackToo) {
  askConnector(unauthorized());
  platform.script({success()});
  client->getVersion();
  EXPECT_THAT(journal.take(),
              ElementsAre("connector GET /iwa/SiteCheck", throughProxy(platform), "platform GET /sysinfo/version"));
}

TEST_F(MachineSignInByProxy, AfterABrokenTransferItStaysAway) {
  const testsupport::Setting folder(lumo::PN::FERROSEC_CERT_DIR, "/nowhere");
  connector.script({cut()});
  EXPECT_EQ(signInFailure(), "CurlException 8 " + CUT_SHORT);
  EXPECT_FALSE(hasOption(CURLOPT_PROXY));
  EXPECT_TRUE(hasOption(CURLOPT_USERNAME));
  EXPECT_TRUE(hasOption(CURLOPT_CAPATH));
  EXPECT_FALSE(hasOption(CURLOPT_PROXY_GSS_CRED)) << "the credential is gone";
  platform.script({success()});
  client->getVersion();
  EXPECT_THAT(journal.take(), ElementsAre("connector GET /iwa/SiteCheck", "platform GET /sysinfo/version"));
  EXPECT_EQ(platform.server().requests().back().header("Authorization"), "");
}

TEST_F(MachineSignInByProxy, NextHolderOfTheConnectionTrustsTheConnectorsNoMore) {
  connector.script({cut()});
  signInFailure();
  CurlObject* const used = client->curl;
  client->releaseCurl();
  client->getCurl("bob", "login");
  ASSERT_EQ(client->curl, used);
  EXPECT_FALSE(hasOption(CURLOPT_CAPATH));
  EXPECT_TRUE(hasOption(CURLOPT_PROXY));
}

// A directory that is away: the name of a proxy's service cannot be had.
class DeadDirectory : public DirectoryConnector {
 public:
  std::unique_ptr<DirectoryConnection> open(const Target&) override {
    LUMO_THROW(LDAPException, 81, "The directory is away.");
  }
  std::string site(const std::string&) override { return {}; }
};

TEST_F(MachineSignInByProxy, ProxyThatCannotBeSetIsAnInternalErrorAndNoCredentialStays) {
  access.pool.setProxy(proxyInfo(platform.server().address(), "basic", "carol", "word"));
  DeadDirectory dead;
  DirectoryConnector::setInstance(&dead);
  connector.script({code()});
  EXPECT_EQ(signInFailure(), "CloudIwaException 9 Internal error. Error message: The directory is away.");
  DirectoryConnector::setInstance(&directory);
  EXPECT_THAT(fatal(), ElementsAre(NO_CODE));
  for (const int option : GSS_OPTIONS) EXPECT_FALSE(hasOption(option)) << option;
}
