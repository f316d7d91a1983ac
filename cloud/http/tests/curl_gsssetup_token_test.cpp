#include "cloud/http/curl_gsssetup_token.h"

#include <gmock/gmock.h>
#include <krb5.h>

#include "basalt/kerberos/kerberos_credentials.h"
#include "testsupport/fake_credential_source.h"

using testing::Eq;
using testing::Optional;

TEST(NegotiateChallenge, IsReadFromItsOwnHeaderAndSchemeOnly) {
  const std::string name = "WWW-Authenticate";
  EXPECT_THAT(negotiateChallenge("WWW-Authenticate: Negotiate oYG2\r\n", name), Optional(Eq("oYG2")));
  EXPECT_THAT(negotiateChallenge("www-authenticate:negotiate  oYG2 \r\n", name), Optional(Eq("oYG2")));
  EXPECT_THAT(negotiateChallenge("WWW-Authenticate: Negotiate\r\n", name), Optional(Eq("")));
  EXPECT_EQ(negotiateChallenge("WWW-Authenticate: Negotiated x\r\n", name), std::nullopt);
  EXPECT_EQ(negotiateChallenge("WWW-Authenticate: Basic realm=\"x\"\r\n", name), std::nullopt);
  EXPECT_EQ(negotiateChallenge("Proxy-Authenticate: Negotiate oYG2\r\n", name), std::nullopt);
  EXPECT_EQ(negotiateChallenge("WWW-Authenticate", name), std::nullopt);
  EXPECT_EQ(negotiateChallenge("", name), std::nullopt);
}

TEST(NegotiateExchange, WithoutACredentialThereIsNoToken) {
  NegotiateExchange exchange("HTTP/proxy.example.test", GSS_C_NO_CREDENTIAL);
  EXPECT_EQ(exchange.start(), "");
  std::string answer = "x";
  EXPECT_FALSE(exchange.proceed("oYG2", answer));
  EXPECT_EQ(answer, "");
  EXPECT_FALSE(exchange.established());
}

TEST(CredentialOwner, OfNoCredentialIsEmpty) { EXPECT_EQ(credentialOwner(GSS_C_NO_CREDENTIAL), ""); }

TEST(CredentialOwner, IsThePrincipalOfTheCache) {
  krb5_context context = nullptr;
  ASSERT_EQ(krb5_init_context(&context), 0);
  krb5_principal alice = nullptr;
  ASSERT_EQ(krb5_parse_name(context, "alice@EXAMPLE.TEST", &alice), 0);
  {
    MemoryCCache cache(context, alice);
    krb5_creds ticket = testsupport::handMadeTicket(context, alice, 3600);
    cache.storeCred(ticket);
    krb5_free_cred_contents(context, &ticket);
    lumo::GSSCredential credential;
    const DefaultCredentialBar bar;
    EXPECT_EQ(credentialOwner(credential.acquireCred(cache.name.c_str())), "alice@EXAMPLE.TEST");
  }
  krb5_free_principal(context, alice);
  krb5_free_context(context);
}

TEST(DefaultCredentialBar, HidesTheDefaultCacheOfThisThread) {
  krb5_context context = nullptr;
  ASSERT_EQ(krb5_init_context(&context), 0);
  krb5_principal root = nullptr;
  ASSERT_EQ(krb5_parse_name(context, "root@EXAMPLE.TEST", &root), 0);
  {
    MemoryCCache cache(context, root);
    krb5_creds ticket = testsupport::handMadeTicket(context, root, 3600);
    cache.storeCred(ticket);
    krb5_free_cred_contents(context, &ticket);
    setenv("KRB5CCNAME", cache.name.c_str(), 1);
    const auto defaultIsThere = [] {
      OM_uint32 minor = 0;
      gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
      const OM_uint32 major = gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, GSS_C_NO_OID_SET,
                                               GSS_C_INITIATE, &credential, nullptr, nullptr);
      gss_release_cred(&minor, &credential);
      return major == GSS_S_COMPLETE;
    };
    EXPECT_TRUE(defaultIsThere());
    {
      const DefaultCredentialBar bar;
      EXPECT_FALSE(defaultIsThere());
    }
    EXPECT_TRUE(defaultIsThere());
    unsetenv("KRB5CCNAME");
  }
  krb5_free_principal(context, root);
  krb5_free_context(context);
}
