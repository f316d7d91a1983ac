#include "basalt/kerberos/kerberos_names.h"

#include <gtest/gtest.h>

#include "testsupport/keytab.h"
#include "testsupport/temp_folder.h"

namespace {

using testsupport::writeKeytab;

TEST(KerberosNamesTest, EncryptionTypesHaveTheLibrarysNames) {
  EXPECT_EQ(krb5EncTypeName(18), "AES-256 CTS mode with 96-bit SHA-1 HMAC");
  EXPECT_EQ(krb5EncTypeName(23), "ArcFour with HMAC/md5");
  EXPECT_EQ(krb5EncTypeName(-1), std::nullopt);
  EXPECT_EQ(krb5EncTypeName(0), std::nullopt);
  EXPECT_EQ(krb5EncTypeName(4711), std::nullopt);
}

TEST(MachinePrincipalTest, IsTheComputerAccountWithTheHighestKeyVersion) {
  const testsupport::TempFolder folder;
  const std::string path = folder.file("keytab");
  writeKeytab(path, {{"host/h.corp.test@CORP.TEST", 9, 18, "x"},
                     {"OLD$@CORP.TEST", 2, 18, "x"},
                     {"NEW$@CORP.TEST", 3, 18, "x"},
                     {"nfs/h$@CORP.TEST", 8, 18, "x"}});
  EXPECT_EQ(machinePrincipal(path), "NEW$@CORP.TEST");
}

TEST(MachinePrincipalTest, IsEmptyWithoutAnAccountOrAReadableFile) {
  const testsupport::TempFolder folder;
  const std::string path = folder.file("keytab");
  EXPECT_EQ(machinePrincipal(path), std::nullopt);
  testsupport::writeFile(path, "no keytab");
  EXPECT_EQ(machinePrincipal(path), std::nullopt);
  testsupport::writeFile(path, "");
  EXPECT_EQ(machinePrincipal(path), std::nullopt);
  writeKeytab(path, {{"host/h.corp.test@CORP.TEST", 1, 18, "x"}, {"$@CORP.TEST", 1, 18, "x"}});
  EXPECT_EQ(machinePrincipal(path), std::nullopt);
  EXPECT_EQ(machinePrincipal(folder.path()), std::nullopt);
  EXPECT_EQ(machinePrincipal(""), std::nullopt);
}

TEST(MachinePrincipalTest, DoesNotDependOnTheKerberosConfiguration) {
  const testsupport::TempFolder folder;
  testsupport::writeFile(folder.file("krb5.conf"), "[libdefaults]\n broken\n");
  writeKeytab(folder.file("keytab"), {{"HOST1$@CORP.TEST", 1, 18, "x"}});
  setenv("KRB5_CONFIG", folder.file("krb5.conf").c_str(), 1);
  EXPECT_EQ(machinePrincipal(folder.file("keytab")), "HOST1$@CORP.TEST");
  EXPECT_TRUE(testsupport::exists(folder.file("krb5.conf")));
  unsetenv("KRB5_CONFIG");
}

}  // namespace
