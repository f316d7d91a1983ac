// A host's way to the platform through its connectors: which one is used, what happens when it dies, what the next
// process knows of it, and the tickets for its IWA service.
#include <gmock/gmock.h>
#include <krb5.h>

#include <chrono>

#include "base/include/kerb_wrap.h"
#include "cloud/http/tests/curl_words.h"
#include "cloud/include/curl_object.h"
#include "cloud/rest/tests/cloudconnectorlocator_lab.h"
#include "testsupport/temp_folder.h"

using std::chrono::seconds;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using namespace labtest;

namespace {

class PlatformClient : public CloudBase {
 public:
  PlatformClient() : CloudBase(lab("PLATFORM_URL")) {}
  int processResult() override { return httpCode == 200 ? 1 : 0; }

  // One exchange over a new connection: the status, or libcurl's words. No tunnel stays open.
  std::string fetch(const std::string& url = lab("PLATFORM_URL")) {
    std::string result;
    getCurl("nobody", "test");
    try {
      get(url);
      result = std::to_string(getHttpCode());
    } catch (const lumo::CurlException& failure) {
      result = failure.what();
    }
    releaseCurl();
    CloudCurlPool::getInstance().reapCurls();
    return result;
  }
};

const std::string CANNOT_CONNECT = "curl error occurred in curl_easy_perform: ";

class ConnectorRoadLab : public ConnectorLab {
 protected:
  std::string hostInUse() { return CloudConnectorLocatorAccess(locator()).currentConnector; }
  static std::string squidOf(const std::string& host) { return "squid-" + lower(labelOf(host)); }

  // The platform answers, and only that connector's proxy was asked for it.
  void expectRoadThrough(PlatformClient& client, const std::string& host) {
    const LogTail own(labelOf(host));
    EXPECT_EQ(client.fetch(), "200") << host;
    const auto entries = own.entries(1);
    ASSERT_EQ(entries.size(), 1U) << host;
    EXPECT_EQ(entries[0].method, "CONNECT");
    EXPECT_EQ(entries[0].status, "200");
    EXPECT_EQ(entries[0].url, lab("PLATFORM") + ":443");
    EXPECT_EQ(entries[0].user, "-");
    EXPECT_THAT(entries[0].client, StartsWith("127.0.0.3:"));
  }
  static std::string firstRemembered() {
    const std::string text = lumo::GetSetting(SETTING_CLOUD_CONNECTORS, "", true);
    return text.substr(0, text.find('\n'));
  }
  static std::string lineOf(const std::string& host, const std::string& site) {
    return lab("PLATFORM_URL") + "|" + site + "|" + host + "|" + lab("TENANT") + "|8080|80|443";
  }

  testsupport::Setting recover{lumo::PN::CLOUD_CONNECTOR_RECOVER_INTERVAL, "1s"};
};

// A ticket for the service, taken with the machine's.
void expectTicketFor(const std::string& spn) {
  const testsupport::TempFolder folder;
  testsupport::ProcessOptions options;
  options.environment["KRB5CCNAME"] = "FILE:" + folder.file("machine");
  ASSERT_EQ(testsupport::run({"kinit", "-k", lab("MACHINE")}, options).status, 0);
  const auto result = testsupport::run({"kvno", spn}, options);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, StartsWith(spn + ": kvno = "));
}

// What that IWA service answers to the machine.
long signIn(const std::string& url, const std::string& spn) {
  CurlObject object;
  lumo::GSSCredential credential;
  object.setOpt(CURLOPT_CAINFO, lab("CA"));
  object.setOpt(CURLOPT_PROXY_GSS_CRED, credential.acquireCred(ADHelper::GetMachineCredCache().c_str()));
  object.setOpt(CURLOPT_PROXY_GSS_SPN, spn);
  object.setOpt(CURLOPT_PROXY_GSS_SETUP_FUNCTION, &serverGssSetup);
  object.serverGssCallbacks.kdcLocator = reinterpret_cast<void*>(&krb5_dc_locator_callback);
  object.setOpt(CURLOPT_PROXY_GSS_SETUP_DATA, &object.serverGssCallbacks);
  object.setOpt(CURLOPT_HTTPAUTH, 4);
  object.setOpt(CURLOPT_USERNAME, ":");
  return object.perform(url + "iwa/SiteCheck", "", 0).first;
}

}  // namespace

TEST_F(ConnectorRoadLab, RoadLeadsThroughOneConnectorAfterAnother) {
  UpdateCloudConnectors();
  const std::string first = hostInUse();
  ASSERT_THAT(first, AnyOf(connector1, connector2));
  const std::string second = first == connector1 ? connector2 : connector1;
  const CloudProxyInfo proxy = getCloudHttpProxy(lab("PLATFORM_URL"));
  EXPECT_EQ(proxy.proxyServer, first + ":8080");
  EXPECT_EQ(proxy.proxyAuth + proxy.proxyUser, "");
  CloudBase::setProxy(proxy);
  PlatformClient client;
  expectRoadThrough(client, first);
  EXPECT_EQ(firstRemembered(), lineOf(first, lab("SITE")));
  for (const char* url : {"PLATFORM_FOREIGN_URL", "PLATFORM_WRONGNAME_URL", "PLATFORM_EXPIRED_URL"}) {
    EXPECT_THAT(client.fetch(lab(url)), HasSubstr("(60)")) << url << ": the certificate is looked at";
  }

  stop({squidOf(first)});
  EXPECT_EQ(client.fetch(), CANNOT_CONNECT + curltest::curlWords(CURLE_COULDNT_CONNECT));
  logged();
  client.resetProxy();
  EXPECT_THAT(logged(), ElementsAre("DEBUG Connector(host DC FQDN=" + second + ") in current site will be tried.",
                                    "DEBUG Update cloud connectors kset file.",
                                    "DEBUG getCloudConnector: current cloud connector host DC FQDN=" + second));
  expectRoadThrough(client, second);
  EXPECT_EQ(firstRemembered(), lineOf(second, lab("SITE")));

  stop({squidOf(second)});
  EXPECT_EQ(client.fetch(), CANNOT_CONNECT + curltest::curlWords(CURLE_COULDNT_CONNECT));
  client.resetProxy();
  EXPECT_THAT(textsWith(logged(), {"will be tried"}),
              ElementsAre("DEBUG All connectors are tried in current site try list and connector(host DC FQDN=" +
                          branch1 + ") in other sites will be tried."));
  expectRoadThrough(client, branch1);
  EXPECT_EQ(firstRemembered(), lineOf(branch1, lab("SITE_BRANCH")));

  stop({squidOf(branch1)});
  control({"start", squidOf(first)});
  EXPECT_EQ(client.fetch(), CANNOT_CONNECT + curltest::curlWords(CURLE_COULDNT_CONNECT));
  {
    const LocatorLock beforeTheQueueSearches;
    logged();
    client.resetProxy();
    EXPECT_EQ(hostInUse(), branch1) << "until the lists are made anew";
    const CloudConnectorLocatorAccess state(locator());
    EXPECT_THAT(state.currentSiteTryList, ElementsAre(first, second));
    EXPECT_THAT(state.otherSiteTryList, ElementsAre(branch1));
    EXPECT_THAT(textsWith(logged(), {"SetRefresh", "All connectors"}),
                ElementsAre("DEBUG SetRefresh: refresh task is scheduled to execute in 1 seconds",
                            "DEBUG All connectors are tried in current site try list and other sites' try list. Will "
                            "search AD and re-select again next time."));
  }
  EXPECT_TRUE(comesTrue(
      [&] {
        const LocatorLock held;
        return hostInUse() != branch1;
      },
      seconds(60)))
      << "the queue searched anew";
  CloudBase::setProxy(getCloudHttpProxy(lab("PLATFORM_URL")));
  if (hostInUse() == second) {
    EXPECT_EQ(client.fetch(), CANNOT_CONNECT + curltest::curlWords(CURLE_COULDNT_CONNECT));
    client.resetProxy();
  }
  expectRoadThrough(client, first);
}

TEST_F(ConnectorRoadLab, RestartedProcessUsesTheRememberedConnectorBeforeAnySearch) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  PlatformClient().resetProxy();
  const std::string used = hostInUse();
  EXPECT_EQ(firstRemembered(), lineOf(used, lab("SITE")));
  endProcess();
  stop({"gc", "ldap"});
  startProcess();
  logged();
  const CloudProxyInfo proxy = getCloudHttpProxy(lab("PLATFORM_URL"));
  EXPECT_EQ(proxy.proxyServer, used + ":8080");
  EXPECT_EQ(locator().cloudUrl(), lab("PLATFORM_URL"));
  EXPECT_THAT(logged(), ElementsAre("DEBUG Get cloud connectors info from kset.", "DEBUG Getting preferred connector",
                                    "DEBUG Current cloud URL is : " + lab("PLATFORM_URL"),
                                    "DEBUG Current cloud connector is : " + used,
                                    "DEBUG getCloudConnector: current cloud connector host DC FQDN=" + used));
  CloudBase::setProxy(proxy);
  PlatformClient client;
  expectRoadThrough(client, used);
}

TEST_F(ConnectorRoadLab, SilentConnectorIsLeftForTheNext) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const std::string first = hostInUse();
  CloudBase::setProxy(getCloudHttpProxy(lab("PLATFORM_URL")));
  stop({squidOf(first)}, "hang");
  PlatformClient client;
  EXPECT_THAT(client.fetch(), HasSubstr("(28)"));
  client.resetProxy();
  EXPECT_NE(hostInUse(), first);
  expectRoadThrough(client, hostInUse());
}

TEST_F(ConnectorRoadLab, IwaServiceOfTheConnectorLetsTheMachineIn) {
  ASSERT_TRUE(RefreshCloudConnectorsInfo());
  const std::string used = hostInUse();
  const std::string wanted = "HTTP/" + used + "@" + lab("REALM");
  ASSERT_EQ(locator().getCloudConnector(), used + ":8080");
  std::string spn;
  logged();
  EXPECT_EQ(locator().getIwaUrl(spn), "https://" + used + ":443/");
  EXPECT_EQ(spn, wanted) << "from the record";
  EXPECT_THAT(logged(), ElementsAre("DEBUG getIwaUrl: current cloud connector FQDN=" + used));
  expectTicketFor(spn);
  const LogTail iwa(labelOf(used), "IWA_LOG_");
  EXPECT_EQ(signIn("https://" + used + ":443/", spn), 200);
  EXPECT_EQ(iwa.letIn(1).at(0), lab("MACHINE") + "@" + lab("REALM"));

  endProcess();
  startProcess();
  ASSERT_EQ(locator().getCloudConnector(), used + ":8080");
  logged();
  spn.clear();
  EXPECT_EQ(locator().getIwaUrl(spn), "https://" + used + ":443/");
  EXPECT_EQ(spn, wanted) << "from the directory: what was remembered has no name there";
  EXPECT_THAT(
      logged(),
      ElementsAre(
          "DEBUG getIwaUrl: current cloud connector FQDN=" + used,
          "DEBUG getIwaUrl: fail to get SPN due to exception; err_msg ''' belongs to no domain'. Try to get SPN from "
          "IWA URL.",
          "DEBUG GetSPNFromIwaURL searches with filter '(objectCategory=computer)(dNSHostName=" + used + ")'"));
  expectTicketFor(spn);
}

TEST_F(ConnectorRoadLab, ServiceNameOfAnyIwaUrlComesFromTheDirectory) {
  EXPECT_EQ(GetSPNFromIwaURL("https://" + branch1 + ":443/"), "HTTP/" + branch1 + "@" + lab("REALM"));
  expectTicketFor("HTTP/" + branch1 + "@" + lab("REALM"));
  logged();
  EXPECT_EQ(GetSPNFromIwaURL("https://" + branch1 + "/"), "");
  EXPECT_EQ(GetSPNFromIwaURL("https://" + hostOf("nodnsname") + ":443/"), "");
  EXPECT_THAT(logged(),
              ElementsAre("DEBUG GetSPNFromIwaURL failed: retrieve empty FQDN from url = https://" + branch1 + "/",
                          "DEBUG GetSPNFromIwaURL searches with filter '(objectCategory=computer)(dNSHostName=" +
                              hostOf("nodnsname") + ")'",
                          "DEBUG GetSPNFromIwaURL failed: can't find any computer objects"));
  stop({"gc"});
  EXPECT_EQ(GetSPNFromIwaURL("https://" + connector1 + ":443/"), "HTTP/" + connector1 + "@" + lab("REALM"))
      << "the controller knows it too";
}
