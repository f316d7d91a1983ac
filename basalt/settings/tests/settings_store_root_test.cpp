#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "basalt/settings/join_state.h"
#include "basalt/settings/settings_store.h"
#include "base/include/exceptions.h"
#include "base/include/parameter_names.h"
#include "testsupport/keytab.h"
#include "testsupport/private_host.h"
#include "testsupport/process.h"
#include "testsupport/temp_folder.h"

namespace fs = std::filesystem;
using lumo::GetSetting;
using lumo::loadSetting;
using lumo::saveSetting;
using testsupport::readFile;
using testsupport::writeFile;

namespace {

const std::string store = lumo::path::SETTINGS_STORE;
const std::string keytab = lumo::path::MACHINE_KEYTAB;

class SettingsStore : public testing::Test {
 protected:
  void SetUp() override { testsupport::cleanPrivateHost(); }
  void TearDown() override { testsupport::cleanPrivateHost(); }

  // A file of the store as somebody's hand would make it.
  void put(const std::string& name, const std::string& content, unsigned mode = 0600) {
    fs::create_directories(store);
    writeFile(store + name, content, mode);
  }
};

TEST_F(SettingsStore, KeepsValuesByteForByte) {
  for (const std::string& value : {std::string("S-1-5-21-1"), std::string(), std::string("one|1\ntwo|2\n"),
                                   std::string("a\0b", 3), std::string("\n")}) {
    saveSetting(SETTING_HOSTSID, value);
    EXPECT_EQ(loadSetting(SETTING_HOSTSID, true, false), value);
  }
}

TEST_F(SettingsStore, IsForRootAlone) {
  const mode_t mask = umask(0);
  saveSetting("cloud.connectors", "x");
  umask(mask);
  EXPECT_EQ(readFile(store + "cloud.connectors"), "x\n");
  EXPECT_EQ(testsupport::modeOf(store + "cloud.connectors"), 0600U);
  EXPECT_EQ(testsupport::modeOf("/var/morvand/kset"), 0700U);
}

TEST_F(SettingsStore, ValueWrittenByHand) {
  put("host.sid", "S-1-5-21-1\n");
  EXPECT_EQ(loadSetting("host.sid", false, false), "S-1-5-21-1");
  put("host.sid", "S-1-5-21-1");
  EXPECT_EQ(loadSetting("host.sid", false, false), "S-1-5-21-1");
}

TEST_F(SettingsStore, MissingSetting) {
  EXPECT_EQ(loadSetting("host.sid", false, false), "");
  try {
    loadSetting("host.sid", true, false);
    FAIL();
  } catch (const lumo::IOException& failure) {
    EXPECT_STREQ(failure.what(), "The setting 'host.sid' is not there");
  }
}

TEST_F(SettingsStore, DefaultForWhatIsMissingOrEmpty) {
  EXPECT_EQ(GetSetting("host.sid", "default"), "default");
  saveSetting("host.sid", "");
  EXPECT_EQ(GetSetting("host.sid", "default"), "default");
  saveSetting("host.sid", "value");
  EXPECT_EQ(GetSetting("host.sid", "default"), "value");
}

TEST_F(SettingsStore, NameIsNoPath) {
  for (const char* name : {"", ".", "..", "../httpproxy.cred", "a/b", ".hidden", "Upper", "a b"}) {
    EXPECT_THROW(loadSetting(name, false, false), lumo::BadDataException) << name;
    EXPECT_THROW(saveSetting(name, "x"), lumo::BadDataException) << name;
  }
}

TEST_F(SettingsStore, FileThatOthersMayReadOrWriteIsRefused) {
  for (const unsigned mode : {0644U, 0660U, 0602U}) {
    put("host.sid", "x", mode);
    EXPECT_THROW(loadSetting("host.sid", false, false), lumo::FileSecurityException) << std::oct << mode;
  }
  put("host.sid", "x");
  ASSERT_EQ(chown((store + "host.sid").c_str(), 1000, 0), 0);
  EXPECT_THROW(loadSetting("host.sid", false, false), lumo::FileSecurityException);
}

TEST_F(SettingsStore, LinkIsRefusedAndReplaced) {
  writeFile("/var/morvand/target", "x", 0600);
  fs::create_directories(store);
  fs::create_symlink("/var/morvand/target", store + "host.sid");
  EXPECT_THROW(loadSetting("host.sid", false, false), lumo::FileSecurityException);
  saveSetting("host.sid", "new");
  EXPECT_EQ(loadSetting("host.sid", false, false), "new");
  EXPECT_EQ(readFile("/var/morvand/target"), "x");
}

TEST_F(SettingsStore, FolderThatOthersMayWriteIsRefused) {
  saveSetting("host.sid", "x");
  chmod("/var/morvand/kset", 0777);
  EXPECT_THROW(loadSetting("host.sid", false, false), lumo::FileSecurityException);
}

TEST_F(SettingsStore, ReadOnlyFileSystemKeepsTheOldValue) {
  saveSetting("host.sid", "old");
  testsupport::mountReadOnly("/var/morvand");
  try {
    saveSetting("host.sid", "new");
    FAIL();
  } catch (const lumo::SystemException& failure) {
    EXPECT_STREQ(failure.what(), "Cannot write /var/morvand/kset/host.sid: Read-only file system");
  }
  EXPECT_EQ(loadSetting("host.sid", false, false), "old");
}

TEST_F(SettingsStore, NoSpaceLeftKeepsTheOldValue) {
  testsupport::mountSmall("/var/morvand/kset", 32);
  chmod("/var/morvand/kset", 0700);
  saveSetting("host.sid", "old");
  EXPECT_THROW(saveSetting("host.sid", std::string(100000, 'x')), lumo::SystemException);
  EXPECT_EQ(loadSetting("host.sid", false, false), "old");
  EXPECT_EQ(std::distance(fs::directory_iterator(store), fs::directory_iterator()), 1);
}

TEST_F(SettingsStore, UserMayNotRead) {
  saveSetting("host.sid", "x");
  testsupport::ProcessOptions options;
  options.uid = 65534;
  const auto result = testsupport::runInChild(
      [] {
        try {
          loadSetting("host.sid", false, false);
        } catch (const lumo::SystemException& failure) {
          std::puts(failure.what());
        }
        std::puts(lumo::joined() ? "joined" : "not joined");
        return 0;
      },
      options);
  EXPECT_EQ(result.out, "Cannot look at /var/morvand/kset/host.sid: Permission denied\nnot joined\n");
}

TEST_F(SettingsStore, DomainOfTheKeytabWhereTheStoreNamesNone) {
  EXPECT_EQ(loadSetting(SETTING_DOMAIN_NAME, false, false), "");
  testsupport::writeKeytab(keytab, {{"HOST1$@CORP.EXAMPLE.TEST"}});
  EXPECT_EQ(loadSetting(SETTING_DOMAIN_NAME, true, false), "corp.example.test");
  EXPECT_EQ(GetSetting(SETTING_DOMAIN_NAME, "default"), "corp.example.test");
  saveSetting(SETTING_DOMAIN_NAME, "");
  EXPECT_EQ(loadSetting(SETTING_DOMAIN_NAME, false, false), "corp.example.test");
  saveSetting(SETTING_DOMAIN_NAME, "store.example.test");
  EXPECT_EQ(loadSetting(SETTING_DOMAIN_NAME, false, false), "store.example.test");
}

TEST_F(SettingsStore, JoinedByTheStore) {
  EXPECT_FALSE(lumo::joined());
  saveSetting(SETTING_DOMAIN_NAME, "corp.example.test");
  EXPECT_TRUE(lumo::joined());
  chmod((store + "domain.name").c_str(), 0666);
  EXPECT_FALSE(lumo::joined());
}

TEST_F(SettingsStore, JoinedByTheKeytab) {
  testsupport::writeKeytab(keytab, {{"host/host1.corp.example.test@CORP.EXAMPLE.TEST"}});
  EXPECT_FALSE(lumo::joined());
  testsupport::writeKeytab(keytab, {{"host/host1.corp.example.test@CORP.EXAMPLE.TEST"}, {"HOST1$@CORP.EXAMPLE.TEST"}});
  EXPECT_TRUE(lumo::joined());
}

TEST_F(SettingsStore, DamagedKeytabIsNotJoined) {
  writeFile(keytab, "", 0600);
  EXPECT_FALSE(lumo::joined());
  writeFile(keytab, std::string("\x05\x02\x7f\xff\xff\xff", 6), 0600);
  EXPECT_FALSE(lumo::joined());
  fs::remove(keytab);
  fs::create_directory(keytab);
  EXPECT_FALSE(lumo::joined());
  fs::remove(keytab);
}

}  // namespace
