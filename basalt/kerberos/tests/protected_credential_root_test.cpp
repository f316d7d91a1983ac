#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "basalt/kerberos/protected_credential.h"
#include "base/include/exceptions.h"
#include "base/include/kerb_wrap.h"
#include "base/include/parameter_names.h"
#include "testsupport/keytab.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

namespace {

namespace fs = std::filesystem;
using lumo::ProtectedCredential;
using lumo::Shredder2;
using testing::HasSubstr;
using testing::StartsWith;
using testsupport::readFile;
using testsupport::writeFile;
using testsupport::writeKeytab;

constexpr char FILE_PATH[] = "/var/morvand/httpproxy.cred";
constexpr char MACHINE[] = "HOST1$@CORP.EXAMPLE.TEST";

std::string secretOf(const ProtectedCredential& credential) {
  Shredder2 secret("of before");
  credential.getSecret(secret);
  return std::string(secret.data(), secret.size());
}

void store(const std::string& user, const std::string& secret) {
  ProtectedCredential credential("httpproxy");
  credential.setCred(user, Shredder2(secret));
  credential.storeToFile();
}

template <class Failure>
std::string loadFailure(bool verifyFile = true) {
  ProtectedCredential credential("httpproxy");
  try {
    credential.loadFromFile(verifyFile);
  } catch (const Failure& failure) {
    EXPECT_FALSE(credential.isLoaded());
    return failure.what();
  }
  return "no failure";
}

template <class Failure>
std::string storeFailure() {
  try {
    store("other", "new");
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "no failure";
}

std::vector<std::string> filesInStateFolder() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator("/var/morvand")) names.push_back(entry.path().filename());
  return names;
}

class ProtectedCredentialTest : public testing::Test {
 protected:
  ProtectedCredentialTest() {
    testsupport::cleanPrivateHost();
    fs::remove("/etc/krb5.conf");
    writeKeytab(lumo::path::MACHINE_KEYTAB, {{MACHINE, 3, 18, "pw"}});
  }
  ~ProtectedCredentialTest() override { testsupport::cleanPrivateHost(); }
};

TEST_F(ProtectedCredentialTest, StartsEmpty) {
  const ProtectedCredential credential("httpproxy");
  EXPECT_FALSE(credential.isLoaded());
  EXPECT_EQ(credential.getUser(), "");
  EXPECT_EQ(credential.getKeyVersion(), 0);
  EXPECT_EQ(credential.getEncType(), -1);
  EXPECT_EQ(secretOf(credential), "");
}

TEST_F(ProtectedCredentialTest, MissingFileLeavesItUnloadedWithoutAnException) {
  ProtectedCredential credential("httpproxy");
  credential.loadFromFile(true);
  EXPECT_FALSE(credential.isLoaded());
  credential.loadFromFile(false);
  EXPECT_FALSE(credential.isLoaded());
}

TEST_F(ProtectedCredentialTest, IsStoredForRootAloneAndReadBack) {
  ProtectedCredential written("httpproxy");
  written.setCred("CORP\\proxy", Shredder2("geheim"));
  written.storeToFile();
  EXPECT_EQ(written.getKeyVersion(), 3);
  EXPECT_EQ(written.getEncType(), 18);
  struct stat status {};
  ASSERT_EQ(stat(FILE_PATH, &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
  EXPECT_EQ(status.st_uid, 0U);
  EXPECT_EQ(readFile(FILE_PATH).find("geheim"), std::string::npos);
  EXPECT_EQ(filesInStateFolder(), std::vector<std::string>{"httpproxy.cred"});

  ProtectedCredential read("httpproxy");
  read.loadFromFile(true);
  EXPECT_TRUE(read.isLoaded());
  EXPECT_EQ(read.getUser(), "CORP\\proxy");
  EXPECT_EQ(secretOf(read), "geheim");
  EXPECT_EQ(read.getKeyVersion(), 3);
  EXPECT_EQ(read.getEncType(), 18);
}

TEST_F(ProtectedCredentialTest, MachineAccountHasAnEmptySecret) {
  store(MACHINE_MARKER, "");
  ProtectedCredential read("httpproxy");
  read.loadFromFile(true);
  EXPECT_TRUE(read.isLoaded());
  EXPECT_EQ(read.getUser(), "S-1-5-18");
  EXPECT_EQ(secretOf(read), "");
}

TEST_F(ProtectedCredentialTest, SecondStoreReplacesTheFirst) {
  store("first", "one");
  store("second", "two");
  ProtectedCredential read("httpproxy");
  read.loadFromFile(true);
  EXPECT_EQ(read.getUser(), "second");
  EXPECT_EQ(secretOf(read), "two");
}

TEST_F(ProtectedCredentialTest, ForeignOwnerFailsTheCheck) {
  store("user", "secret");
  ASSERT_EQ(chown(FILE_PATH, 1000, 0), 0);
  EXPECT_THAT(loadFailure<lumo::FileSecurityException>(), HasSubstr(FILE_PATH));
  EXPECT_EQ(loadFailure<LUMOException>(false), "no failure");
}

TEST_F(ProtectedCredentialTest, ModesForOthersFailTheCheck) {
  store("user", "secret");
  for (const mode_t mode : {0640U, 0604U, 0620U, 0602U, 0660U, 0644U, 0610U}) {
    ASSERT_EQ(chmod(FILE_PATH, mode), 0);
    EXPECT_THAT(loadFailure<lumo::FileSecurityException>(), HasSubstr(FILE_PATH)) << mode;
  }
}

TEST_F(ProtectedCredentialTest, SymbolicLinkFailsTheCheckAndIsNeverFollowed) {
  store("user", "secret");
  fs::rename(FILE_PATH, "/var/morvand/elsewhere");
  fs::create_symlink("/var/morvand/elsewhere", FILE_PATH);
  EXPECT_THAT(loadFailure<lumo::FileSecurityException>(), HasSubstr("symbolic link"));
  EXPECT_THAT(loadFailure<lumo::SystemException>(false), HasSubstr("symbolic link"));
  const std::string before = readFile("/var/morvand/elsewhere");
  store("other", "new");
  EXPECT_FALSE(fs::is_symlink(FILE_PATH));
  EXPECT_EQ(readFile("/var/morvand/elsewhere"), before);
}

TEST_F(ProtectedCredentialTest, FolderThatOthersMayWriteFailsTheCheck) {
  store("user", "secret");
  ASSERT_EQ(chmod("/var/morvand", 0777), 0);
  EXPECT_THAT(loadFailure<lumo::FileSecurityException>(), HasSubstr("/var/morvand"));
  ASSERT_EQ(chmod("/var/morvand", 0755), 0);
  ASSERT_EQ(chown("/var/morvand", 1000, 0), 0);
  EXPECT_THAT(loadFailure<lumo::FileSecurityException>(), HasSubstr("/var/morvand"));
}

TEST_F(ProtectedCredentialTest, FolderOrPipeInPlaceOfTheFileIsRefused) {
  fs::create_directory(FILE_PATH);
  EXPECT_THAT(loadFailure<lumo::FileSecurityException>(), HasSubstr("not a regular file"));
  EXPECT_THAT(loadFailure<lumo::SystemException>(false), HasSubstr("not a regular file"));
  EXPECT_THAT(storeFailure<lumo::SystemException>(), StartsWith(std::string("Cannot write ") + FILE_PATH + ": "));
  fs::remove(FILE_PATH);
  ASSERT_EQ(mkfifo(FILE_PATH, 0600), 0);
  EXPECT_THAT(loadFailure<lumo::FileSecurityException>(), HasSubstr("not a regular file"));
  EXPECT_THAT(loadFailure<lumo::SystemException>(false), HasSubstr("not a regular file"));
}

TEST_F(ProtectedCredentialTest, DamagedFilesAreSaid) {
  store("user", "secret");
  const std::string good = readFile(FILE_PATH);
  writeFile(FILE_PATH, "", 0600);
  EXPECT_THAT(loadFailure<lumo::BadDataException>(), HasSubstr("store the credential again"));
  writeFile(FILE_PATH, "not a credential at all", 0600);
  EXPECT_EQ(loadFailure<lumo::BadDataException>(), "The file holds no stored credential; store the credential again");
  writeFile(FILE_PATH, good.substr(0, good.size() - 1), 0600);
  EXPECT_THAT(loadFailure<lumo::BadDataException>(), HasSubstr("damaged"));
  writeFile(FILE_PATH, std::string(1024 * 1024 + 1, 'M'), 0600);
  EXPECT_EQ(loadFailure<lumo::SystemException>(),
            std::string("Cannot read ") + FILE_PATH + ": it is larger than 1048576 bytes");
}

TEST_F(ProtectedCredentialTest, EndlessFileIsNotReadWhole) {
  writeFile(FILE_PATH, "", 0600);
  fs::resize_file(FILE_PATH, std::uintmax_t{1} << 40);
  EXPECT_THAT(loadFailure<lumo::SystemException>(), HasSubstr("it is larger than"));
}

TEST_F(ProtectedCredentialTest, FailedLoadForgetsThatOneSucceeded) {
  store("user", "secret");
  ProtectedCredential credential("httpproxy");
  credential.loadFromFile(true);
  ASSERT_TRUE(credential.isLoaded());
  writeFile(FILE_PATH, "garbage", 0600);
  EXPECT_THROW(credential.loadFromFile(true), lumo::BadDataException);
  EXPECT_FALSE(credential.isLoaded());
}

TEST_F(ProtectedCredentialTest, SurvivesAChangeOfTheMachinePasswordUntilTheOldKeyGoes) {
  store("user", "secret");
  writeKeytab(lumo::path::MACHINE_KEYTAB, {{MACHINE, 4, 18, "next"}, {MACHINE, 3, 18, "pw"}});
  ProtectedCredential read("httpproxy");
  read.loadFromFile(true);
  EXPECT_EQ(secretOf(read), "secret");
  EXPECT_EQ(read.getKeyVersion(), 3);
  writeKeytab(lumo::path::MACHINE_KEYTAB, {{MACHINE, 4, 18, "next"}});
  EXPECT_EQ(loadFailure<lumo::BadDataException>(),
            "encrypted with key version 3, which the keytab no longer holds; store the credential again");
}

TEST_F(ProtectedCredentialTest, WithoutAMachineKeyTheOldFileStaysWhole) {
  store("user", "secret");
  const std::string before = readFile(FILE_PATH);
  fs::remove(lumo::path::MACHINE_KEYTAB);
  EXPECT_EQ(storeFailure<KerberosException>(),
            "The keytab /etc/krb5.keytab is missing; join the machine to the domain");
  EXPECT_EQ(loadFailure<KerberosException>(), "The keytab /etc/krb5.keytab is missing; join the machine to the domain");
  writeKeytab(lumo::path::MACHINE_KEYTAB, {{"host/host1.corp.example.test@CORP.EXAMPLE.TEST", 3, 18, "pw"}});
  EXPECT_EQ(storeFailure<KerberosException>(),
            "The keytab /etc/krb5.keytab holds no key of this machine's account; join the machine again");
  EXPECT_EQ(readFile(FILE_PATH), before);
}

TEST_F(ProtectedCredentialTest, FullDiskLeavesTheOldFileWhole) {
  testsupport::mountSmall("/var/morvand", 16);
  store("user", "secret");
  const std::string before = readFile(FILE_PATH);
  {
    std::FILE* filler = std::fopen("/var/morvand/filler", "w");
    const std::string block(4096, 'x');
    for (int i = 0; i < 8; ++i) std::fwrite(block.data(), 1, block.size(), filler);
    std::fclose(filler);
  }
  EXPECT_EQ(storeFailure<lumo::SystemException>(),
            std::string("Cannot write ") + FILE_PATH + ": No space left on device");
  EXPECT_EQ(readFile(FILE_PATH), before);
  EXPECT_THAT(filesInStateFolder(), testing::UnorderedElementsAre("httpproxy.cred", "filler"));
}

TEST_F(ProtectedCredentialTest, ReadOnlyAndMissingFoldersAreSaid) {
  store("user", "secret");
  testsupport::mountReadOnly("/var/morvand");
  EXPECT_EQ(storeFailure<lumo::SystemException>(),
            std::string("Cannot write ") + FILE_PATH + ": Read-only file system");
  ProtectedCredential credential("httpproxy");
  try {
    credential.cleanup();
    FAIL() << "no exception";
  } catch (const LUMOException& failure) {
    EXPECT_EQ(failure.what(), std::string("Cannot remove ") + FILE_PATH + ": Read-only file system");
  }
  ProtectedCredential nowhere("no/where");
  try {
    nowhere.storeToFile();
    FAIL() << "no exception";
  } catch (const lumo::SystemException& failure) {
    EXPECT_STREQ(failure.what(), "Cannot write /var/morvand/no/where.cred: No such file or directory");
  }
}

TEST_F(ProtectedCredentialTest, CleanupRemovesTheFileAndDoesNotMindNone) {
  store("user", "secret");
  ProtectedCredential credential("httpproxy");
  credential.cleanup();
  EXPECT_FALSE(testsupport::exists(FILE_PATH));
  EXPECT_NO_THROW(credential.cleanup());
  fs::create_directory(FILE_PATH);
  EXPECT_THROW(credential.cleanup(), LUMOException);
}

TEST_F(ProtectedCredentialTest, KilledWriterLeavesTheOldFileOrTheNew) {
  store("even", "0");
  for (int round = 0; round < 60; ++round) {
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      for (int i = 0;; ++i) store(i % 2 == 0 ? "even" : "odd", i % 2 == 0 ? "0" : std::string(5000, '1'));
    }
    // The moment is what varies: each round kills the writer somewhere else in its loop.
    std::this_thread::sleep_for(std::chrono::microseconds(500 + round * 137));
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    ProtectedCredential read("httpproxy");
    ASSERT_NO_THROW(read.loadFromFile(true));
    ASSERT_TRUE(read.isLoaded());
    ASSERT_EQ(secretOf(read), read.getUser() == "even" ? "0" : std::string(5000, '1'));
  }
  store("even", "0");
  EXPECT_EQ(filesInStateFolder(), std::vector<std::string>{"httpproxy.cred"}) << "left-overs of killed writers stay";
}

TEST_F(ProtectedCredentialTest, ReadersBesideAWriterAlwaysSeeAWholeFile) {
  store("even", "0");
  const pid_t writer = fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    for (int i = 0;; ++i) store(i % 2 == 0 ? "even" : "odd", i % 2 == 0 ? "0" : "1");
  }
  for (int i = 0; i < 300; ++i) {
    ProtectedCredential read("httpproxy");
    EXPECT_NO_THROW(read.loadFromFile(true));
    EXPECT_EQ(secretOf(read), read.getUser() == "even" ? "0" : "1");
  }
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
}

}  // namespace
