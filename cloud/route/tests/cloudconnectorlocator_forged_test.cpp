// Connectors whose values would write lines or fields of their own: none is used, and the log says why.
#include "cloud/route/tests/cloudconnectorlocator_waiting.h"

namespace {

using locatortest::bothServices;
using locatortest::Keywords;
using locatortest::Texts;
using locatortest::with;
using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

// What would end a field or a line, act on a terminal, or hide text.
const Texts UNSAFE = {"a|b",      "a\nb",         "a\rb", "a\tb", std::string("a\0b", 3), "\x1b[2J", "\x7f",
                      "\xC2\x9b", "\xE2\x80\xAE", "\xff", "a\n"};

class ForgedConnector : public locatortest::WaitingLocatorTest {
 protected:
  // One connector of that computer is all that the search finds; the rest of the reason why it is not used.
  Texts reasonsFor(const Keywords& keywords) {
    logged();
    locator.cloudUrls.clear();
    locator.processList(boost::make_shared<ADObjectList>(1, locatortest::connectorObject("EVIL", keywords)));
    Texts reasons;
    for (const std::string& text : loggedWith("Morvane Agent will not use")) {
      reasons.push_back(text.substr(text.find("because ")));
    }
    return reasons;
  }
  static std::string because(const std::string& keywords) {
    return "because the value of keywords '" + keywords + "' are incorrect.";
  }
  void expectUnused(const std::string& fqdn) {
    EXPECT_THAT(locator.invalidList, ElementsAre(Pair(_, fqdn)));
    EXPECT_THAT(locator.currentSiteTryList, IsEmpty());
    EXPECT_THAT(locator.otherSiteTryList, IsEmpty());
    EXPECT_THAT(locator.discardedList, IsEmpty());
    EXPECT_THAT(locator.cloudUrls, IsEmpty());
    EXPECT_EQ(locator.currentConnector, "");
  }
};

TEST_F(ForgedConnector, IsInvalidWhateverValueItIs) {
  addComputer("EVIL", "evil.forest.test");
  const struct {
    std::string keyword, before, after;  // around the value
    std::string keywords;                // that are told
  } rows[] = {
      {"morvane.core.cloudurl", "https://", "/", "morvane.core.cloudurl"},
      {"morvane.mobile.proxySite", "", "", "morvane.mobile.proxySite"},
      {"morvane.mobile.proxySysId", "", "", "morvane.mobile.proxySysId"},
      {"morvane.core.webproxy.port", "80", "", "morvane.core.webproxy, morvane.core.webproxy.port"},
      {"morvane.core.webproxy", "", ":80", "morvane.core.webproxy"},
      {"morvane.core.iwa.hostname", "", "", "morvane.core.iwa.hostname"},
      {"morvane.core.iwa.httpPort", "", "", "morvane.core.iwa.httpPort"},
      {"morvane.core.iwa.httpsPort", "", "", "morvane.core.iwa.httpsPort"},
  };
  for (const auto& row : rows) {
    for (const std::string& unsafe : UNSAFE) {
      auto keywords = with(bothServices(), row.keyword, nullptr);
      keywords.push_back(row.keyword + ":" + row.before + unsafe + row.after);
      EXPECT_THAT(reasonsFor(keywords), ElementsAre(because(row.keywords))) << keywords.back();
      expectUnused("evil.forest.test");
    }
  }
}

TEST_F(ForgedConnector, MayHaveItsNameFromAKeywordOrFromItsComputer) {
  const std::string name = "morvane.mobile.proxyUri or dNSHostName, morvane.core.webproxy";
  for (const std::string& unsafe : UNSAFE) {
    addComputer("EVIL", "");
    EXPECT_THAT(reasonsFor(with(bothServices(), "morvane.mobile.proxyUri", nullptr)), IsEmpty());
    auto keywords = with(bothServices(), "morvane.mobile.proxyUri", nullptr);
    keywords.push_back("morvane.mobile.proxyUri:https://" + unsafe + ":8443");
    EXPECT_THAT(reasonsFor(keywords), ElementsAre(because(name)));
    expectUnused(unsafe);
  }
}

TEST_F(ForgedConnector, MayHaveItsNameFromItsComputer) {
  addComputer("EVIL", "evil.test\nnext line");
  EXPECT_THAT(reasonsFor(bothServices()), ElementsAre(because("morvane.mobile.proxyUri or dNSHostName")));
  expectUnused("evil.test\nnext line");
}

TEST_F(ForgedConnector, ReasonComesBehindWhatElseIsWrong) {
  addComputer("EVIL", "evil.forest.test");
  auto keywords = with(with(bothServices(), "morvane.mobile.proxySysId", nullptr), "morvane.core.iwa.enabled", "no");
  EXPECT_THAT(reasonsFor(with(keywords, "morvane.mobile.proxySite", "a\nb")),
              ElementsAre("because keywords 'morvane.mobile.proxySysId' are missing and the value of keywords "
                          "'morvane.core.iwa.enabled, morvane.mobile.proxySite' are incorrect."));
}

TEST_F(ForgedConnector, OrdinaryTextOfAnyLanguageIsPlain) {
  addComputer("EVIL", "evil.forest.test");
  EXPECT_THAT(reasonsFor(with(bothServices(), "morvane.mobile.proxySite", "M\xC3\xBCnchen \\ \"Ost\"")), IsEmpty());
  EXPECT_THAT(locator.otherSiteTryList, ElementsAre("evil.forest.test"));
  EXPECT_THAT(locator.invalidList, SizeIs(0));
}

TEST_F(ForgedConnector, InTheReportIsEscapedAndHasItsReason) {
  std::string report;
  CloudConnectorLocatorAccess::appendConnectorReport(
      report, locatortest::connectorRecord("evil\x1b[2J", {{LUMO_CLOUD_CONNECTOR_SITE, "Berlin\n   Proxy server: good"},
                                                           {LUMO_CLOUD_CONNECTOR_PORT, "80\r80"}}));
  EXPECT_EQ(report,
            "      Morvane Connector: evil\\x1b[2J\n"
            "        Morvane Identity Platform URL: https://pod.example.test/\n"
            "        Connector Site: Berlin\\n   Proxy server: good\n"
            "        Connector FQDN: evil\\x1b[2J\n"
            "        Tenant ID: TENANT\n"
            "        Connector port: 80\\r80\n"
            "        Connector IWA HTTP port: 80\n"
            "        Connector IWA HTTPS port: 8443\n"
            "        Reason: the value of keywords 'morvane.mobile.proxySite, morvane.mobile.proxyUri or dNSHostName, "
            "morvane.core.webproxy, morvane.core.webproxy.port, morvane.core.iwa.hostname' are incorrect\n");
}

TEST_F(ForgedConnector, InRecordsIsEscaped) {
  know("evil\n1", {{LUMO_CLOUD_URL, "https://a\nb/"},
                   {LUMO_CLOUD_CONNECTOR_SITE, "s\n"},
                   {LUMO_CLOUD_TENANT_ID, "t\n"},
                   {LUMO_CLOUD_CONNECTOR_PORT, "1\n"},
                   {LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT, "2\n"},
                   {LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT, "3\n"}});
  CloudConnectorInfo info;
  ASSERT_TRUE(locator.getConnectorInfo("evil\n1", info));
  EXPECT_THAT(
      (Texts{info.cloudUrl, info.site, info.fqdn, info.tenantId, info.port, info.iwaHttpPort, info.iwaHttpsPort}),
      ElementsAre("https://a\\nb/", "s\\n", "evil\\n1", "t\\n", "1\\n", "2\\n", "3\\n"));
}

}  // namespace
