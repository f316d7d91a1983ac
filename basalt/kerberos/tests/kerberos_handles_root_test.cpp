// The context that reads no configuration, beside a configuration file at its real place.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "basalt/kerberos/kerberos_handles.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

namespace {

constexpr char CONF[] = "/etc/krb5.conf";
constexpr char WITH_REALM[] = "[libdefaults]\n default_realm = SEEN.TEST\n dns_lookup_realm = false\n";

std::string realmOf(krb5_context context) {
  char* realm = nullptr;
  if (krb5_get_default_realm(context, &realm) != 0) return std::string();
  std::string copy = realm;
  krb5_free_default_realm(context, realm);
  return copy;
}

class BareContextTest : public testing::Test {
 protected:
  void SetUp() override { testsupport::cleanPrivateHost(); }
  void TearDown() override {
    unsetenv("KRB5_CONFIG");
    testsupport::cleanPrivateHost();
  }
};

TEST_F(BareContextTest, IsMadeBesideADamagedFile) {
  testsupport::writeFile(CONF, "[libdefaults]\n default_realm\n");
  krb5_context ordinary = nullptr;
  ASSERT_EQ(krb5_init_secure_context(&ordinary), KRB5_CONFIG_BADFORMAT);
  EXPECT_NE(lumo::BareKerberosContext().get(), nullptr);
}

TEST_F(BareContextTest, TakesNothingFromTheFile) {
  testsupport::writeFile(CONF, WITH_REALM);
  krb5_context ordinary = nullptr;
  ASSERT_EQ(krb5_init_secure_context(&ordinary), 0);
  EXPECT_EQ(realmOf(ordinary), "SEEN.TEST");
  krb5_free_context(ordinary);
  EXPECT_NE(realmOf(lumo::BareKerberosContext().get()), "SEEN.TEST");
}

TEST_F(BareContextTest, TakesNothingFromTheEnvironment) {
  const testsupport::TempFolder folder;
  testsupport::writeFile(folder.file("krb5.conf"), WITH_REALM);
  setenv("KRB5_CONFIG", folder.file("krb5.conf").c_str(), 1);
  EXPECT_NE(realmOf(lumo::BareKerberosContext().get()), "SEEN.TEST");
}

}  // namespace
