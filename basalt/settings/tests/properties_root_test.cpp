#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <set>
#include <string>

#include "basalt/settings/fips.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "testsupport/failure_of.h"
#include "testsupport/log_capture.h"
#include "testsupport/private_host.h"
#include "testsupport/process.h"
#include "testsupport/temp_folder.h"

namespace fs = std::filesystem;
using lumo::Properties;
using lumo::Props;
using testsupport::namesIn;
using testsupport::readFile;
using testsupport::wordsOf;
using testsupport::writeFile;

namespace {

const std::string configuration = lumo::path::CONFIGURATION;
constexpr uid_t nobody = 65534;

class Configuration : public testing::Test {
 protected:
  void SetUp() override { testsupport::cleanPrivateHost(); }
  void TearDown() override {
    testsupport::cleanPrivateHost();
    Props(true, false);
  }
};

TEST_F(Configuration, ProcessSettingsComeFromTheFile) {
  writeFile(configuration, "Ferrod.Cloud.Proxy.Server: proxy:3128\nlog: ERROR\n");
  EXPECT_EQ(Props(true, false).getProperty(lumo::PN::CLOUD_PROXY_SERVER), "proxy:3128");
  EXPECT_EQ(&Props(false, false), &Props(false, true));
  writeFile(configuration, "");
  EXPECT_EQ(Props(false, false).getProperty(lumo::PN::CLOUD_PROXY_SERVER), "proxy:3128");
  EXPECT_EQ(Props(true, false).getProperty(lumo::PN::CLOUD_PROXY_SERVER), "");
}

TEST_F(Configuration, LevelsOfTheLoggersComeWithTheFile) {
  writeFile(configuration, "log: ERROR\nlog.cloud: TRACE\n");
  Props(true, false);
  EXPECT_EQ(getLogger("base", false)->threshold(0), 4);
  EXPECT_EQ(getLogger("cloud.object", false)->threshold(0), 0);
}

TEST_F(Configuration, LogFileOfTheFileHasItsOwnBadLines) {
  writeFile(configuration, "nonsense\nlogging.file: /var/morvand/agent.log\n");
  Props(true, false);
  EXPECT_THAT(
      readFile("/var/morvand/agent.log"),
      testing::HasSubstr(" ERROR base.properties: /etc/morvand/morvand.conf line 1 is not a setting (key: value) ["));
  EXPECT_EQ(testsupport::modeOf("/var/morvand/agent.log"), 0600U);
}

TEST_F(Configuration, FileOrFolderOfAnotherOwnerIsInTheLog) {
  // Not by its own name, which would set up the log as it says.
  const std::string file = "/etc/morvand/other.conf";
  writeFile(file, "a: 1\n");
  testsupport::LogCapture log;
  const auto said = [&] {
    Properties().loadFile(file);
    return log.newTexts("base.properties");
  };
  EXPECT_THAT(said(), testing::IsEmpty());
  const std::string words = " can be written by others than root; run: chown root '";
  ASSERT_EQ(chown(file.c_str(), nobody, 0), 0);
  EXPECT_THAT(said(), testing::ElementsAre("ERROR " + file + words + file + "'; chmod go-w '" + file + "'"));
  ASSERT_EQ(chown(file.c_str(), 0, 0), 0);
  ASSERT_EQ(chown("/etc/morvand", nobody, 0), 0);
  EXPECT_THAT(said(), testing::ElementsAre("WARN The folder /etc/morvand" + words +
                                           "/etc/morvand'; chmod go-w '/etc/morvand'"));
}

TEST_F(Configuration, FileThatCannotBeReadThrowsUnlessQuiet) {
  fs::create_directory(configuration);
  const std::string words = "Cannot read /etc/morvand/morvand.conf: it is not a regular file";
  EXPECT_EQ(wordsOf<lumo::SystemException>([] { Props(true, false); }), words);
  EXPECT_EQ(wordsOf<lumo::SystemException>([] { Props(true, false); }), words);
  Props(true, true);
  LUMO_LOG(getLogger("a", false), 4, "the log does not mind");
  fs::remove(configuration);
  writeFile(configuration, "a: 1\n");
  EXPECT_EQ(Props(true, false).getProperty("a"), "1");
}

TEST_F(Configuration, OwnerAndModeStay) {
  writeFile(configuration, "a: 1\n", 0640);
  ASSERT_EQ(chown(configuration.c_str(), 1000, 1001), 0);
  Properties settings;
  settings.loadFile(configuration);
  settings.setProperty("a", "2");
  settings.saveProperty(configuration);
  struct stat status {};
  ASSERT_EQ(stat(configuration.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 1000U);
  EXPECT_EQ(status.st_gid, 1001U);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(readFile(configuration), "a: 2\n");
}

TEST_F(Configuration, NewFileIsRootsAndReadableByAll) {
  Properties settings;
  settings.setProperty("a", "1");
  settings.saveProperty(configuration);
  struct stat status {};
  ASSERT_EQ(stat(configuration.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 0U);
  EXPECT_EQ(status.st_gid, 0U);
  EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST_F(Configuration, ReadOnlyFileSystem) {
  writeFile(configuration, "a: 1\n");
  testsupport::mountReadOnly("/etc/morvand");
  Properties settings;
  settings.loadFile(configuration);
  settings.setProperty("a", "2");
  EXPECT_EQ(wordsOf<lumo::SystemException>([&] { settings.saveProperty(configuration); }),
            "Cannot lock /etc/morvand/.morvand.conf.lock: Read-only file system");
  EXPECT_EQ(readFile(configuration), "a: 1\n");
  EXPECT_TRUE(settings.dirty());
  settings.setProperty("a", "1");
  settings.saveProperty(configuration);  // nothing to write
}

TEST_F(Configuration, NoSpaceLeft) {
  testsupport::mountSmall("/etc/morvand", 64);
  const std::string old = "a: 1\nb: " + std::string(20000, 'x') + "\n";
  writeFile(configuration, old);
  Properties settings;
  settings.loadFile(configuration);
  settings.setProperty("a", "2");
  FILE* filler = std::fopen("/etc/morvand/filler", "w");
  while (std::fputc('x', filler) != EOF) {
  }
  std::fclose(filler);
  const std::string words = wordsOf<lumo::SystemException>([&] { settings.saveProperty(configuration); });
  EXPECT_EQ(words, "Cannot write /etc/morvand/morvand.conf: No space left on device");
  EXPECT_EQ(readFile(configuration), old);
  EXPECT_EQ(namesIn("/etc/morvand"), (std::set<std::string>{"morvand.conf", ".morvand.conf.lock", "filler"}));
  fs::remove("/etc/morvand/filler");
  settings.saveProperty(configuration);
  EXPECT_EQ(readFile(configuration).substr(0, 5), "a: 2\n");
}

TEST_F(Configuration, UserMayNotSave) {
  writeFile(configuration, "a: 1\n");
  testsupport::ProcessOptions options;
  options.uid = nobody;
  const auto result = testsupport::runInChild(
      [] {
        Properties settings;
        settings.loadFile(configuration);
        settings.setProperty("a", "2");
        std::puts(wordsOf<lumo::SystemException>([&] { settings.saveProperty(configuration); }).c_str());
        return 0;
      },
      options);
  EXPECT_EQ(result.out, "Cannot lock /etc/morvand/.morvand.conf.lock: Permission denied\n");
  EXPECT_EQ(readFile(configuration), "a: 1\n");
}

TEST_F(Configuration, UserWhoMayNotReadStillLogs) {
  writeFile(configuration, "a: 1\n", 0600);
  testsupport::ProcessOptions options;
  options.uid = nobody;
  const auto result = testsupport::runInChild(
      [] {
        std::puts(wordsOf<lumo::SystemException>([] { Props(true, false); }).c_str());
        LUMO_LOG(getLogger("a", false), 5, "record");
        return 0;
      },
      options);
  EXPECT_EQ(result.out, "Cannot read /etc/morvand/morvand.conf: Permission denied\n");
  EXPECT_EQ(result.status, 0);
}

TEST_F(Configuration, FipsModeOfTheSettings) {
  writeFile(configuration, "fips.mode.enable: YES\n");
  Props(true, false);
  EXPECT_TRUE(lumo::FIPSHelper::isStarted());
  writeFile(configuration, "fips.mode.enable: perhaps\n");
  Props(true, false);
  EXPECT_FALSE(lumo::FIPSHelper::isStarted());
}

TEST_F(Configuration, FipsModeOfTheKernel) {
  Props(true, false);
  // Not every kernel has the switch.
  testsupport::mountSmall("/proc/sys", 64);
  EXPECT_FALSE(lumo::FIPSHelper::isStarted());
  fs::create_directory("/proc/sys/crypto");
  for (const char* value : {"1\n", "0\n", ""}) {
    writeFile("/proc/sys/crypto/fips_enabled", value);
    EXPECT_EQ(lumo::FIPSHelper::isStarted(), value[0] == '1') << value;
  }
}

}  // namespace
