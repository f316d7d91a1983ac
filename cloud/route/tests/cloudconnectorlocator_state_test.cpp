// The text that the next process starts with: what is written of a connector, and what is read back.
#include "cloud/route/tests/cloudconnectorlocator_waiting.h"

namespace {

using locatortest::Settings;
using locatortest::Texts;

std::string lineOf(const Settings& changes) {
  std::string line;
  CloudConnectorLocatorAccess::appendKsetLine(line, locatortest::connectorRecord("n1", changes));
  return line;
}

std::string setting(const ADObjectPtr& record, const char* name) { return record->getString(name, "-none-"); }

TEST(ConnectorState, HasSevenFieldsForEachConnector) {
  const std::string known = "https://pod.example.test/|Berlin|n1|TENANT|";
  const struct {
    Settings changes;
    const char* ports;
  } rows[] = {
      {{}, "8080|80|8443"},
      {{{LUMO_CLOUD_WEB_PROXYENABLED, "False"}}, "-|80|8443"},
      {{{LUMO_CLOUD_WEB_PROXYENABLED, ""}}, "-|80|8443"},
      {{{LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, "False"}}, "8080|80|-"},
      {{{LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS, ""}}, "8080|80|-"},
      {{{LUMO_CLOUD_CONNECTOR_IWA_ENABLED, "False"}}, "8080|-|-"},
      {{{LUMO_CLOUD_CONNECTOR_IWA_ENABLED, ""}}, "8080|-|-"},
      {{{LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT, ""}}, "8080||8443"},
  };
  for (const auto& row : rows) EXPECT_EQ(lineOf(row.changes), known + row.ports + "\n");
  EXPECT_EQ(lineOf({{LUMO_CLOUD_TENANT_ID, ""}, {LUMO_CLOUD_CONNECTOR_SITE, "a|b"}}),
            "https://pod.example.test/|a|b|n1||8080|80|8443\n");
}

TEST(ConnectorState, IsAppendedLineByLine) {
  std::string state = "first\n";
  CloudConnectorLocatorAccess::appendKsetLine(state, locatortest::connectorRecord("n1"));
  EXPECT_EQ(state, "first\nhttps://pod.example.test/|Berlin|n1|TENANT|8080|80|8443\n");
}

TEST(ConnectorState, PortsOfALineTellTheServices) {
  const struct {
    const char *ports, *webProxy, *webProxyEnabled, *port, *iwa, *https, *httpPort, *httpsPort;
    int services;
  } rows[] = {
      {"8080|80|8443", "n1:8080", "True", "8080", "True", "True", "80", "8443", 3},
      {"8080|-|-", "n1:8080", "True", "8080", "False", "False", "-none-", "-none-", 1},
      {"-|80|8443", "n1:-", "-none-", "-none-", "True", "True", "80", "8443", 2},
      {"8080|80|-", "n1:8080", "True", "8080", "True", "False", "80", "-none-", 1},
      {"8080|-|8443", "n1:8080", "True", "8080", "False", "False", "-none-", "-none-", 1},
      {"-|-|-", "n1:-", "-none-", "-none-", "False", "False", "-none-", "-none-", 0},
  };
  for (const auto& row : rows) {
    const ADObjectPtr record = connectorOfState(std::string("https://pod.test/|Berlin|n1|T|") + row.ports + "\n");
    ASSERT_NE(record, nullptr) << row.ports;
    EXPECT_EQ(setting(record, LUMO_CLOUD_PROXY_SCP), "true");
    EXPECT_EQ(setting(record, LUMO_CLOUD_URL), "https://pod.test/");
    EXPECT_EQ(setting(record, LUMO_CLOUD_CONNECTOR_SITE), "Berlin");
    EXPECT_EQ(setting(record, LUMO_CLOUD_PROXY_FQDN), "n1");
    EXPECT_EQ(setting(record, LUMO_CLOUD_TENANT_ID), "T");
    EXPECT_EQ(setting(record, LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME), "n1");
    EXPECT_EQ(setting(record, LUMO_CLOUD_WEB_PROXY), row.webProxy);
    EXPECT_EQ(setting(record, LUMO_CLOUD_WEB_PROXYENABLED), row.webProxyEnabled) << row.ports;
    EXPECT_EQ(setting(record, LUMO_CLOUD_CONNECTOR_PORT), row.port) << row.ports;
    EXPECT_EQ(setting(record, LUMO_CLOUD_CONNECTOR_IWA_ENABLED), row.iwa) << row.ports;
    EXPECT_EQ(setting(record, LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS), row.https) << row.ports;
    EXPECT_EQ(setting(record, LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT), row.httpPort) << row.ports;
    EXPECT_EQ(setting(record, LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT), row.httpsPort) << row.ports;
    EXPECT_EQ(setting(record, AD_DN), "-none-");
    EXPECT_EQ(CloudConnectorLocatorAccess::getConnectorServices(record), row.services) << row.ports;
  }
}

// Lines that an earlier version may have let a connector write, or somebody else.
TEST(ConnectorState, LineWithAValueThatNoSearchKeepsIsPassedOver) {
  testsupport::LogCapture log;
  const std::string good = "u|s|n1|t|1|2|3";
  for (const std::string& line : Texts{
           "u|s\r|n0|t|1|2|3",       // control characters
           "u|s|n0\x1b[2J|t|1|2|3",  //
           "u|s|n0|t|1|2|3\r",       //
           std::string("u|s|n0|t\0|1|2|3", 16),
           "u\xE2\x80\xAE|s|n0|t|1|2|3",  // turns the direction of writing
           "u|s|n0\xff|t|1|2|3",          // no UTF-8
           "u|s|n0|t|8080|-|\xff",        // the same in a port that has no effect
       }) {
    log.texts();
    const ADObjectPtr record = connectorOfState(line + "\n" + good + "\n");
    EXPECT_EQ(record ? setting(record, LUMO_CLOUD_PROXY_FQDN) : "none", "n1") << line;
    EXPECT_EQ(connectorOfState(line + "\n"), nullptr) << line;
  }
  EXPECT_THAT(log.newTexts(LOCATOR_LOGGER),
              testing::Each("DEBUG 1 remembered connectors are passed over: of another platform, or with values "
                            "that no search keeps"));
}

TEST(ConnectorState, OnlyLinesOfTheZonesPlatformCount) {
  const std::string state =
      "http://evil.test/|s|n0|t|1|2|3\nhttps://zone.test|s|n1|t|1|2|3\n"
      "https://zone.test/|s|n2|t|1|2|3\nhttps://zone.test/|s|n3|t|1|2|3\n";
  const auto chosen = [&state](const char* zoneUrl) {
    const ADObjectPtr record = connectorOfState(state, zoneUrl);
    return record ? setting(record, LUMO_CLOUD_PROXY_FQDN) : "none";
  };
  EXPECT_EQ(chosen("https://zone.test/"), "n2");
  EXPECT_EQ(chosen("https://ZONE.test/"), "none");
  EXPECT_EQ(chosen(""), "n0");
}

TEST(ConnectorState, TheFirstLineWithAllFieldsIsTaken) {
  const std::string good = "u|s|n1|t|1|2|3", other = "u|s|n2|t|1|2|3";
  const struct {
    std::string state;
    const char* fqdn;
  } rows[] = {
      {good + "\n" + other + "\n", "n1"},
      {other + "\n" + good + "\n", "n2"},
      {"u|s|n0||1|2|3\n" + good + "\n", "n1"},        // no tenant
      {"u|s|n0|t|1|2\n" + good + "\n", "n1"},         // too few
      {"u|s|n0|t|1|2|3|\n" + good + "\n", "n1"},      // an eighth that is empty
      {"u|s|n0|t|1|2|3|more\n" + good + "\n", "n0"},  // an eighth, which is ignored
      {"\n\n" + good, "n1"},
      {"u|s|n0||1|2|3\n", "none"},
      {"||||||\n", "none"},
      {"garbage", "none"},
      {"\n", "none"},
      {"", "none"},
  };
  for (const auto& row : rows) {
    const ADObjectPtr record = connectorOfState(row.state);
    EXPECT_EQ(record ? setting(record, LUMO_CLOUD_PROXY_FQDN) : "none", row.fqdn) << row.state;
  }
}

}  // namespace
