#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "basalt/files/file_security.h"
#include "basalt/files/posix_file.h"
#include "basalt/files/secure_file.h"
#include "base/include/exceptions.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

namespace fs = std::filesystem;
using lumo::FileSecrecy;
using lumo::FileSecurityCheck;
using lumo::openChecked;
using testsupport::writeFile;

namespace {

constexpr uid_t somebody = 1000;

std::string unsafeWords(const std::string& path, FileSecrecy secrecy) {
  try {
    const lumo::FileDescriptor file(openChecked(path, secrecy));
    return file ? "opened" : "missing";
  } catch (const lumo::FileSecurityException& failure) {
    return failure.what();
  } catch (const lumo::SystemException& failure) {
    return std::string("system: ") + failure.what();
  }
}

// A file below a folder below /var/morvand.
class OpenChecked : public testing::Test {
 protected:
  void SetUp() override {
    testsupport::cleanPrivateHost();
    fs::create_directory(folder);
    writeFile(file, "content", 0600);
  }
  void TearDown() override { testsupport::cleanPrivateHost(); }

  const std::string folder = "/var/morvand/folder";
  const std::string file = folder + "/file";
};

TEST_F(OpenChecked, GivesTheContentOfASafeFile) {
  const lumo::FileDescriptor opened(openChecked(file, FileSecrecy::Secret));
  ASSERT_TRUE(opened);
  EXPECT_EQ(lumo::readAll(opened.get(), file, 100), "content");
}

TEST_F(OpenChecked, ModesOfTheFile) {
  const std::string written = " can be written by others than its owner (mode ";
  const std::string used = " can be used by others than its owner (mode ";
  for (const mode_t mode : {0600U, 0400U, 0644U, 0640U, 0604U, 0610U, 0664U, 0620U, 0602U, 0666U}) {
    chmod(file.c_str(), mode);
    char digits[8];
    std::snprintf(digits, sizeof digits, "%04o", mode);
    const bool trusted = (mode & 022U) == 0;
    const bool secret = (mode & 077U) == 0;
    EXPECT_EQ(unsafeWords(file, FileSecrecy::Trusted),
              trusted ? "opened" : file + written + digits + "); run: chmod go-w '" + file + "'");
    EXPECT_EQ(unsafeWords(file, FileSecrecy::Secret),
              secret ? "opened" : file + used + digits + "); run: chmod go-rwx '" + file + "'");
  }
}

TEST_F(OpenChecked, OwnerOfTheFile) {
  ASSERT_EQ(chown(file.c_str(), somebody, 0), 0);
  EXPECT_EQ(unsafeWords(file, FileSecrecy::Secret),
            file + " belongs to user 1000, not to root; run: chown root '" + file + "'");
}

TEST_F(OpenChecked, OwnerOfAFolderAbove) {
  ASSERT_EQ(chown("/var/morvand", somebody, 0), 0);
  EXPECT_EQ(unsafeWords(file, FileSecrecy::Secret),
            "/var/morvand belongs to user 1000, not to root; run: chown root '/var/morvand'");
}

TEST_F(OpenChecked, ModesOfAFolderAbove) {
  for (const mode_t mode : {0777U, 0775U, 0757U}) {
    chmod(folder.c_str(), mode);
    char digits[8];
    std::snprintf(digits, sizeof digits, "%04o", mode);
    EXPECT_EQ(unsafeWords(file, FileSecrecy::Secret), "The folder " + folder +
                                                          " can be written by others than its owner (mode " + digits +
                                                          "); run: chmod go-w '" + folder + "'");
  }
  chmod(folder.c_str(), 01777);
  EXPECT_EQ(unsafeWords(file, FileSecrecy::Secret), "opened");
}

TEST_F(OpenChecked, MissingFileOrFolder) {
  EXPECT_EQ(unsafeWords(folder + "/none", FileSecrecy::Secret), "missing");
  EXPECT_EQ(unsafeWords("/var/morvand/none/none", FileSecrecy::Secret), "missing");
}

TEST_F(OpenChecked, LinkAtTheEndIsNotFollowed) {
  fs::create_symlink(file, folder + "/link");
  EXPECT_EQ(unsafeWords(folder + "/link", FileSecrecy::Secret),
            folder + "/link is a symbolic link, where a regular file is expected");
}

TEST_F(OpenChecked, OnlyRegularFiles) {
  ASSERT_EQ(mkfifo((folder + "/pipe").c_str(), 0600), 0);
  ASSERT_EQ(mknod((folder + "/device").c_str(), S_IFCHR | 0600, makedev(1, 5)), 0);
  fs::create_directory(folder + "/folder");
  for (const char* name : {"/pipe", "/device", "/folder", "/."}) {
    EXPECT_EQ(unsafeWords(folder + name, FileSecrecy::Trusted), folder + name + " is not a regular file");
  }
}

TEST_F(OpenChecked, LinkOfRootOnTheWayIsFollowed) {
  fs::create_directory_symlink(folder, "/var/morvand/absolute");
  fs::create_directory_symlink("../morvand/./folder", "/var/morvand/relative");
  EXPECT_EQ(unsafeWords("/var/morvand/absolute/file", FileSecrecy::Secret), "opened");
  EXPECT_EQ(unsafeWords("/var/morvand/relative/file", FileSecrecy::Secret), "opened");
}

TEST_F(OpenChecked, LinkOfSomebodyOnTheWayIsNot) {
  fs::create_directory_symlink(folder, "/var/morvand/link");
  ASSERT_EQ(lchown("/var/morvand/link", somebody, 0), 0);
  EXPECT_EQ(unsafeWords("/var/morvand/link/file", FileSecrecy::Secret),
            "/var/morvand/link belongs to user 1000, not to root; run: chown root '/var/morvand/link'");
}

TEST_F(OpenChecked, FoldersBehindALinkAreJudgedToo) {
  fs::create_directories("/var/morvand/open/inner");
  chmod("/var/morvand/open", 0777);
  writeFile("/var/morvand/open/inner/file", "x", 0600);
  fs::create_directory_symlink("/var/morvand/open/inner", folder + "/link");
  EXPECT_EQ(unsafeWords(folder + "/link/file", FileSecrecy::Secret),
            "The folder /var/morvand/open can be written by others than its owner (mode 0777); run: chmod go-w "
            "'/var/morvand/open'");
}

TEST_F(OpenChecked, LinksInACircle) {
  fs::create_directory_symlink("/var/morvand/b", "/var/morvand/a");
  fs::create_directory_symlink("/var/morvand/a", "/var/morvand/b");
  EXPECT_EQ(unsafeWords("/var/morvand/a/file", FileSecrecy::Secret).rfind("system: Cannot look at /var/morvand/", 0),
            0U);
}

TEST_F(OpenChecked, FileOnTheWay) {
  EXPECT_EQ(unsafeWords(file + "/below", FileSecrecy::Secret), "system: Cannot look at " + file + ": Not a directory");
}

TEST_F(OpenChecked, PathsThatAreNone) {
  EXPECT_EQ(unsafeWords("relative/file", FileSecrecy::Secret), "'relative/file' is not an absolute path");
  EXPECT_EQ(unsafeWords("", FileSecrecy::Secret), "'' is not an absolute path");
  EXPECT_EQ(unsafeWords(file + std::string("\0x", 2), FileSecrecy::Secret).rfind("'" + file, 0), 0U);
  EXPECT_EQ(unsafeWords(file + "/", FileSecrecy::Secret).rfind("system: Cannot look at ", 0), 0U);
}

TEST_F(OpenChecked, DoubleSlashesAndDotsOnTheWay) {
  EXPECT_EQ(unsafeWords("//var/./morvand//folder/../folder/file", FileSecrecy::Secret), "opened");
}

class SecurityCheck : public testing::Test {
 protected:
  void SetUp() override {
    testsupport::cleanPrivateHost();
    writeFile(program, "#!/bin/sh\n", 0755);
  }
  void TearDown() override { testsupport::cleanPrivateHost(); }

  std::string check(const std::string& line, bool allowMissing = false, bool requireRoot = true) {
    return FileSecurityCheck(line, allowMissing, requireRoot, true);
  }
  const std::string program = "/var/morvand/hook";
};

TEST_F(SecurityCheck, SafeProgramGivesTheWholeCommandLine) {
  EXPECT_EQ(check(program), program);
  EXPECT_EQ(check(program + " --all 'two words'"), program + " --all 'two words'");
  EXPECT_EQ(check("/bin/true -x"), "/bin/true -x");
}

TEST_F(SecurityCheck, PathAloneHasNoArguments) {
  EXPECT_EQ(FileSecurityCheck(program, false, true, false), program);
  EXPECT_EQ(FileSecurityCheck(program + " x", false, true, false), "");
  writeFile("/var/morvand/with blank", "", 0755);
  EXPECT_EQ(FileSecurityCheck("/var/morvand/with blank", false, true, false), "/var/morvand/with blank");
  EXPECT_EQ(check("'/var/morvand/with blank' x"), "'/var/morvand/with blank' x");
}

TEST_F(SecurityCheck, NeedsAnAbsolutePath) {
  EXPECT_EQ(check("hook"), "");
  EXPECT_EQ(check("./hook"), "");
  EXPECT_EQ(check(""), "");
  EXPECT_EQ(check("   "), "");
}

TEST_F(SecurityCheck, NeedsARegularExecutableFile) {
  chmod(program.c_str(), 0644);
  EXPECT_EQ(check(program), "");
  EXPECT_EQ(check("/var/morvand"), "");
  chmod(program.c_str(), 0755);
  fs::create_symlink(program, "/var/morvand/link");
  EXPECT_EQ(check("/var/morvand/link"), "");
}

TEST_F(SecurityCheck, OthersMayNotWrite) {
  for (const mode_t mode : {0775U, 0757U, 0777U}) {
    chmod(program.c_str(), mode);
    EXPECT_EQ(check(program), "") << std::oct << mode;
    EXPECT_EQ(check(program, false, false), "") << std::oct << mode;
  }
  chmod(program.c_str(), 0755);
  chmod("/var/morvand", 0777);
  EXPECT_EQ(check(program), "");
}

TEST_F(SecurityCheck, OwnerCountsWhereAsked) {
  ASSERT_EQ(chown(program.c_str(), somebody, somebody), 0);
  EXPECT_EQ(check(program), "");
  EXPECT_EQ(check(program, false, false), program);
  ASSERT_EQ(chown(program.c_str(), 0, 0), 0);
  ASSERT_EQ(chown("/var/morvand", somebody, somebody), 0);
  EXPECT_EQ(check(program), "");
  EXPECT_EQ(check(program, false, false), program);
}

TEST_F(SecurityCheck, MissingProgramWhereAllowed) {
  EXPECT_EQ(check("/var/morvand/none x"), "");
  EXPECT_EQ(check("/var/morvand/none x", true), "/var/morvand/none x");
  EXPECT_EQ(check("/var/morvand/none/none", true), "/var/morvand/none/none");
  chmod("/var/morvand", 0777);
  EXPECT_EQ(check("/var/morvand/none x", true), "");
}

}  // namespace
