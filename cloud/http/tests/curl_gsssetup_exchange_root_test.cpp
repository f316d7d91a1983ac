// The Negotiate exchange itself, with a real KDC and an accepting side of the test's own.
#include "cloud/http/curl_gsssetup_token.h"
#include "cloud/http/tests/negotiate_host.h"

using namespace negotiatetest;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char SERVICE[] = "HTTP/127.0.0.1@CORP.EXAMPLE.TEST";

// The encryption type of the session key in the cache's ticket for the service; 0 when there is none.
krb5_enctype sessionKeyType(const std::string& cacheName, const std::string& service) {
  const KerberosContext context;
  krb5_ccache cache = nullptr;
  krb5_cc_cursor cursor = nullptr;
  krb5_creds ticket{};
  krb5_enctype type = 0;
  if (krb5_cc_resolve(context.get(), cacheName.c_str(), &cache) != 0) return 0;
  if (krb5_cc_start_seq_get(context.get(), cache, &cursor) == 0) {
    while (krb5_cc_next_cred(context.get(), cache, &cursor, &ticket) == 0) {
      char* name = nullptr;
      krb5_unparse_name(context.get(), ticket.server, &name);
      if (service == name) type = ticket.keyblock.enctype;
      krb5_free_unparsed_name(context.get(), name);
      krb5_free_cred_contents(context.get(), &ticket);
    }
    krb5_cc_end_seq_get(context.get(), cache, &cursor);
  }
  krb5_cc_close(context.get(), cache);
  return type;
}

class NegotiateExchangeRoot : public NegotiateRoot {
 protected:
  NegotiateExchangeRoot() {
    helper.setCredentials("alice@CORP.EXAMPLE.TEST", lumo::Shredder2("alice-pw"));
    helper.initGSSCredential();
  }
  ~NegotiateExchangeRoot() override { unsetenv("KRB5_CONFIG"); }

  CurlProxyNegotiateHelper helper;
};

}  // namespace

TEST_F(NegotiateExchangeRoot, TokenAsksForTheServersProofAndAgainstReplay) {
  NegotiateExchange exchange(SERVICE, helper.credential());
  const Accepted accepted = acceptToken(exchange.start());
  EXPECT_EQ(accepted.client, "alice@CORP.EXAMPLE.TEST");
  EXPECT_NE(accepted.flags & GSS_C_MUTUAL_FLAG, 0u);
  EXPECT_NE(accepted.flags & GSS_C_REPLAY_FLAG, 0u);
  EXPECT_EQ(accepted.flags & GSS_C_DELEG_FLAG, 0u) << "the user's ticket stays here";
}

TEST_F(NegotiateExchangeRoot, ServersTokenEndsTheExchangeOnce) {
  NegotiateExchange exchange(SERVICE, helper.credential());
  const std::string token = exchange.start();
  EXPECT_FALSE(exchange.established());
  EXPECT_EQ(exchange.start(), "") << "an exchange has one beginning";
  const std::string reply = encoded(acceptToken(token).reply);
  std::string answer = "x";
  EXPECT_FALSE(exchange.proceed("", answer));
  EXPECT_FALSE(exchange.proceed("no base64", answer));
  EXPECT_TRUE(exchange.proceed(reply, answer));
  EXPECT_EQ(answer, "");
  EXPECT_TRUE(exchange.established());
  log.newTexts("cloud.proxy.gss");
  EXPECT_FALSE(exchange.proceed(reply, answer)) << "it is over";
  EXPECT_THAT(log.newTexts("cloud.proxy.gss"), testing::IsEmpty()) << "the library is not asked again";
  EXPECT_TRUE(exchange.established());
}

// The types that are allowed while the exchange is set up decide about the session key.
TEST_F(NegotiateExchangeRoot, AllowedTypesDecideAboutTheSessionKey) {
  const testsupport::TempFolder folder;
  std::string conf = testsupport::readFile("/etc/krb5.conf");
  ASSERT_EQ(conf.rfind("[libdefaults]\n", 0), 0u);
  conf.insert(conf.find('\n') + 1, " permitted_enctypes = aes128-cts\n");
  testsupport::writeFile(folder.file("krb5.conf"), conf);
  setenv("KRB5_CONFIG", folder.file("krb5.conf").c_str(), 1);
  helper.setAllowableEtypes(SERVICE);
  unsetenv("KRB5_CONFIG");
  NegotiateExchange exchange(SERVICE, helper.credential());
  EXPECT_NE(exchange.start(), "");
  EXPECT_EQ(sessionKeyType(helper.cacheName(), SERVICE), ENCTYPE_AES128_CTS_HMAC_SHA1_96);
}

TEST_F(NegotiateExchangeRoot, ClientKeytabIsNoDefaultCredentialEither) {
  const testsupport::TempFolder folder;
  kdc->addWithKeytab("client", folder.file("client.keytab"));
  setenv("KRB5_CLIENT_KTNAME", ("FILE:" + folder.file("client.keytab")).c_str(), 1);
  setenv("KRB5CCNAME", ("FILE:" + folder.file("none.ccache")).c_str(), 1);
  const auto defaultIsThere = [] {
    OM_uint32 minor = 0;
    gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
    const OM_uint32 major = gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, GSS_C_NO_OID_SET, GSS_C_INITIATE,
                                             &credential, nullptr, nullptr);
    gss_release_cred(&minor, &credential);
    return major == GSS_S_COMPLETE;
  };
  {
    const DefaultCredentialBar bar;
    EXPECT_FALSE(defaultIsThere());
  }
  EXPECT_TRUE(defaultIsThere()) << "the keytab would do";
  unsetenv("KRB5_CLIENT_KTNAME");
}

TEST_F(NegotiateExchangeRoot, NameWithoutARealmIsOfTheHostsRealmNotOfTheDefaultOne) {
  kdc->addWithKeytab("HTTP/proxy.corp.example.test", KEYTAB);
  const testsupport::TempFolder folder;
  std::string conf = testsupport::readFile("/etc/krb5.conf");
  const std::string realm = std::string("default_realm = ") + REALM;
  conf.replace(conf.find(realm), realm.size(), "default_realm = ELSEWHERE.TEST");
  testsupport::writeFile(folder.file("krb5.conf"),
                         conf + "[domain_realm]\n proxy.corp.example.test = CORP.EXAMPLE.TEST\n");
  setenv("KRB5_CONFIG", folder.file("krb5.conf").c_str(), 1);
  NegotiateExchange exchange("HTTP/proxy.corp.example.test", helper.credential());
  EXPECT_EQ(acceptToken(exchange.start()).client, "alice@CORP.EXAMPLE.TEST");
}
