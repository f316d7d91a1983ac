#include "basalt/kerberos/kerberos_machine_account.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/kerberos/kerberos_names.h"
#include "base/include/string_helpers.h"
#include "testsupport/keytab.h"
#include "testsupport/log_capture.h"
#include "testsupport/temp_folder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::writeKeytab;

class MachineAccountTest : public testing::Test {
 protected:
  MachineAccountTest() { setenv("KRB5_CONFIG", folder.file("krb5.conf").c_str(), 1); }
  ~MachineAccountTest() override { unsetenv("KRB5_CONFIG"); }

  void write(const std::vector<std::pair<std::string, int>>& accounts) const {
    std::vector<testsupport::KeytabEntry> entries;
    entries.reserve(accounts.size());
    for (const auto& [principal, version] : accounts) entries.push_back({principal, version, 18, "pw"});
    writeKeytab(keytab, entries);
  }
  // "NAME$@REALM VERSION" of the key that is this machine's.
  std::string chosen(const lumo::AccountHints& hints) const {
    const lumo::BareKerberosContext context;
    const auto keys = lumo::readMachineKeys(context.get(), keytab);
    const lumo::MachineKey* key = lumo::machineKey(keys, hints);
    return key == nullptr ? "" : key->principal() + " " + std::to_string(key->version());
  }

  testsupport::TempFolder folder;
  const std::string keytab = folder.file("keytab");
};

TEST_F(MachineAccountTest, HostNameDecidesThenRealmThenVersion) {
  write({{"CLONE$@CORP.TEST", 9}, {"HOST1$@CORP.TEST", 2}, {"HOST1$@CORP.TEST", 3}, {"HOST1$@OLD.TEST", 8}});
  EXPECT_EQ(chosen({"host1", "CORP.TEST"}), "HOST1$@CORP.TEST 3");
  EXPECT_EQ(chosen({"host1.corp.test", "OLD.TEST"}), "HOST1$@OLD.TEST 8");
  EXPECT_EQ(chosen({"HOST1", "THIRD.TEST"}), "HOST1$@OLD.TEST 8") << "the version, where the realm says nothing";
  EXPECT_EQ(chosen({"host1", ""}), "HOST1$@OLD.TEST 8");
  EXPECT_EQ(chosen({"host2", "CORP.TEST"}), "CLONE$@CORP.TEST 9") << "the realm alone";
  EXPECT_EQ(chosen({"host", ""}), "CLONE$@CORP.TEST 9") << "the highest version of all";
  EXPECT_EQ(chosen({"", ""}), "CLONE$@CORP.TEST 9");
  EXPECT_EQ(chosen({"clone", "OLD.TEST"}), "CLONE$@CORP.TEST 9") << "the name before the realm";
}

TEST_F(MachineAccountTest, LongHostNamesAreCutAsTheDirectoryCutsThem) {
  write({{"OTHER$@CORP.TEST", 9}, {"A-HOST-WITH-A-L$@CORP.TEST", 1}});
  EXPECT_EQ(chosen({"a-host-with-a-long-name.corp.test", ""}), "A-HOST-WITH-A-L$@CORP.TEST 1");
  write({{"OTHER$@CORP.TEST", 9}, {"A-HOST-WITH-A-LONG-NAME$@CORP.TEST", 1}});
  EXPECT_EQ(chosen({"a-host-with-a-long-name", ""}), "A-HOST-WITH-A-LONG-NAME$@CORP.TEST 1");
}

TEST_F(MachineAccountTest, KeytabWithoutAnAccountHasNone) {
  write({{"host/h.corp.test@CORP.TEST", 1}});
  EXPECT_EQ(chosen({"h", "CORP.TEST"}), "");
}

TEST_F(MachineAccountTest, ThisHostsNameAndDefaultRealmAreTakenAndSaidOnce) {
  char name[256] = {};
  ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
  const std::string host = name;
  const std::string own = upper(host.substr(0, host.find('.'))) + "$@";
  testsupport::LogCapture log{"INFO"};
  testsupport::writeFile(folder.file("krb5.conf"), "[libdefaults]\n default_realm = CORP.TEST\n");
  write({{"CLONE$@CORP.TEST", 9}, {own + "OLD.TEST", 7}, {own + "CORP.TEST", 2}});
  EXPECT_EQ(machinePrincipal(keytab), own + "CORP.TEST");
  EXPECT_EQ(machinePrincipal(keytab), own + "CORP.TEST");
  EXPECT_THAT(log.newTexts("base.kerberos.wrap"),
              ElementsAre("WARN The keytab holds keys of several machine accounts; " + own +
                          "CORP.TEST is used (host name '" + host + "', default realm 'CORP.TEST')"));

  testsupport::writeFile(folder.file("krb5.conf"), "[libdefaults]\n broken\n");
  EXPECT_EQ(machinePrincipal(keytab), own + "OLD.TEST") << "without a realm the version decides";
  EXPECT_TRUE(testsupport::exists(folder.file("krb5.conf"))) << "and the damaged file stays where it is";
}

TEST_F(MachineAccountTest, KeytabThatOthersMayReadOrWriteIsSaidOnce) {
  write({{"HOST1$@CORP.TEST", 1}});
  testsupport::LogCapture log{"INFO"};
  const auto said = [&] {
    EXPECT_EQ(machinePrincipal(keytab), "HOST1$@CORP.TEST");
    EXPECT_EQ(machinePrincipal(keytab), "HOST1$@CORP.TEST");
    return log.newTexts("base.kerberos.wrap");
  };
  EXPECT_THAT(said(), IsEmpty());
  for (const auto& [mode, words] :
       std::vector<std::pair<unsigned, std::string>>{{0640, "read by others than its owner (mode 0640)"},
                                                     {0604, "read by others than its owner (mode 0604)"},
                                                     {0620, "written by others than its owner (mode 0620)"},
                                                     {0666, "written by others than its owner (mode 0666)"}}) {
    ASSERT_EQ(chmod(keytab.c_str(), mode), 0);
    EXPECT_THAT(said(),
                ElementsAre("WARN The keytab " + keytab + " can be " + words + "; run: chmod go-rwx '" + keytab + "'"));
  }
}

}  // namespace
