// What the LDAP library reads of files and of the environment, and what of it is missing.
#include <gmock/gmock.h>

#include "basalt/directory/directory_ldap_connection.h"
#include "basalt/directory/tests/hostile_ldap_settings.h"
#include "basalt/directory/tests/netlogon_bytes.h"
#include "basalt/directory/tests/scripted_server.h"
#include "base/include/exceptions.h"
#include "testsupport/process.h"
#include "testsupport/temp_folder.h"

namespace {

using testing::HasSubstr;

TEST(LdapSettings, OfTheWorkingFolderChangeNothing) {
  const auto result = runWithHostileLdapSettings("LdapConnection.*:AnnouncedSearches.*");
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  EXPECT_THAT(result.out, HasSubstr("[  PASSED  ]"));
}

// Only in the process that the other one starts: which plug-ins there are is looked at once.
TEST(SaslPlugin, DISABLED_SignsIn) {
  ScriptedServer server([](const std::string&) { return std::string(ScriptedServer::CLOSE); });
  lumo::LdapConnection connection(server.server(), false, {});
  try {
    connection.bind("FILE:/none");
    FAIL();
  } catch (const LDAPException& failure) {
    EXPECT_EQ(failure.rc(), -6);
    EXPECT_STREQ(failure.what(),
                 "Cannot sign in: SASL has no GSSAPI here; install the package libsasl2-modules-gssapi-mit");
  }
}

TEST(SaslPlugin, ThatIsMissingIsCalledByThePackageThatHasIt) {
  const testsupport::TempFolder empty;
  testsupport::ProcessOptions options;
  options.environment["SASL_PATH"] = empty.path();
  const auto result = testsupport::run(
      {ownImage(), "--gtest_also_run_disabled_tests", "--gtest_filter=SaslPlugin.DISABLED_SignsIn"}, options);
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  EXPECT_THAT(result.out, HasSubstr("[  PASSED  ] 1 test."));
}

}  // namespace
