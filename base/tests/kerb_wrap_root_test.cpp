// The configuration file at its real place.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "base/include/kerb_wrap.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "testsupport/log_capture.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

namespace {

using testing::HasSubstr;
using testsupport::exists;
using testsupport::readFile;
using testsupport::writeFile;

constexpr char DAMAGED[] = "[libdefaults]\n default_realm\n";
constexpr char CONF[] = "/etc/krb5.conf";
constexpr char BAD[] = "/etc/krb5.conf.bad";

class KerberosConfigurationTest : public testing::Test {
 protected:
  void SetUp() override {
    testsupport::cleanPrivateHost();
    std::filesystem::remove_all(CONF);
    std::filesystem::remove_all(BAD);
  }
  void TearDown() override { SetUp(); }
};

TEST_F(KerberosConfigurationTest, DamagedFileIsMovedToBad) {
  writeFile(BAD, "of an earlier run");
  writeFile(CONF, DAMAGED);
  const KerberosContext context;
  EXPECT_NE(context.get(), nullptr);
  EXPECT_FALSE(exists(CONF));
  EXPECT_EQ(readFile(BAD), DAMAGED);
}

TEST_F(KerberosConfigurationTest, FailingRenameIsLoggedAndTheFileStays) {
  writeFile(CONF, DAMAGED);
  std::filesystem::create_directories(std::string(BAD) + "/full");
  const testsupport::LogCapture log{"TRACE"};
  const KerberosContext context;
  EXPECT_NE(context.get(), nullptr);
  EXPECT_EQ(readFile(CONF), DAMAGED);
  EXPECT_THAT(log.text(), HasSubstr("Failed to move bad /etc/krb5.conf aside(errno=21)"));
}

TEST_F(KerberosConfigurationTest, MissingFileIsNotMoved) {
  const KerberosContext context;
  EXPECT_NE(context.get(), nullptr);
  EXPECT_FALSE(exists(BAD));
}

// A suite of its own, as ctest gives each a process: settings that were read before would be in force.
class UnreadableSettingsTest : public KerberosConfigurationTest {};

// The settings name the file to move and may forbid weak types: without them nothing is moved and weak types stay off.
TEST_F(UnreadableSettingsTest, StillGiveAContext) {
  std::filesystem::create_directory(lumo::path::CONFIGURATION);
  ASSERT_THROW(lumo::Props(false, false), lumo::SystemException)
      << "The settings of this process were read before: run it with --gtest_filter=UnreadableSettingsTest.*";
  writeFile(CONF, DAMAGED);
  {
    const KerberosContext context;
    EXPECT_NE(context.get(), nullptr);
    EXPECT_EQ(readFile(CONF), DAMAGED);
  }
  writeFile(CONF, "[libdefaults]\n permitted_enctypes = arcfour-hmac-exp aes256-cts-hmac-sha1-96\n");
  const KerberosContext context;
  krb5_enctype* types = nullptr;
  ASSERT_EQ(krb5_get_permitted_enctypes(context.get(), &types), 0);
  EXPECT_EQ(types[0], ENCTYPE_AES256_CTS_HMAC_SHA1_96);
  EXPECT_EQ(types[1], 0);
  krb5_free_enctypes(context.get(), types);
}

// A host whose configuration names no realm takes the joined domain's, and so does the copy of its context.
TEST_F(KerberosConfigurationTest, JoinedDomainIsTheDefaultRealmWhereTheFileNamesNone) {
  std::filesystem::create_directories(lumo::path::SETTINGS_STORE);
  chmod(lumo::path::SETTINGS_STORE, 0700);
  writeFile(std::string(lumo::path::SETTINGS_STORE) + "domain.name", "corp.example.test", 0600);
  const auto realmOf = [](krb5_context context) {
    char* realm = nullptr;
    if (krb5_get_default_realm(context, &realm) != 0) return std::string();
    const std::string copy = realm;
    krb5_free_default_realm(context, realm);
    return copy;
  };
  writeFile(CONF, "[libdefaults]\n rdns = false\n");
  {
    const KerberosContext context;
    EXPECT_EQ(realmOf(context.get()), "CORP.EXAMPLE.TEST");
    krb5_context copy = context.clone();
    EXPECT_EQ(realmOf(copy), "CORP.EXAMPLE.TEST");
    krb5_free_context(copy);
  }
  writeFile(CONF, "[libdefaults]\n default_realm = OTHER.TEST\n");
  EXPECT_EQ(realmOf(KerberosContext().get()), "OTHER.TEST");
}

}  // namespace
