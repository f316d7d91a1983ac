#include <gmock/gmock.h>
#include <sasl/sasl.h>

#include <string>
#include <vector>

#include "cli/cli_ferrogate.h"

namespace {

using testing::Contains;

std::vector<std::string> mechanisms() {
  std::vector<std::string> names;
  for (const char** one = sasl_global_listmech(); one != nullptr && *one != nullptr; ++one) names.emplace_back(*one);
  return names;
}

TEST(SaslPlugins, OneOfAnotherMechanismIsOfNoUse) {
  for (const char* file : {"/usr/lib/x86_64-linux-gnu/sasl2/libdigestmd5.so", "/opt/sasl2/libscram.so.2", "libgs2.so",
                           "libsasldb.la", "libplain.so.2.0.25"}) {
    EXPECT_FALSE(isSaslPluginOfUse(file)) << file;
  }
}

TEST(SaslPlugins, NoneOfTheOnesThatSaslShipsForOtherMechanismsIsOfUse) {
  for (const char* name : {"anonymous", "crammd5", "digestmd5", "gs2", "ldapdb", "login", "ntlm", "otp", "passdss",
                           "plain", "sasldb", "scram", "sql", "srp"}) {
    EXPECT_FALSE(isSaslPluginOfUse("/usr/lib/sasl2/lib" + std::string(name) + ".so.2")) << name;
  }
}

TEST(SaslPlugins, GssapiAndWhateverIsUnknownIsOfUse) {
  for (const char* file : {"/usr/lib/x86_64-linux-gnu/sasl2/libgssapiv2.so", "libgssapi.so", "/site/libplainer.so",
                           "/site/plain.so", "/plain/libours.so", "lib", "libours", "/"}) {
    EXPECT_TRUE(isSaslPluginOfUse(file)) << file;
  }
}

TEST(SaslPlugins, TheProcessKnowsGssapiAndNoneOfTheOthers) {
  restrictSaslPlugins();
  ASSERT_EQ(sasl_client_init(nullptr), SASL_OK) << "what the LDAP library does";
  EXPECT_THAT(mechanisms(), Contains("GSSAPI"));
  for (const char* name : {"DIGEST-MD5", "CRAM-MD5", "PLAIN", "LOGIN", "NTLM", "SCRAM-SHA-1", "ANONYMOUS"}) {
    EXPECT_THAT(mechanisms(), testing::Not(Contains(name)));
  }
}

}  // namespace
