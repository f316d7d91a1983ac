// The real directory: a Samba domain.
#include <gmock/gmock.h>
#include <krb5.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <set>

#include "basalt/directory/canonical_spn.h"
#include "basalt/directory/directory.h"
#include "basalt/directory/directory_ldap.h"
#include "basalt/directory/directory_ldap_connection.h"
#include "basalt/directory/directory_ping.h"
#include "basalt/directory/directory_srv.h"
#include "basalt/directory/tests/hostile_ldap_settings.h"
#include "basalt/kerberos/kerberos_credentials.h"
#include "base/include/exceptions.h"
#include "base/include/kerb_wrap.h"
#include "testsupport/lab_control.h"
#include "testsupport/process.h"
#include "testsupport/temp_folder.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::SizeIs;
using testsupport::env;
using testsupport::labControl;
using testsupport::ProcessOptions;
using testsupport::run;
using testsupport::TempFolder;

void takeTicket(const std::string& principal, const std::string& password, const std::string& ccacheName) {
  ProcessOptions options;
  options.input = password + "\n";
  const auto result = run({"kinit", "-c", ccacheName, principal}, options);
  ASSERT_EQ(result.status, 0) << result.out << result.err;
}

std::chrono::milliseconds timeOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

class DirectoryLab : public testing::Test {
 protected:
  DirectoryConnector::Target target(bool globalCatalog) const { return {m_domain, globalCatalog, "", "", m_cache}; }

  const std::string m_domain = env("FERRO_LAB_DOMAIN");
  const std::string m_realm = env("FERRO_LAB_REALM");
  const std::string m_base = env("FERRO_LAB_BASE_DN");
  const std::string m_dc = env("FERRO_LAB_DC");
  const std::string m_cache = ADHelper::GetMachineCredCache();
};

TEST_F(DirectoryLab, DnsNamesTheControllers) {
  const auto answer = lumo::lookUpSrv("_ldap._tcp.dc._msdcs." + m_domain);
  EXPECT_EQ(answer.status, lumo::SrvAnswer::Status::Found) << answer.reason;
  ASSERT_THAT(answer.records, SizeIs(1));
  EXPECT_EQ(answer.records.front().target, m_dc);
  EXPECT_EQ(answer.records.front().port, 389);
  EXPECT_EQ(lumo::lookUpSrv("_gc._tcp." + m_domain).records.at(0).port, 3268);
}

TEST_F(DirectoryLab, DnsKnowsNoOtherDomain) {
  EXPECT_EQ(lumo::lookUpSrv("_ldap._tcp.dc._msdcs.none." + m_domain).status, lumo::SrvAnswer::Status::NoRecords);
}

TEST_F(DirectoryLab, PingTellsForestAndSite) {
  const auto reply = lumo::netlogonPing({{m_dc, 389}}, m_domain);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->forest, m_domain);
  EXPECT_EQ(reply->domain, m_domain);
  EXPECT_EQ(reply->host, m_dc);
  EXPECT_EQ(reply->clientSite, env("FERRO_LAB_SITE"));
  EXPECT_NE(reply->serverSite, "");
}

TEST_F(DirectoryLab, PingOfAnotherDomainIsNotAnswered) {
  EXPECT_FALSE(lumo::netlogonPing({{m_dc, 389}}, "none." + m_domain, std::chrono::milliseconds(300)));
}

TEST_F(DirectoryLab, DomainIsSearchedByTheMachinesIdentity) {
  const auto connection = ldapDirectoryConnector().open(target(false));
  const auto found = connection->search(
      {"", SearchScope::Subtree, "(sAMAccountName=" + escapeFilterValue(env("FERRO_LAB_MACHINE")) + ")", {}});
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_EQ((*found.front())[AD_DNS_NAME].toString(), env("FERRO_LAB_HOST"));
  EXPECT_EQ((*found.front())[AD_DN].toString(), found.front()->dn());
  EXPECT_EQ(DN::domainFromDN(found.front()->dn()), m_domain);
  EXPECT_EQ((*found.front())[AD_USER_ACCNT_CONTROL].toInt() & 0x1002, 0x1000);
}

TEST_F(DirectoryLab, CatalogueIsSearchedFromTheForestsTop) {
  const auto connection = ldapDirectoryConnector().open(target(true));
  const auto found = connection->search(
      {"", SearchScope::Subtree, "(sAMAccountName=" + escapeFilterValue(env("FERRO_LAB_MACHINE")) + ")", {AD_DN}});
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_EQ(DN::domainFromDN(found.front()->dn()), m_domain);
  EXPECT_EQ(found.front()->attributes().size(), 1U);
}

// A process that reads the LDAP library's files signs in and searches all the same, signed and sealed.
TEST_F(DirectoryLab, SettingsOfTheWorkingFolderChangeNothing) {
  const auto result = runWithHostileLdapSettings(
      "DirectoryLab.DomainIsSearchedByTheMachinesIdentity:DirectoryLab.CatalogueIsSearchedFromTheForestsTop");
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  EXPECT_THAT(result.out, HasSubstr("[  PASSED  ] 2 tests."));
}

// Nobody is known before the sign-in; behind it a server may send more.
TEST_F(DirectoryLab, ServerThatIsKnownMaySendMoreThanAStranger) {
  const auto connection = ldapDirectoryConnector().open(target(false));
  std::size_t bytes = 0;
  for (const auto& object : connection->search({m_base, SearchScope::Subtree, "(objectClass=*)", {}, false})) {
    for (const auto& [name, attribute] : object->attributes()) {
      for (const std::string& value : attribute.values()) bytes += name.size() + value.size();
    }
  }
  EXPECT_GT(bytes, 2 * lumo::MAX_FROM_UNKNOWN_SERVER);
}

TEST_F(DirectoryLab, SecurityIdentifierNamesAnObject) {
  ADBinding binding(m_domain, m_cache, false, "", "", nullptr);
  binding.connect("", "", 0);
  const auto users = binding.search({"", SearchScope::Subtree, "(sAMAccountName=alice)", {"objectSid"}});
  ASSERT_THAT(users, SizeIs(1));
  const auto sid = lumo::SID::ofBytes((*users.front())[AD_OBJECT_SID].toString());
  const auto alice = binding.fetch(sid.toDN(), {"sAMAccountName"});
  ASSERT_TRUE(alice);
  EXPECT_EQ((*alice)["samaccountname"].toString(), "alice");
}

TEST_F(DirectoryLab, MissingObjectIsNone) {
  ADBinding binding(m_domain, m_cache, false, "", "", nullptr);
  binding.connect("", "", 0);
  EXPECT_FALSE(binding.fetch("CN=none," + m_base, {}));
  EXPECT_THAT(binding.search({"", SearchScope::Subtree, "(cn=none-of-that-name)", {}}), SizeIs(0));
}

TEST_F(DirectoryLab, BadFilterIsAnLdapException) {
  ADBinding binding(m_domain, m_cache, false, "", "", nullptr);
  binding.connect("", "", 0);
  try {
    binding.search({"", SearchScope::Subtree, "(cn=a", {}});
    FAIL();
  } catch (const LDAPException& failure) {
    EXPECT_EQ(std::string(failure.what()), "Cannot search '" + m_base + "': Bad search filter");
    EXPECT_EQ(failure.rc(), -7);
  }
  EXPECT_TRUE(binding.fetch(m_base, {AD_DN}));
}

TEST_F(DirectoryLab, ProxysNameIsBroughtToTheDirectorysForm) {
  ADBinding domain(m_domain, m_cache, false, "", "", nullptr);
  ADBinding catalogue(m_domain, m_cache, true, "", "", nullptr);
  domain.connect("", "", 0);
  catalogue.connect("", "", 0);
  const std::string host = "negotiate." + m_domain;
  const std::string canonical = "HTTP/" + host + "@" + m_realm;
  const std::vector<std::string> names{"HTTP/" + host, "http/" + host + ":3131", "HTTP/negotiate",
                                       "HTTP/negotiate:3131", "HTTP/NEGOTIATE." + m_domain + "@" + m_realm};
  for (const std::string& given : names) {
    std::string out;
    EXPECT_TRUE(lumo::CanonicalSpn(given).canonicalize(out, domain, catalogue, nullptr)) << given;
    EXPECT_EQ(out, canonical) << given;
  }
  std::string out;
  EXPECT_FALSE(lumo::CanonicalSpn("HTTP/none." + m_domain).canonicalize(out, domain, catalogue, nullptr));
}

TEST_F(DirectoryLab, MoreObjectsThanAPageComeInFull) {
  constexpr int OBJECTS = 1500;
  const TempFolder folder;
  std::string ldif = "dn: OU=many," + m_base + "\nobjectClass: organizationalUnit\nou: many\n\n";
  for (int i = 0; i < OBJECTS; ++i) {
    const std::string number = std::to_string(i);
    ldif += "dn: CN=c" + number + ",OU=many," + m_base + "\nobjectClass: contact\ncn: c" + number + "\n\n";
  }
  testsupport::writeFile(folder.file("many.ldif"), ldif);
  const std::string admin = "FILE:" + folder.file("admin.ccache");
  takeTicket(env("FERRO_LAB_ADMIN") + "@" + m_realm, env("FERRO_LAB_ADMIN_PASSWORD"), admin);
  ProcessOptions options;
  options.environment["KRB5CCNAME"] = admin;
  const auto added =
      run({"ldapadd", "-Q", "-Y", "GSSAPI", "-H", "ldap://" + m_dc, "-f", folder.file("many.ldif")}, options);
  ASSERT_EQ(added.status, 0) << added.err;

  for (const bool globalCatalog : {false, true}) {
    const auto connection = ldapDirectoryConnector().open(target(globalCatalog));
    const auto found = connection->search({"", SearchScope::Subtree, "(objectClass=contact)", {"cn"}});
    std::set<std::string> names;
    for (const auto& object : found) names.insert((*object)["cn"].toString());
    EXPECT_EQ(names.size(), std::size_t{OBJECTS}) << globalCatalog;
    EXPECT_EQ(found.size(), std::size_t{OBJECTS}) << globalCatalog;
  }
}

TEST_F(DirectoryLab, MissingCacheIsNotReplacedByAnother) {
  auto nobody = target(false);
  nobody.ccacheName = "FILE:/var/morvand/none.ccache";
  try {
    ldapDirectoryConnector().open(nobody);
    FAIL();
  } catch (const KerberosException& failure) {
    EXPECT_THAT(failure.what(),
                HasSubstr("The Kerberos credential cache 'FILE:/var/morvand/none.ccache' cannot be used: "));
  }
}

TEST_F(DirectoryLab, IdentityOfAnotherRealmIsRefused) {
  if (env("FERRO_LAB_MIT_REALM").empty()) GTEST_SKIP() << "needs the lab with its second realm (--with=mit)";
  const TempFolder folder;
  auto stranger = target(false);
  stranger.ccacheName = "FILE:" + folder.file("carol.ccache");
  takeTicket("carol@" + env("FERRO_LAB_MIT_REALM"), env("FERRO_LAB_PASSWORD_CAROL"), stranger.ccacheName);
  try {
    ldapDirectoryConnector().open(stranger);
    FAIL();
  } catch (const LDAPException& failure) {
    EXPECT_THAT(failure.what(), HasSubstr("The directory servers of the domain '" + m_domain +
                                          "' do not let this host in: " + m_dc + ":389: Cannot sign in: "));
    EXPECT_FALSE(isServerUnavailable(failure));
  }
}

TEST_F(DirectoryLab, UnknownDomainIsToldFromSilentServers) {
  auto unknown = target(false);
  unknown.domain = "none." + m_domain;
  try {
    ldapDirectoryConnector().open(unknown);
    FAIL();
  } catch (const lumo::DNSUnavailableException& failure) {
    EXPECT_EQ(std::string(failure.what()), "No directory server of the domain 'none." + m_domain +
                                               "' was found: DNS has no SRV records for " +
                                               "_ldap._tcp.dc._msdcs.none." + m_domain +
                                               "; check the domain's name and the nameservers in /etc/resolv.conf");
  }
}

TEST_F(DirectoryLab, StoppedControllerIsToldAndFoundAgain) {
  ADBinding binding(m_domain, m_cache, false, "", "", nullptr);
  binding.connect("", "", 0);
  labControl({"stop", "dc"});
  std::string lost;
  const auto took = timeOf([&] {
    try {
      binding.search({});
    } catch (const lumo::DNSUnavailableException& failure) {
      lost = failure.what();
    }
  });
  EXPECT_THAT(lost, HasSubstr("No directory server of the domain '" + m_domain + "' was found: the DNS query for "));
  EXPECT_LT(took, std::chrono::seconds(30));

  // DNS may still know what is gone: a given server.
  ADBinding given(m_domain, m_cache, false, m_dc, "", nullptr);
  try {
    given.connect("", "", 0);
    FAIL();
  } catch (const lumo::IOException& failure) {
    EXPECT_EQ(std::string(failure.what()),
              "No directory server of the domain '" + m_domain + "' answers: " + m_dc + ":389: Connection refused");
  }
  labControl({"start", "dc"});
  binding.connect("", "", 0);
  EXPECT_TRUE(binding.fetch(m_base, {AD_DN}));
}

TEST_F(DirectoryLab, RestartedControllerIsFoundWithoutANewConnect) {
  ADBinding binding(m_domain, m_cache, false, "", "", nullptr);
  binding.connect("", "", 0);
  EXPECT_TRUE(binding.fetch(m_base, {AD_DN}));
  labControl({"restart", "dc"});
  EXPECT_TRUE(binding.fetch(m_base, {AD_DN}));
}

}  // namespace
