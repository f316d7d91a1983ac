// The default configuration as the tools read and write it.
#include <gtest/gtest.h>

#include <regex>

#include "basalt/settings/properties_text.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "testsupport/temp_folder.h"

namespace {

std::string defaultText() { return testsupport::readFile(FERRO_DEFAULT_CONFIGURATION); }

const std::regex parameter("\n#([a-z])");

// As a person does it who takes the "#" away from every parameter.
std::string uncommented() { return std::regex_replace(defaultText(), parameter, "\n$1"); }

}  // namespace

TEST(DefaultConfiguration, SetsNothingAndHasNoBadLine) {
  const lumo::ParsedProperties parsed = lumo::parseProperties(defaultText());
  EXPECT_TRUE(parsed.values.empty());
  EXPECT_EQ(parsed.badLineCount, 0U);
}

TEST(DefaultConfiguration, EveryParameterCanBeUncommented) {
  const lumo::ParsedProperties parsed = lumo::parseProperties(uncommented());
  EXPECT_EQ(parsed.badLineCount, 0U);
  const std::string text = defaultText();
  const auto count = std::distance(std::sregex_iterator(text.begin(), text.end(), parameter), std::sregex_iterator());
  EXPECT_GT(count, 0);
  EXPECT_EQ(parsed.values.size(), static_cast<std::size_t>(count));
  EXPECT_EQ(parsed.values.at(lumo::PN::CLOUD_PROXY_AUTH_TYPE), "AnyAuth");
  EXPECT_EQ(parsed.values.at(lumo::PN::CLOUD_PROXY_SERVER), "");
  EXPECT_EQ(parsed.values.at(lumo::PN::KRB5_CONFFILE_NAME), "/etc/krb5.conf");
}

TEST(DefaultConfiguration, DefaultsSayWhatHoldsWithoutThem) {
  const testsupport::TempFolder folder;
  testsupport::writeFile(folder.file("morvand.conf"), uncommented());
  lumo::Properties written;
  written.loadFile(folder.file("morvand.conf"));
  for (const bool otherwise : {false, true}) {
    EXPECT_FALSE(written.getBool(lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, otherwise));
    EXPECT_FALSE(written.getBool(lumo::PN::FERROD_CLOUD_SKIP_CERT_VERIFICATION, otherwise));
    EXPECT_FALSE(written.getBool(lumo::PN::FIPS_MODE_ENABLE, otherwise));
    EXPECT_TRUE(written.getBool(lumo::PN::KRB5_ALLOW_WEAK_CRYPTO, otherwise));
  }
  EXPECT_EQ(written.getProperty(lumo::PN::LUMOD_SOCKET), lumo::path::AGENT_SOCKET);
}

TEST(DefaultConfiguration, ASettingIsAddedAtItsEndAndGoesAgain) {
  const testsupport::TempFolder folder;
  const std::string path = folder.file("morvand.conf");
  testsupport::writeFile(path, defaultText());
  lumo::Properties settings;
  settings.loadFile(path);
  settings.setProperty(lumo::PN::CLOUD_PROXY_SERVER, "proxy.example.com:3128");
  settings.saveProperty(path);
  EXPECT_EQ(testsupport::readFile(path), defaultText() + "ferrod.cloud.proxy.server: proxy.example.com:3128\n");
  settings.eraseProperty(lumo::PN::CLOUD_PROXY_SERVER);
  settings.saveProperty(path);
  EXPECT_EQ(testsupport::readFile(path), defaultText());
}
