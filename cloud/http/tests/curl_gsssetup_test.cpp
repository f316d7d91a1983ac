#include "cloud/http/curl_gsssetup.h"

#include <gmock/gmock.h>
#include <gssapi/gssapi_krb5.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "base/include/parameter_names.h"
#include "testsupport/fake_credential_source.h"
#include "testsupport/log_capture.h"
#include "testsupport/memory_directory.h"
#include "testsupport/no_further_thread.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using testsupport::MemoryDirectory;

namespace {

using Lines = std::vector<std::string>;

constexpr char LOGGER[] = "cloud.proxy.gss";
const std::string OK_200 = "HTTP/1.1 200 OK\r\n";
const std::string ASKED = "HTTP/1.1 407 Proxy Authentication Required\r\n";
const std::string NEGOTIATE = "Proxy-Authenticate: Negotiate\r\n";
const std::string NTLM = "Proxy-Authenticate: NTLM\r\n";

class NegotiateHelperTest : public testing::Test {
 protected:
  NegotiateHelperTest() : inForce(directory) {
    directory.add("CN=PROXY1,CN=Computers,DC=corp,DC=ferro,DC=test",
                  {{"servicePrincipalName", {"HTTP/Proxy1.corp.ferro.test", "HOST/proxy1"}}});
  }

  testsupport::FakeCredentialSource source;
  MemoryDirectory directory{"corp.ferro.test"};
  testsupport::DirectoryInForce inForce;
  testsupport::LogCapture log{"TRACE"};
  CurlProxyNegotiateHelper helper;
};

bool cacheExists(const std::string& name) {
  krb5_context context = nullptr;
  krb5_ccache cache = nullptr;
  krb5_principal owner = nullptr;
  krb5_init_context(&context);
  krb5_cc_resolve(context, name.c_str(), &cache);
  const bool found = krb5_cc_get_principal(context, cache, &owner) == 0;
  if (found) krb5_free_principal(context, owner);
  krb5_cc_close(context, cache);
  krb5_free_context(context);
  return found;
}

}  // namespace

struct Decision {
  const char* name;
  Lines lines;
  bool repeat;
};

class HeaderDecision : public NegotiateHelperTest, public testing::WithParamInterface<Decision> {};

TEST_P(HeaderDecision, IsTakenFromTheHeaderLinesOfTheFailedAttempt) {
  helper.setCredentials("alice@CORP.FERRO.TEST", lumo::Shredder2("secret"));
  EXPECT_EQ(helper.handleKrb5CCache(GetParam().lines), GetParam().repeat);
  EXPECT_THAT(source.requests, SizeIs(GetParam().repeat ? 1 : 0));
  EXPECT_THAT(log.text(), HasSubstr("HEADER size = " + std::to_string(GetParam().lines.size())));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, HeaderDecision,
    testing::Values(Decision{"NoLines", {}, false}, Decision{"AskedForNegotiate", {ASKED, NEGOTIATE}, true},
                    Decision{"OtherHeadersBetween", {ASKED, "Server: x\r\n", NTLM, NEGOTIATE, "\r\n"}, true},
                    Decision{"FirstStatusGood", {OK_200, "\r\n", ASKED, NEGOTIATE}, false},
                    Decision{"GoodStatusBehindThe407", {ASKED, NTLM, "\r\n", OK_200, ASKED, NEGOTIATE}, false},
                    Decision{"OnlyNtlm", {ASKED, NTLM, "\r\n"}, false},
                    Decision{"HeaderBeforeAnyStatus", {NEGOTIATE, ASKED}, false},
                    Decision{"HeaderWithoutStatus", {NEGOTIATE}, false},
                    Decision{"TwoBlocksSecondOffers", {ASKED, NTLM, "\r\n", ASKED, NEGOTIATE}, true},
                    Decision{"TwoBlocksBothOffer", {ASKED, NEGOTIATE, "\r\n", ASKED, NEGOTIATE, "\r\n"}, true},
                    Decision{"OtherReason", {"HTTP/1.1 407 Authentication Required\r\n", NEGOTIATE}, false},
                    Decision{"ReasonInOtherCase", {"HTTP/1.1 407 proxy authentication required\r\n", NEGOTIATE}, false},
                    Decision{"OldProtocol", {"HTTP/1.0 407 Proxy Authentication Required\r\n", NEGOTIATE}, true},
                    Decision{"StatusOf401", {"HTTP/1.1 401 Unauthorized\r\n", NEGOTIATE}, false},
                    Decision{"NoBlankBehindTheColon", {ASKED, "Proxy-Authenticate:Negotiate\r\n"}, false},
                    Decision{"SchemeInOtherCase", {ASKED, "Proxy-Authenticate: negotiate\r\n"}, false},
                    Decision{"HeaderInOtherCase", {ASKED, "proxy-authenticate: Negotiate\r\n"}, false},
                    Decision{"SecondOfOneLine", {ASKED, "Proxy-Authenticate: NTLM, Negotiate\r\n"}, true},
                    Decision{"WithToken", {ASKED, "Proxy-Authenticate: Negotiate oYG2\r\n"}, true},
                    Decision{"WhiteSpaceAround", {"  " + ASKED, "\t" + NEGOTIATE}, true},
                    Decision{"NegotiateOfTheServer", {ASKED, "WWW-Authenticate: Negotiate\r\n"}, false},
                    Decision{"EmptyLines", {"", "", ASKED, "", NEGOTIATE}, true}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(NegotiateHelperTest, DecisionWithoutAUserIsNo) {
  EXPECT_FALSE(helper.handleKrb5CCache({ASKED, NEGOTIATE}));
  EXPECT_THAT(log.text(), HasSubstr("Username not available/set. Username must be provided to create krb5 ccache!"));
  EXPECT_THAT(log.text(), Not(HasSubstr("HEADER size")));
}

TEST_F(NegotiateHelperTest, DecisionIsNoWhenThereIsNoTicket) {
  source.result = KRB5KDC_ERR_PREAUTH_FAILED;
  helper.setCredentials("alice@CORP.FERRO.TEST", lumo::Shredder2("wrong"));
  EXPECT_FALSE(helper.handleKrb5CCache({ASKED, NEGOTIATE}));
  EXPECT_FALSE(helper.handleKrb5CCache({ASKED, NEGOTIATE}));
  EXPECT_THAT(source.requests, SizeIs(2)) << "each decision asks the KDC again";
}

TEST_F(NegotiateHelperTest, TicketIsAskedForOnceAndTheCacheKept) {
  helper.setCredentials("alice@corp.ferro.test", lumo::Shredder2("secret"));
  EXPECT_EQ(helper.cacheName(), "");
  EXPECT_TRUE(helper.initKrb5CCache());
  ASSERT_THAT(source.requests, SizeIs(1));
  EXPECT_EQ(source.requests[0].principal, "alice@corp.ferro.test");
  EXPECT_EQ(source.requests[0].password, "secret");
  EXPECT_EQ(source.requests[0].realm, "CORP.FERRO.TEST");
  EXPECT_EQ(source.requests[0].lifetime, 31536000);
  const std::string name = helper.cacheName();
  EXPECT_THAT(name, StartsWith("MEMORY:"));
  EXPECT_TRUE(cacheExists(name));
  EXPECT_TRUE(helper.initKrb5CCache());
  EXPECT_THAT(source.requests, SizeIs(1));
  EXPECT_EQ(helper.cacheName(), name);
  EXPECT_THAT(log.text(), HasSubstr("Created User CCache '" + name + "'"));
  EXPECT_THAT(log.text(), HasSubstr("KRB5 CCache exists as '" + name + "'."));
}

TEST_F(NegotiateHelperTest, RefusedTicketIsALogLineAndAnEmptyName) {
  source.result = KRB5KDC_ERR_PREAUTH_FAILED;
  helper.setCredentials("alice@CORP.FERRO.TEST", lumo::Shredder2("wr0ng-pw"));
  EXPECT_EQ(helper.createUserCCache(), "");
  EXPECT_THAT(log.text(),
              HasSubstr("ERROR cloud.proxy.gss: Failed to get kerberos credential to access Http Proxy Server for "
                        "user=alice@CORP.FERRO.TEST, rc=-1765328360. Use of Http Proxy Server might fail!"));
  EXPECT_THAT(log.text(), HasSubstr("Created User CCache ''"));
  EXPECT_THAT(log.text(), Not(HasSubstr("wr0ng-pw")));
}

TEST_F(NegotiateHelperTest, NameThatIsNoPrincipalIsALogLineAndAnEmptyName) {
  helper.setCredentials("alice@A@B", lumo::Shredder2("secret"));
  EXPECT_EQ(helper.createUserCCache(), "");
  EXPECT_THAT(log.text(),
              HasSubstr("ERROR cloud.proxy.gss: Failed to get/store kerberos credential to access Http Proxy Server "
                        "(Error:krb5_parse_name:"
                        "Malformed representation of principal). Use of Http Proxy Server might fail!"));
  EXPECT_THAT(source.requests, IsEmpty());
}

TEST_F(NegotiateHelperTest, NewTicketTakesThePlaceOfTheOldCache) {
  helper.setCredentials("alice@CORP.FERRO.TEST", lumo::Shredder2("secret"));
  helper.initKrb5CCache();
  const std::string first = helper.cacheName();
  const std::string second = helper.createUserCCache();
  EXPECT_NE(second, first);
  EXPECT_FALSE(cacheExists(first));
  EXPECT_TRUE(cacheExists(second));
}

TEST_F(NegotiateHelperTest, SettingTheSameUserStillDestroysTheCache) {
  helper.setCredentials("alice@CORP.FERRO.TEST", lumo::Shredder2("secret"));
  helper.initKrb5CCache();
  const std::string name = helper.cacheName();
  helper.setCredentials("alice@CORP.FERRO.TEST", lumo::Shredder2("secret"));
  EXPECT_EQ(helper.cacheName(), "");
  EXPECT_FALSE(cacheExists(name));
  EXPECT_THAT(log.text(), HasSubstr("Clear Krb5CCache '" + name + "'."));
}

TEST_F(NegotiateHelperTest, ClearingTheCredentialKeepsTheCacheUnlessAsked) {
  helper.setCredentials("alice@CORP.FERRO.TEST", lumo::Shredder2("secret"));
  helper.initGSSCredential();
  const std::string name = helper.cacheName();
  EXPECT_NE(helper.credential(), GSS_C_NO_CREDENTIAL);
  helper.clearGSSCredential(false);
  EXPECT_EQ(helper.credential(), GSS_C_NO_CREDENTIAL);
  EXPECT_EQ(helper.cacheName(), name);
  EXPECT_TRUE(cacheExists(name));
  helper.clearGSSCredential(true);
  EXPECT_EQ(helper.cacheName(), "");
  EXPECT_FALSE(cacheExists(name));
}

TEST_F(NegotiateHelperTest, CacheGoesWithTheHelper) {
  std::string name;
  {
    CurlProxyNegotiateHelper shortLived;
    shortLived.setCredentials("alice@CORP.FERRO.TEST", lumo::Shredder2("secret"));
    shortLived.initGSSCredential();
    name = shortLived.cacheName();
    EXPECT_TRUE(cacheExists(name));
  }
  EXPECT_FALSE(cacheExists(name));
}

TEST_F(NegotiateHelperTest, LifeOfACredentialIsInTheLog) {
  helper.setCredentials("alice@CORP.FERRO.TEST", lumo::Shredder2("secret"));
  EXPECT_THAT(log.newTexts(LOGGER), IsEmpty()) << "there was none to be released";
  EXPECT_TRUE(helper.handleKrb5CCache({ASKED, "  " + NEGOTIATE}));
  const std::string name = helper.cacheName();
  EXPECT_THAT(log.newTexts(LOGGER),
              ElementsAre("DEBUG HEADER size = 2", "DEBUG HEADER HTTP/1.1 407 Proxy Authentication Required",
                          "DEBUG HEADER Proxy-Authenticate: Negotiate",
                          "DEBUG 'negotiate' proxy authentication failed, Refresh krb5 credential cache file.",
                          "DEBUG Created User CCache '" + name + "'"));
  helper.initGSSCredential();
  helper.clearGSSCredential(true);
  EXPECT_THAT(log.newTexts(LOGGER),
              ElementsAre("DEBUG KRB5 CCache exists as '" + name + "'.",
                          "DEBUG initGSSCredential with KRB5 CCache '" + name + "'.",
                          "DEBUG Release GSS credential handler.", "DEBUG Clear Krb5CCache '" + name + "'."));
  source.result = KRB5_KDC_UNREACH;
  helper.initGSSCredential();
  EXPECT_THAT(
      log.newTexts(LOGGER),
      ElementsAre("ERROR Failed to get kerberos credential to access Http Proxy Server for "
                  "user=alice@CORP.FERRO.TEST, rc=-1765328228. Use of Http Proxy Server might fail!",
                  "WARN The KDC's answer for user=alice@CORP.FERRO.TEST: refused", "DEBUG Created User CCache ''",
                  "DEBUG initGSSCredential with KRB5 CCache ''.", "DEBUG Failed to get gss credential."));
  helper.setCredentials("", lumo::Shredder2());
  EXPECT_FALSE(helper.handleKrb5CCache({ASKED, NEGOTIATE}));
  helper.setAllowableEtypes("HTTP/p@REALM");
  EXPECT_THAT(log.newTexts(LOGGER),
              ElementsAre("DEBUG Username not available/set. Username must be provided to create krb5 ccache!",
                          "TRACE CurlProxyNegotiateHelper::setAllowableEtypes for realm 'REALM'"));
}

TEST_F(NegotiateHelperTest, MachineHasItsOwnCacheNamedOnlyAndNoPasswordIsRead) {
  source.machineCacheName = "MEMORY:machine-of-this-test";
  helper.setCredentials(MACHINE_MARKER, lumo::Shredder2("not used"));
  EXPECT_TRUE(helper.initKrb5CCache());
  EXPECT_EQ(helper.cacheName(), "MEMORY:machine-of-this-test");
  EXPECT_EQ(source.machineCacheCalls, 1);
  EXPECT_THAT(source.requests, IsEmpty());
  helper.clearUserKrb5CCache();
  EXPECT_EQ(helper.cacheName(), "");
  EXPECT_THAT(log.text(), Not(HasSubstr("Clear Krb5CCache")));
}

TEST_F(NegotiateHelperTest, MachineWithoutAnAccountIsALogLineAndAnEmptyName) {
  source.machineCacheName.clear();
  helper.setCredentials(MACHINE_MARKER, lumo::Shredder2());
  EXPECT_FALSE(helper.initKrb5CCache());
  EXPECT_THAT(log.text(), HasSubstr("ERROR cloud.proxy.gss: Failed to get/store kerberos credential to access Http "
                                    "Proxy Server (Error:no "
                                    "machine account). Use of Http Proxy Server might fail!"));
}

TEST_F(NegotiateHelperTest, CredentialCannotComeFromAnEmptyCacheName) {
  source.result = KRB5_KDC_UNREACH;
  helper.setCredentials("alice@CORP.FERRO.TEST", lumo::Shredder2("secret"));
  helper.initGSSCredential();
  EXPECT_EQ(helper.credential(), GSS_C_NO_CREDENTIAL);
  EXPECT_THAT(log.text(), HasSubstr("Failed to get gss credential."));
  EXPECT_EQ(helper.callbackBlock()->kdcLocator, nullptr) << "no agent in this process";
}

TEST_F(NegotiateHelperTest, SetUpBlockIsZeroedWithEachCredential) {
  helper.callbackBlock()->helper = &helper;
  helper.callbackBlock()->initialCredentialsData = &helper;
  helper.setCredentials("alice@CORP.FERRO.TEST", lumo::Shredder2("secret"));
  helper.initGSSCredential();
  EXPECT_EQ(helper.callbackBlock()->helper, nullptr);
  EXPECT_EQ(helper.callbackBlock()->initialCredentialsData, nullptr);
}

TEST_F(NegotiateHelperTest, EncryptionTypesAreThoseOfTheNamesRealm) {
  helper.setAllowableEtypes("HTTP/proxy.corp.ferro.test@one@CORP.FERRO.TEST");
  EXPECT_THAT(log.text(), HasSubstr("CurlProxyNegotiateHelper::setAllowableEtypes for realm 'CORP.FERRO.TEST'"));
  helper.setAllowableEtypes("HTTP/proxy.corp.ferro.test");
  EXPECT_THAT(log.text(), HasSubstr("CurlProxyNegotiateHelper::setAllowableEtypes for realm ''"));
}

TEST_F(NegotiateHelperTest, SetUpLimitsTheEncryptionTypesOfItsHelper) {
  ProxyGssCallbacks block;
  block.helper = &helper;
  const std::string told = "setAllowableEtypes for realm";
  EXPECT_EQ(proxyGssSetup(nullptr, "HTTP/p@REALM", nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(proxyGssSetup(nullptr, nullptr, nullptr, nullptr, &block), 0);
  EXPECT_EQ(serverGssSetup(nullptr, "HTTP/p@REALM", nullptr, nullptr, &block), 0);
  EXPECT_EQ(serverGssSetup(nullptr, "HTTP/p@REALM", nullptr, nullptr, nullptr), 0);
  ProxyGssCallbacks without;
  EXPECT_EQ(proxyGssSetup(nullptr, "HTTP/p@REALM", nullptr, nullptr, &without), 0);
  EXPECT_THAT(log.text(), Not(HasSubstr(told)));
  EXPECT_EQ(proxyGssSetup(nullptr, "HTTP/p@REALM", nullptr, nullptr, &block), 0);
  EXPECT_THAT(log.text(), HasSubstr(told + " 'REALM'"));
  EXPECT_EQ(helper.setupFunction(), &proxyGssSetup);
}

TEST_F(NegotiateHelperTest, SetUpWithoutANameStillInstallsBothCallbacks) {
  static int asked;
  asked = 0;
  const auto locator = +[](const char*, void*) { return ++asked; };
  ProxyGssCallbacks block;
  block.helper = &helper;
  block.kdcLocator = reinterpret_cast<void*>(locator);
  EXPECT_EQ(proxyGssSetup(nullptr, nullptr, nullptr, nullptr, &block), 0);
  EXPECT_EQ(asked, 1);
  block.initialCredentials = &asked;
  EXPECT_EQ(proxyGssSetup(nullptr, nullptr, nullptr, nullptr, &block), static_cast<int>(GSS_S_UNAVAILABLE));
  EXPECT_EQ(asked, 2);
  EXPECT_THAT(log.text(), Not(HasSubstr("setAllowableEtypes")));
}

TEST_F(NegotiateHelperTest, ServiceNameTakesTheAccountsSpellingAndRealm) {
  EXPECT_EQ(helper.canonicalizeSpn("HTTP/proxy1.CORP.ferro.test"), "HTTP/Proxy1.corp.ferro.test@CORP.FERRO.TEST");
  const auto opened = directory.opened();
  ASSERT_THAT(opened, SizeIs(2));
  EXPECT_NE(opened[0].globalCatalog, opened[1].globalCatalog);
  for (const auto& target : opened) {
    EXPECT_EQ(target.ccacheName, "MEMORY:machine");
    EXPECT_EQ(target.server, "");
  }
  EXPECT_EQ(helper.canonicalizeSpn("HTTP/nobody.corp.ferro.test"), "");
  EXPECT_EQ(helper.canonicalizeSpn("no service name"), "");
  EXPECT_THAT(directory.opened(), SizeIs(2)) << "the bindings stay open";
}

TEST_F(NegotiateHelperTest, DirectoryThatCannotBeReachedIsLoggedAndThrown) {
  directory.failOpen({MemoryDirectory::Failure::Kind::NoServers, -1, ""});
  EXPECT_THROW(helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"), lumo::DNSUnavailableException);
  EXPECT_THAT(log.text(), HasSubstr("Failed to set bindng and lookup function to canonicalize SPN: "));
  directory.clearFailures();
  EXPECT_EQ(helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"), "HTTP/Proxy1.corp.ferro.test@CORP.FERRO.TEST");
}

// Lets nobody in before two have come.
class PairwiseDirectory : public DirectoryConnector {
 public:
  explicit PairwiseDirectory(DirectoryConnector& behind) : m_behind(behind) {}
  std::unique_ptr<DirectoryConnection> open(const Target& target) override {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_here;
    m_came.notify_all();
    EXPECT_TRUE(m_came.wait_for(lock, std::chrono::seconds(10), [this] { return m_here >= 2; })) << "one waits alone";
    lock.unlock();
    return m_behind.open(target);
  }
  std::string site(const std::string& domain) override { return m_behind.site(domain); }

 private:
  DirectoryConnector& m_behind;
  std::mutex m_mutex;
  std::condition_variable m_came;
  int m_here = 0;
};

TEST_F(NegotiateHelperTest, BothDirectoryBindingsAreOpenedAtTheSameTime) {
  PairwiseDirectory pairwise(directory);
  const testsupport::DirectoryInForce here(pairwise);
  EXPECT_EQ(helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"), "HTTP/Proxy1.corp.ferro.test@CORP.FERRO.TEST");
}

TEST_F(NegotiateHelperTest, BothAreOpenedOneAfterTheOtherWithoutAThread) {
  const testsupport::NoFurtherThread none;
  EXPECT_EQ(helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"), "HTTP/Proxy1.corp.ferro.test@CORP.FERRO.TEST");
}

TEST_F(NegotiateHelperTest, NoServiceNameUnlessBothBindingsWork) {
  using Failure = MemoryDirectory::Failure;
  directory.failOpen({Failure::Kind::Refused, -1, ""}, -1, MemoryDirectory::Servers::Catalogue);
  EXPECT_THROW(helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"), LDAPException);
  directory.failOpen({Failure::Kind::Unreachable, -1, ""}, -1, MemoryDirectory::Servers::Domain);
  EXPECT_THROW(helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"), lumo::IOException) << "the first one's failure";
  directory.clearFailures();
  directory.failOpen({Failure::Kind::Unreachable, -1, ""}, -1, MemoryDirectory::Servers::Domain);
  EXPECT_THROW(helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"), lumo::IOException);
  directory.clearFailures();
  EXPECT_EQ(helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"), "HTTP/Proxy1.corp.ferro.test@CORP.FERRO.TEST");
}

// A host without a domain's name finds nothing there; what counts is who is asked.
TEST_F(NegotiateHelperTest, ControllerIsAskedForTheServiceNameWhereTheCatalogueIsAway) {
  using Failure = MemoryDirectory::Failure;
  const auto asked = [&](CurlProxyNegotiateHelper& one) {
    directory.forgetQuestions();
    EXPECT_NO_THROW(one.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"));
    std::string servers;
    for (const auto& search : directory.searches()) servers += search.globalCatalog ? "catalogue " : "controller ";
    return servers;
  };
  for (const auto kind : {Failure::Kind::NoServers, Failure::Kind::Unreachable}) {
    directory.failOpen({kind, -1, ""}, -1, MemoryDirectory::Servers::Catalogue);
    CurlProxyNegotiateHelper another;
    for (int i = 0; i < 2; ++i) EXPECT_EQ(asked(another), "controller ");
    directory.clearFailures();
  }
  EXPECT_EQ(asked(helper), "catalogue ");
  directory.failSearch({Failure::Kind::Gone, -1, ""}, -1, MemoryDirectory::Servers::Catalogue);
  EXPECT_EQ(asked(helper), "catalogue catalogue controller ") << "opened once more first";
}

TEST_F(NegotiateHelperTest, LookUpAfterAFailedOneBeginsWithNewBindings) {
  helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test");
  directory.failSearch({MemoryDirectory::Failure::Kind::Server, 53, "not now"});
  EXPECT_EQ(helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"), "");
  EXPECT_THAT(log.texts(),
              Contains(HasSubstr("WARN cloud.proxy.gss: The service name HTTP/proxy1.corp.ferro.test cannot "
                                 "be looked up: ")));
  directory.clearFailures();
  EXPECT_EQ(helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"), "HTTP/Proxy1.corp.ferro.test@CORP.FERRO.TEST");
  EXPECT_EQ(directory.opened().size(), 4u);
}

TEST_F(NegotiateHelperTest, MachineWithoutAnAccountCannotAskTheDirectory) {
  source.machineCacheName.clear();
  EXPECT_THROW(helper.canonicalizeSpn("HTTP/proxy1.corp.ferro.test"), KerberosException);
  EXPECT_THAT(log.text(),
              HasSubstr("Failed to set bindng and lookup function to canonicalize SPN: no machine account"));
}
