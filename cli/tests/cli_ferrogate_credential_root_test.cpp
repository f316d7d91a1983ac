// The credential file through the tool: what is read into the record, and every way in which the file can be bad.
#include <sys/stat.h>
#include <unistd.h>

#include "basalt/kerberos/protected_credential.h"
#include "cli/cli_ferrogate.h"
#include "cli/tests/tool_host.h"

namespace {

using namespace tooltest;

const std::string SETTINGS = "Proxy Server: \nProxy Auth Required: false\nProxy Auth Type: anyauth\n";
constexpr char AES256[] = "AES-256 CTS mode with 96-bit SHA-1 HMAC";

Outcome listed(const std::string& user, int keyVersion, const std::string& type) {
  return {0,
          SETTINGS + "Proxy Account: " + user + "\nCredential Encrypted with Key Version: " +
              std::to_string(keyVersion) + "\nCredential Encryption Type: " + type + "\n",
          ""};
}
Outcome unlisted(int status, const std::string& said = {}) {
  return {status, SETTINGS,
          said + (status == 158 ? "ERROR: No credential data available.\n\n"
                                : "ERROR: Failed to get credential data.\n\n")};
}

class Credential : public JoinedHost {
 protected:
  void store(const std::string& user, const std::string& password) {
    ASSERT_EQ(tool({"-S", "-u", user, "-p", password, "-s", "h:1"}), (Outcome{0, "", SET_DONE}));
    unlink(CONFIGURATION);
  }
};

TEST_F(Credential, MissingFileSaysNothingButItsCode) {
  EXPECT_EQ(tool({"-L"}), unlisted(158));
  EXPECT_EQ(tool({"-L", "-V"}), unlisted(158));
}

TEST_F(Credential, MaskDecidesWhatIsCopied) {
  store("bob", "s3cret");
  CommandOptions user;
  user.password = lumo::Shredder2("untouched");
  EXPECT_EQ(getCredential(user, CredentialUser), 0);
  EXPECT_EQ(user.username, "bob");
  EXPECT_EQ(user.password, lumo::Shredder2("untouched"));
  EXPECT_EQ(user.keyVersion, 0);
  CommandOptions password;
  password.username = "untouched";
  EXPECT_EQ(getCredential(password, CredentialPassword), 0);
  EXPECT_EQ(password.username, "untouched");
  EXPECT_EQ(password.password, lumo::Shredder2("s3cret"));
  CommandOptions key;
  EXPECT_EQ(getCredential(key, CredentialKey), 0);
  EXPECT_EQ(key.username, "");
  EXPECT_TRUE(key.password.empty());
  EXPECT_EQ(key.keyVersion, 3);
  EXPECT_EQ(key.encType, 18);
}

TEST_F(Credential, OfTheMachineHasTheMarkerAndNoPassword) {
  ASSERT_EQ(tool({"-S", "-m"}).status, 0);
  CommandOptions record;
  record.password = lumo::Shredder2("earlier");
  EXPECT_EQ(getCredential(record, CredentialUser | CredentialPassword), 0);
  EXPECT_EQ(record.username, "S-1-5-18");
  EXPECT_TRUE(record.password.empty());
  EXPECT_EQ(tool({"-C", "-u"}), (Outcome{0, "", "S-1-5-18"}));
  EXPECT_EQ(tool({"-C", "-p"}), (Outcome{0, "", ""}));
}

TEST_F(Credential, AnyBytesComeBackAsTheyWere) {
  const char* const odd[] = {"p%41%s%n",         "a:b:c", "'\"`$(x)\\", "p\xC3\xA4ss\xE2\x82\xAC", "\xFF\xFE",
                             " lead and trail ", "-V",    "line\nbreak"};
  for (const char* text : odd) {
    EXPECT_EQ(tool({"-S", "-u", text, "-p", text}).status, 0) << text;
    EXPECT_EQ(tool({"-C", "-u"}), (Outcome{0, "", text}));
    EXPECT_EQ(tool({"-C", "-p"}), (Outcome{0, "", text}));
  }
  const std::string longText(60000, 'x');
  EXPECT_EQ(tool({"-S", "-u", "bob", "-p", longText}).status, 0);
  EXPECT_EQ(tool({"-C", "-p"}), (Outcome{0, "", longText}));
}

TEST_F(Credential, TooLongForItsFileIsRefusedAndTheOldOneStays) {
  store("bob", "s3cret");
  CommandOptions record;
  record.verbose = true;
  record.username = std::string(2 * 1024 * 1024, 'x');
  testing::internal::CaptureStderr();
  EXPECT_EQ(storeCredential(record), 160);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "The credential is too long: user and password together may have 1048064 bytes.\n");
  EXPECT_EQ(tool({"-L"}), listed("bob", 3, AES256));
}

// Runs --list plain and verbose: the plain one says the code's text alone, the verbose one first what is wrong.
void expectInsecure(const std::string& problem) {
  EXPECT_EQ(tool({"-L"}), unlisted(158)) << problem;
  EXPECT_EQ(tool({"-L", "-V"}), unlisted(158, "A file security problem: " + problem + "\n"));
  CommandOptions record;
  EXPECT_EQ(getCredential(record, 7), 158);
}

TEST_F(Credential, FileOfAnotherOwnerIsNotTrusted) {
  store("bob", "s3cret");
  ASSERT_EQ(chown(CREDENTIAL, 1000, 0), 0);
  expectInsecure(
      "/var/morvand/httpproxy.cred belongs to user 1000, not to root; run: chown root '/var/morvand/httpproxy.cred'");
}

TEST_F(Credential, FileOpenToOthersIsNotTrusted) {
  store("bob", "s3cret");
  for (const mode_t mode : {0604U, 0602U, 0640U, 0620U, 0660U, 0666U, 0777U}) {
    ASSERT_EQ(chmod(CREDENTIAL, mode), 0);
    EXPECT_EQ(tool({"-L"}), unlisted(158)) << mode;
  }
  ASSERT_EQ(chmod(CREDENTIAL, 0640), 0);
  expectInsecure(
      "/var/morvand/httpproxy.cred can be used by others than its owner (mode 0640); run: chmod go-rwx "
      "'/var/morvand/httpproxy.cred'");
}

TEST_F(Credential, SymbolicLinkIsNotFollowed) {
  store("bob", "s3cret");
  ASSERT_EQ(rename(CREDENTIAL, "/var/morvand/real.cred"), 0);
  ASSERT_EQ(symlink("/var/morvand/real.cred", CREDENTIAL), 0);
  expectInsecure("/var/morvand/httpproxy.cred is a symbolic link, where a regular file is expected");
}

TEST_F(Credential, FolderInItsPlaceIsNotTrusted) {
  ASSERT_EQ(mkdir(CREDENTIAL, 0700), 0);
  expectInsecure("/var/morvand/httpproxy.cred is not a regular file");
}

TEST_F(Credential, PipeInItsPlaceIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(CREDENTIAL, 0600), 0);
  expectInsecure("/var/morvand/httpproxy.cred is not a regular file");
}

TEST_F(Credential, FileInAFolderOpenToOthersIsNotTrusted) {
  store("bob", "s3cret");
  ASSERT_EQ(chmod("/var/morvand", 0777), 0);
  CommandOptions record;
  record.verbose = true;
  testing::internal::CaptureStderr();
  EXPECT_EQ(getCredential(record, 7), 158);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "A file security problem: The folder /var/morvand can be written by others than its owner (mode 0777); "
            "run: chmod go-w '/var/morvand'\n");
}

TEST_F(Credential, EveryCutAndEveryFlippedBitIsAFailureAndNeverACrash) {
  store("bob", "s3cret");
  const std::string good = testsupport::readFile(CREDENTIAL);
  CommandOptions record;
  for (size_t length = 0; length < good.size(); ++length) {
    testsupport::writeFile(CREDENTIAL, good.substr(0, length), 0600);
    ASSERT_EQ(getCredential(record, 7), 159) << "cut at " << length;
  }
  for (size_t at = 0; at < good.size(); ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string bad = good;
      bad[at] = static_cast<char>(bad[at] ^ (1 << bit));
      testsupport::writeFile(CREDENTIAL, bad, 0600);
      ASSERT_EQ(getCredential(record, 7), 159) << "bit " << bit << " of byte " << at;
    }
  }
  testsupport::writeFile(CREDENTIAL, good + "x", 0600);
  EXPECT_EQ(getCredential(record, 7), 159);
  EXPECT_EQ(record.username, "");
  EXPECT_TRUE(record.password.empty());
  testsupport::writeFile(CREDENTIAL, good, 0600);
  EXPECT_EQ(getCredential(record, 7), 0);
}

TEST_F(Credential, DamageIsToldToThoseWhoAsk) {
  store("bob", "s3cret");
  const std::string good = testsupport::readFile(CREDENTIAL);
  const std::string noCredential = "The file holds no stored credential; store the credential again.\n";
  const std::string damaged = "The stored credential is damaged or another machine's; store the credential again.\n";
  struct Row {
    std::string content;
    std::string said;
  };
  std::string flipped = good;
  flipped.back() = static_cast<char>(flipped.back() ^ 1);
  const Row rows[] = {{"", damaged},
                      {std::string(good.size(), 'n'), noCredential},
                      {good.substr(0, 12), damaged},
                      {good.substr(0, good.size() - 1), damaged},
                      {flipped, damaged},
                      {good + "x", damaged}};
  for (const auto& row : rows) {
    testsupport::writeFile(CREDENTIAL, row.content, 0600);
    EXPECT_EQ(tool({"-L"}), unlisted(159));
    EXPECT_EQ(tool({"-L", "-V"}), unlisted(159, row.said));
  }
  testsupport::writeFile(CREDENTIAL, std::string(10 * 1024 * 1024, 'n'), 0600);
  const Outcome huge = tool({"-L", "-V"});
  EXPECT_EQ(huge.status, 159);
  EXPECT_NE(huge.err.find("it is larger than"), std::string::npos) << huge;
}

TEST_F(Credential, RotatedKeysOpenItAsLongAsTheKeytabHoldsThem) {
  store("bob", "s3cret");
  testsupport::writeKeytab(KEYTAB, {{"HOST1$@CORP.EXAMPLE.TEST", 4, 18, "new"}, {"HOST1$@CORP.EXAMPLE.TEST", 3, 18}});
  EXPECT_EQ(tool({"-L"}), listed("bob", 3, AES256));
  join(4, "new");
  EXPECT_EQ(
      tool({"-L", "-V"}),
      unlisted(159, "encrypted with key version 3, which the keytab no longer holds; store the credential again.\n"));
  join(3, "another machine's");
  EXPECT_EQ(tool({"-L", "-V"}),
            unlisted(159, "The stored credential is damaged or another machine's; store the credential again.\n"));
  store("bob", "s3cret");
  EXPECT_EQ(tool({"-L"}), listed("bob", 3, AES256));
}

TEST_F(Credential, WithoutAKeytabCanBeNeitherReadNorStored) {
  store("bob", "s3cret");
  // Joined by the settings store alone.
  ASSERT_EQ(mkdir("/var/morvand/kset", 0700), 0);
  testsupport::writeFile("/var/morvand/kset/domain.name", "corp.example.test", 0600);
  ASSERT_EQ(unlink(KEYTAB), 0);
  EXPECT_EQ(tool({"-L"}), unlisted(159));
  const std::string old = testsupport::readFile(CREDENTIAL);
  EXPECT_EQ(tool({"-S", "-u", "eve", "-p", "x", "-s", "h:1"}), error(160, "Failed to set credential data"));
  const Outcome told = tool({"-S", "-u", "eve", "-p", "x", "-V"});
  EXPECT_EQ(told.status, 160);
  EXPECT_NE(told.err.find(KEYTAB), std::string::npos) << told;
  EXPECT_EQ(testsupport::readFile(CREDENTIAL), old);
  EXPECT_FALSE(testsupport::exists(CONFIGURATION));
}

TEST_F(Credential, EncryptionTypeIsNamed) {
  testsupport::writeKeytab(KEYTAB, {{"HOST1$@CORP.EXAMPLE.TEST", 7, 17}});
  store("bob", "x");
  EXPECT_EQ(tool({"-L"}), listed("bob", 7, "AES-128 CTS mode with 96-bit SHA-1 HMAC"));
}

TEST_F(Credential, IsForRootAlone) {
  store("bob", "x");
  EXPECT_EQ(testsupport::modeOf(CREDENTIAL) & 07777U, 0600U);
  const std::string raw = testsupport::readFile(CREDENTIAL);
  EXPECT_EQ(raw.find("bob"), std::string::npos);
}

}  // namespace
