#include "basalt/kerberos/kerberos_credentials.h"

#include <gmock/gmock.h>
#include <gssapi/gssapi_krb5.h>

#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/kerberos/tests/own_kerberos_context.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "testsupport/fake_credential_source.h"
#include "testsupport/log_capture.h"

namespace {

using testing::HasSubstr;
using testsupport::FakeCredentialSource;
using testsupport::handMadeTicket;

class KerberosCredentialsTest : public OwnKerberosContext {
 protected:
  std::string ownerOf(const std::string& cacheName) const {
    lumo::KrbCCache cache(context->get());
    lumo::KrbPrincipal owner(context->get());
    if (krb5_cc_resolve(context->get(), cacheName.c_str(), cache.out()) != 0) return "no cache";
    if (krb5_cc_get_principal(context->get(), cache.get(), owner.out()) != 0) return "no principal";
    return lumo::principalText(context->get(), owner.get());
  }
  // Puts a hand-made ticket of a principal into a cache.
  void fill(MemoryCCache& cache, krb5_const_principal client, int seconds = 3600) const {
    krb5_creds creds = handMadeTicket(context->get(), client, seconds);
    cache.storeCred(creds);
    krb5_free_cred_contents(context->get(), &creds);
  }
};

using MemoryCCacheTest = KerberosCredentialsTest;
using GSSCredentialTest = KerberosCredentialsTest;

TEST_F(MemoryCCacheTest, HasANameOfItsOwnAndGoesWithTheObject) {
  std::string name;
  {
    const MemoryCCache first(context->get(), alice);
    const MemoryCCache second(context->get(), alice);
    EXPECT_EQ(first.name.rfind("MEMORY:", 0), 0U);
    EXPECT_NE(first.name, second.name);
    EXPECT_EQ(ownerOf(first.name), "alice@CORP.TEST");
    name = first.name;
  }
  EXPECT_EQ(ownerOf(name), "no principal");
}

TEST_F(MemoryCCacheTest, StoresACopy) {
  MemoryCCache cache(context->get(), alice);
  krb5_creds creds = handMadeTicket(context->get(), alice, 3600);
  cache.storeCred(creds);
  lumo::KrbCCache opened(context->get());
  ASSERT_EQ(krb5_cc_resolve(context->get(), cache.name.c_str(), opened.out()), 0);
  lumo::KrbCreds found(context->get());
  EXPECT_EQ(krb5_cc_retrieve_cred(context->get(), opened.get(), 0, &creds, found.out()), 0);
  EXPECT_NE(found->ticket.data, creds.ticket.data);
  krb5_free_cred_contents(context->get(), &creds);
}

TEST_F(MemoryCCacheTest, TakesTheNameUnderWhichTheKdcAnswered) {
  MemoryCCache cache(context->get(), alice);
  krb5_principal canonical = parse("Alice.Smith@CORP.TEST");
  fill(cache, canonical);
  EXPECT_EQ(ownerOf(cache.name), "Alice.Smith@CORP.TEST");
  krb5_free_principal(context->get(), canonical);
}

TEST_F(GSSCredentialTest, IsMadeFromTheNamedCacheForBothMechanisms) {
  MemoryCCache cache(context->get(), alice);
  fill(cache, alice);
  lumo::GSSCredential credential;
  EXPECT_EQ(credential.get(), GSS_C_NO_CREDENTIAL);
  const gss_cred_id_t handle = credential.acquireCred(cache.name.c_str());
  ASSERT_NE(handle, GSS_C_NO_CREDENTIAL);
  EXPECT_EQ(handle, credential.get());
  OM_uint32 minor = 0;
  gss_name_t name = GSS_C_NO_NAME;
  gss_OID_set mechanisms = GSS_C_NO_OID_SET;
  ASSERT_EQ(gss_inquire_cred(&minor, handle, &name, nullptr, nullptr, &mechanisms), GSS_S_COMPLETE);
  gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
  ASSERT_EQ(gss_display_name(&minor, name, &text, nullptr), GSS_S_COMPLETE);
  EXPECT_EQ(std::string(static_cast<char*>(text.value), text.length), "alice@CORP.TEST");
  gss_OID_desc spnego{6, const_cast<char*>("\x2b\x06\x01\x05\x05\x02")};
  int present = 0;
  gss_test_oid_set_member(&minor, gss_mech_krb5, mechanisms, &present);
  EXPECT_TRUE(present);
  gss_test_oid_set_member(&minor, &spnego, mechanisms, &present);
  EXPECT_TRUE(present);
  gss_release_buffer(&minor, &text);
  gss_release_name(&minor, &name);
  gss_release_oid_set(&minor, &mechanisms);
  credential.releaseCred();
  EXPECT_EQ(credential.get(), GSS_C_NO_CREDENTIAL);
}

// Root's own ticket lies in the default cache all the time.
TEST_F(GSSCredentialTest, NeverFallsBackToTheDefaultCache) {
  lumo::KrbCCache own(context->get());
  ASSERT_EQ(krb5_cc_default(context->get(), own.out()), 0);
  ASSERT_EQ(krb5_cc_initialize(context->get(), own.get(), alice), 0);
  krb5_creds creds = handMadeTicket(context->get(), alice, 3600);
  ASSERT_EQ(krb5_cc_store_cred(context->get(), own.get(), &creds), 0);
  krb5_free_cred_contents(context->get(), &creds);

  testsupport::writeFile(folder.file("garbage"), "this is no cache");
  testsupport::writeFile(folder.file("empty"), "");
  const testsupport::LogCapture log{"TRACE"};
  lumo::GSSCredential credential;
  const std::string files = "FILE:" + folder.path() + "/";
  for (const std::string& name :
       {std::string(), std::string("MEMORY:nobody"), files + "missing", files + "garbage", files + "empty",
        std::string("UNKNOWN:x"), std::string("NONE:"), std::string("FILE:"), folder.path()}) {
    EXPECT_EQ(credential.acquireCred(name.c_str()), GSS_C_NO_CREDENTIAL) << name;
  }
  EXPECT_EQ(credential.acquireCred(nullptr), GSS_C_NO_CREDENTIAL);
  EXPECT_THAT(log.text(), HasSubstr("No credential cache to make a GSS credential from."));
  EXPECT_THAT(log.text(), HasSubstr("Cannot make a GSS credential from " + files + "missing: "));
}

TEST_F(GSSCredentialTest, FailedAcquireReleasesTheOneBefore) {
  MemoryCCache cache(context->get(), alice);
  fill(cache, alice);
  lumo::GSSCredential credential;
  ASSERT_NE(credential.acquireCred(cache.name.c_str()), GSS_C_NO_CREDENTIAL);
  EXPECT_EQ(credential.acquireCred(""), GSS_C_NO_CREDENTIAL);
  EXPECT_EQ(credential.get(), GSS_C_NO_CREDENTIAL);
}

TEST_F(GSSCredentialTest, EncryptionTypesAreLimited) {
  const int types[] = {ENCTYPE_AES256_CTS_HMAC_SHA1_96, ENCTYPE_AES128_CTS_HMAC_SHA1_96};
  lumo::GSSCredential credential;
  EXPECT_EQ(credential.setAllowableEtypes(2, types), static_cast<OM_uint32>(GSS_S_NO_CRED));
  MemoryCCache cache(context->get(), alice);
  fill(cache, alice);
  ASSERT_NE(credential.acquireCred(cache.name.c_str()), GSS_C_NO_CREDENTIAL);
  EXPECT_EQ(credential.setAllowableEtypes(2, types), static_cast<OM_uint32>(GSS_S_COMPLETE));
  const int unknown[] = {4711};
  EXPECT_NE(credential.setAllowableEtypes(1, unknown), static_cast<OM_uint32>(GSS_S_COMPLETE));
}

TEST(EncryptionTypesTest, LibraryKnowsAFixedNumber) {
  EXPECT_EQ(krb5_enctypes_length(), 10U);  // 6, 16 to 20, 23 to 26
}

TEST_F(KerberosCredentialsTest, AllowedEncryptionTypesAreThoseOfTheProfile) {
  configure(" permitted_enctypes = aes128-cts arcfour-hmac-exp aes256-cts\n");
  std::vector<int> list(krb5_enctypes_length() + 1);
  const auto allowed = [&](unsigned capacity) {
    const unsigned count = getKrb5EncList(list.data(), capacity, "CORP.TEST");
    return std::vector<int>(list.begin(), list.begin() + count);
  };
  EXPECT_EQ(allowed(11), (std::vector<int>{17, 24, 18}));
  EXPECT_EQ(allowed(2), (std::vector<int>{17, 24}));
  EXPECT_EQ(allowed(0), std::vector<int>());
  lumo::Props(false, false).setProperty(lumo::PN::KRB5_ALLOW_WEAK_CRYPTO, "no");
  EXPECT_EQ(allowed(11), (std::vector<int>{17, 18}));
  lumo::Props(false, false).eraseProperty(lumo::PN::KRB5_ALLOW_WEAK_CRYPTO);
}

TEST(RealmNameTest, IsWhatStandsBehindTheLastAt) {
  EXPECT_EQ(ADUser::getRealmName("bob@corp.example.test", nullptr), "CORP.EXAMPLE.TEST");
  EXPECT_EQ(ADUser::getRealmName("bob\\@mail.test@Corp.Test", nullptr), "CORP.TEST");
  EXPECT_EQ(ADUser::getRealmName("bob@", nullptr), "");
}

TEST_F(KerberosCredentialsTest, SourceInForceIsAsked) {
  lumo::Shredder password{lumo::Shredder2("pw")};
  krb5_creds creds{};
  std::string text;
  {
    FakeCredentialSource source;
    EXPECT_EQ(getCredentials(context->get(), alice, password, &creds, &text, nullptr, nullptr, "CORP.TEST", 31536000,
                             nullptr),
              0);
    ASSERT_EQ(source.requests.size(), 1U);
    EXPECT_EQ(source.requests[0].principal, "alice@CORP.TEST");
    EXPECT_EQ(source.requests[0].password, "pw");
    EXPECT_EQ(source.requests[0].realm, "CORP.TEST");
    EXPECT_EQ(source.requests[0].lifetime, 31536000);
    EXPECT_TRUE(krb5_principal_compare(context->get(), creds.client, alice));
    krb5_free_cred_contents(context->get(), &creds);

    source.result = static_cast<krb5_error_code>(KRB5_KDC_UNREACH);
    EXPECT_EQ(getCredentials(context->get(), alice, password, &creds, &text, nullptr, nullptr, "CORP.TEST", 1, nullptr),
              static_cast<krb5_error_code>(KRB5_KDC_UNREACH));
    EXPECT_EQ(text, "refused");

    EXPECT_EQ(ADHelper::GetMachineCredCache(), "MEMORY:machine");
    source.machineCacheName.clear();
    EXPECT_THROW(ADHelper::GetMachineCredCache(), KerberosException);
    EXPECT_EQ(source.machineCacheCalls, 2);
  }
  EXPECT_EQ(dynamic_cast<FakeCredentialSource*>(&KerberosCredentialSource::getInstance()), nullptr);
}

TEST_F(KerberosCredentialsTest, PasswordThatTheLibraryWouldAskForOrCutIsRefused) {
  for (const auto& [password, expected] : std::vector<std::pair<std::string, std::string>>{
           {"", "The password is empty"}, {std::string("a\0b", 3), "The password holds a zero byte"}}) {
    krb5_creds creds{};
    std::string text;
    const lumo::Shredder secret{lumo::Shredder2(password)};
    EXPECT_EQ(getCredentials(context->get(), alice, secret, &creds, &text, nullptr, nullptr, "", 1, nullptr),
              static_cast<krb5_error_code>(KRB5_PREAUTH_FAILED));
    EXPECT_EQ(text, expected);
    EXPECT_EQ(getCredentials(context->get(), alice, secret, &creds, nullptr, nullptr, nullptr, "", 1, nullptr),
              static_cast<krb5_error_code>(KRB5_PREAUTH_FAILED));
  }
}

TEST_F(KerberosCredentialsTest, RealmWithoutAKdcIsAnErrorWithWords) {
  krb5_creds creds{};
  std::string text;
  const lumo::Shredder secret{lumo::Shredder2("pw")};
  const krb5_error_code rc =
      getCredentials(context->get(), alice, secret, &creds, &text, nullptr, nullptr, "NOWHERE.TEST", 1, nullptr);
  EXPECT_NE(rc, 0);
  EXPECT_EQ(text, "Cannot find KDC for realm \"NOWHERE.TEST\"");
}

TEST(SetupFunctionsTest, NothingIsInstalledForNull) {
  OM_uint32 minor = 99;
  EXPECT_EQ(gss_init_server_locator(&minor, nullptr, nullptr, nullptr, nullptr),
            static_cast<OM_uint32>(GSS_S_COMPLETE));
  EXPECT_EQ(minor, 0U);
  minor = 99;
  EXPECT_EQ(gss_init_gic_callback(&minor, nullptr, nullptr, nullptr, nullptr), static_cast<OM_uint32>(GSS_S_COMPLETE));
  EXPECT_EQ(minor, 0U);
  int word = 0;
  EXPECT_EQ(gss_init_gic_callback(&minor, nullptr, nullptr, &word, nullptr), static_cast<OM_uint32>(GSS_S_UNAVAILABLE));
}

TEST(SetupFunctionsTest, LocatorIsAskedForTheJoinedRealmAndItsFailureStopsNothing) {
  static int asked;
  asked = 0;
  const auto locator = +[](const char*, void* data) {
    ++asked;
    EXPECT_NE(data, nullptr);
    return -1;
  };
  OM_uint32 minor = 99;
  EXPECT_EQ(gss_init_server_locator(&minor, nullptr, nullptr, reinterpret_cast<void*>(locator), nullptr),
            static_cast<OM_uint32>(GSS_S_COMPLETE));
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(minor, 0U);
}

TEST(SetupFunctionsTest, LocatorKnowsNoKdcOfNoRealm) {
  EXPECT_EQ(krb5_dc_locator_callback(nullptr, nullptr), static_cast<int>(KRB5_REALM_CANT_RESOLVE));
  EXPECT_EQ(krb5_dc_locator_callback("", nullptr), static_cast<int>(KRB5_REALM_CANT_RESOLVE));
}

}  // namespace
