// A host on which nobody has made /var/morvand.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "basalt/files/state_folder.h"
#include "basalt/kerberos/kerberos_credentials.h"
#include "basalt/kerberos/protected_credential.h"
#include "basalt/settings/settings_store.h"
#include "base/include/exceptions.h"
#include "base/include/parameter_names.h"
#include "testsupport/failure_of.h"
#include "testsupport/keytab.h"
#include "testsupport/mit_kdc.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

namespace {

namespace fs = std::filesystem;
using testsupport::modeOf;

constexpr char FOLDER[] = "/var/morvand";

class StateFolderTest : public testing::Test {
 protected:
  StateFolderTest() {
    testsupport::cleanPrivateHost();
    while (umount2(FOLDER, MNT_DETACH) == 0) {
    }
    fs::remove_all(FOLDER);
  }
  ~StateFolderTest() override {
    umask(m_mask);
    fs::remove_all(FOLDER);
    fs::create_directory(FOLDER);
    testsupport::cleanPrivateHost();
  }

  // As the installation makes it: root's, open to those who pass to the agent's socket.
  static void expectTheFolder() {
    struct stat status {};
    ASSERT_EQ(lstat(FOLDER, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFDIR | 0755U);
    EXPECT_EQ(status.st_uid, 0U);
    EXPECT_EQ(status.st_gid, 0U);
  }

 private:
  // Neither a closed nor an open umask may decide the mode.
  mode_t m_mask = umask(0077);
};

TEST_F(StateFolderTest, IsMadeForTheCredential) {
  testsupport::writeKeytab(lumo::path::MACHINE_KEYTAB, {{"HOST1$@CORP.EXAMPLE.TEST", 3, 18, "pw"}});
  lumo::ProtectedCredential credential("httpproxy");
  credential.setCred("user", lumo::Shredder2("secret"));
  credential.storeToFile();
  expectTheFolder();
  EXPECT_EQ(modeOf("/var/morvand/httpproxy.cred"), 0600U);
  lumo::ProtectedCredential read("httpproxy");
  read.loadFromFile(true);
  EXPECT_TRUE(read.isLoaded());
}

TEST_F(StateFolderTest, IsMadeForASetting) {
  lumo::saveSetting("host.sid", "S-1-5-21-1");
  expectTheFolder();
  EXPECT_EQ(modeOf("/var/morvand/kset"), 0700U);
  EXPECT_EQ(lumo::loadSetting("host.sid", true, false), "S-1-5-21-1");
}

TEST_F(StateFolderTest, IsMadeForTheMachinesCache) {
  testsupport::MitKdc kdc;
  kdc.addWithKeytab("HOST1$", lumo::path::MACHINE_KEYTAB);
  EXPECT_EQ(ADHelper::GetMachineCredCache(), "FILE:/var/morvand/machine.ccache");
  expectTheFolder();
}

TEST_F(StateFolderTest, ThatIsThereStaysAsItIs) {
  fs::create_directory(FOLDER);
  ASSERT_EQ(chmod(FOLDER, 0700), 0);
  lumo::makeStateFolderFor("/var/morvand/x");
  EXPECT_EQ(modeOf(FOLDER), 0700U);
}

TEST_F(StateFolderTest, IsNotMadeForAnotherPath) {
  for (const char* path : {"/var/morvand", "/var/morvandx/y", "/run/x", "", "x"}) lumo::makeStateFolderFor(path);
  EXPECT_FALSE(testsupport::exists(FOLDER));
}

TEST_F(StateFolderTest, ThatCannotBeMadeIsSaid) {
  EXPECT_EQ(testsupport::wordsOf<lumo::SystemException>([] { lumo::makeFolder("/run/no/folder", 0755); }),
            "Cannot make /run/no/folder: No such file or directory");
}

}  // namespace
