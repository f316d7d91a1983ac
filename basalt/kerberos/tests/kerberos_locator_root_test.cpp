// The KDC locator against a DNS server of the test's own.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "basalt/kerberos/kerberos_credentials.h"
#include "base/include/parameter_names.h"
#include "testsupport/dns_server.h"
#include "testsupport/log_capture.h"
#include "testsupport/private_host.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

DnsRecord service(unsigned priority, unsigned port, const std::string& host) {
  return {DNS_SRV, srvData(priority, 0, port, host)};
}

class KdcLocatorTest : public testing::Test {
 protected:
  KdcLocatorTest() {
    testsupport::cleanPrivateHost();
    testsupport::writeFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
  }
  ~KdcLocatorTest() override { testsupport::cleanPrivateHost(); }

  static std::vector<std::string> find(const char* realm) {
    std::vector<KdcAddress> found;
    const int rc = krb5_dc_locator_callback(realm, &found);
    EXPECT_EQ(rc, found.empty() ? static_cast<int>(KRB5_REALM_CANT_RESOLVE) : 0);
    std::vector<std::string> texts;
    for (const auto& one : found) texts.push_back(one.host + ":" + std::to_string(one.port));
    return texts;
  }
};

TEST_F(KdcLocatorTest, DomainControllersComeFirstAndInTheirOrder) {
  DnsServer server(
      {{"_kerberos._tcp.dc._msdcs.corp.test", {service(20, 88, "dc2.corp.test"), service(10, 750, "dc1.corp.test")}},
       {"_kerberos._tcp.corp.test", {service(0, 88, "other.corp.test")}}});
  EXPECT_THAT(find("CORP.TEST"), ElementsAre("dc1.corp.test:750", "dc2.corp.test:88"));
  EXPECT_EQ(krb5_dc_locator_callback("CORP.TEST", nullptr), 0);
}

TEST_F(KdcLocatorTest, RealmWithoutDomainControllersIsFoundByItsPlainRecords) {
  DnsServer server({{"_kerberos._tcp.corp.test", {service(0, 88, "kdc.corp.test")}}});
  EXPECT_THAT(find("CORP.TEST"), ElementsAre("kdc.corp.test:88"));
  EXPECT_THAT(server.asked(), ElementsAre("_kerberos._tcp.dc._msdcs.corp.test", "_kerberos._tcp.corp.test"));
}

TEST_F(KdcLocatorTest, UnknownRealmAndSilentNameServersGiveNone) {
  {
    DnsServer server({});
    EXPECT_THAT(find("CORP.TEST"), ElementsAre());
  }
  EXPECT_THAT(find("CORP.TEST"), ElementsAre());  // nobody listens any more
}

TEST_F(KdcLocatorTest, ExchangeAsksAheadForTheJoinedRealm) {
  std::filesystem::create_directories(lumo::path::SETTINGS_STORE);
  chmod(lumo::path::SETTINGS_STORE, 0700);
  testsupport::writeFile(std::string(lumo::path::SETTINGS_STORE) + "domain.name", "corp.test", 0600);
  const testsupport::LogCapture log{"TRACE"};
  DnsServer server({});
  OM_uint32 minor = 1;
  EXPECT_EQ(
      gss_init_server_locator(&minor, nullptr, nullptr, reinterpret_cast<void*>(&krb5_dc_locator_callback), nullptr),
      static_cast<OM_uint32>(GSS_S_COMPLETE));
  EXPECT_EQ(minor, 0U);
  EXPECT_THAT(server.asked(), testing::Contains("_kerberos._tcp.dc._msdcs.corp.test"));
  EXPECT_THAT(log.text(), HasSubstr("No KDC of realm 'CORP.TEST' is known to the name service"));
}

}  // namespace
