// What the log says at its default threshold of a credential that cannot be read, or that is badly kept.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "basalt/kerberos/protected_credential.h"
#include "base/include/exceptions.h"
#include "base/include/parameter_names.h"
#include "testsupport/keytab.h"
#include "testsupport/log_capture.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::writeFile;
using testsupport::writeKeytab;
using Texts = std::vector<std::string>;

constexpr char FILE_PATH[] = "/var/morvand/httpproxy.cred";
constexpr char MACHINE[] = "HOST1$@CORP.EXAMPLE.TEST";
constexpr char DAMAGED[] =
    "WARN Cannot read the credential in /var/morvand/httpproxy.cred: The stored credential is damaged or another "
    "machine's; store the credential again";

class CredentialReportTest : public testing::Test {
 protected:
  CredentialReportTest() {
    testsupport::cleanPrivateHost();
    std::filesystem::remove("/etc/krb5.conf");
    writeKeytab(lumo::path::MACHINE_KEYTAB, {{MACHINE, 3, 18, "pw"}});
  }
  ~CredentialReportTest() override { testsupport::cleanPrivateHost(); }

  static void store(const std::string& name = "httpproxy") {
    lumo::ProtectedCredential credential(name);
    credential.setCred("user", lumo::Shredder2("secret"));
    credential.storeToFile();
  }
  static void load(const std::string& name = "httpproxy") {
    lumo::ProtectedCredential credential(name);
    try {
      credential.loadFromFile(true);
    } catch (const LUMOException&) {
      // What is thrown is compared elsewhere; here it is the log.
    }
  }
  Texts said() { return log.newTexts("base.credential"); }

  testsupport::LogCapture log{"INFO"};
};

// One test: each cause is said once in a process.
TEST_F(CredentialReportTest, EachCauseIsSaidOnce) {
  store();
  load();
  EXPECT_THAT(said(), IsEmpty());
  const std::string whole = testsupport::readFile(FILE_PATH);

  writeFile(FILE_PATH, whole.substr(0, 7), 0600);
  load();
  EXPECT_THAT(said(), ElementsAre("WARN The stored credential cannot be opened: it ends within its header", DAMAGED));
  load();
  EXPECT_THAT(said(), IsEmpty());

  std::string changed = whole;
  changed.back() = static_cast<char>(changed.back() ^ 1);
  writeFile(FILE_PATH, changed, 0600);
  load();
  EXPECT_THAT(said(), ElementsAre("WARN The stored credential cannot be opened: the keytab's key of version 3 and "
                                  "encryption type 18 does not fit: it is another machine's or of another join, or the "
                                  "file was changed"));

  writeFile(FILE_PATH, whole, 0640);
  load();
  EXPECT_THAT(said(), ElementsAre("WARN Cannot read the credential in /var/morvand/httpproxy.cred: "
                                  "/var/morvand/httpproxy.cred can be used by others than its owner (mode 0640); run: "
                                  "chmod go-rwx '/var/morvand/httpproxy.cred'"));

  writeFile(FILE_PATH, whole, 0600);
  writeKeytab(lumo::path::MACHINE_KEYTAB, {{MACHINE, 4, 18, "next"}});
  load();
  EXPECT_THAT(said(), ElementsAre("WARN Cannot read the credential in /var/morvand/httpproxy.cred: encrypted with key "
                                  "version 3, which the keytab no longer holds; store the credential again"));
  std::filesystem::remove(lumo::path::MACHINE_KEYTAB);
  load();
  EXPECT_THAT(said(), ElementsAre("WARN Cannot read the credential in /var/morvand/httpproxy.cred: The keytab "
                                  "/etc/krb5.keytab is missing; join the machine to the domain"));
}

TEST_F(CredentialReportTest, WeakEncryptionIsSaidWhenItIsStoredAndWhenItIsRead) {
  const auto weak = [](const std::string& name, const std::string& type) {
    return Texts{"WARN The credential in /var/morvand/" + name + ".cred is encrypted with " + type +
                 ", which is weak; give the machine account AES keys and store the credential again"};
  };
  store("strong");
  load("strong");
  EXPECT_THAT(said(), IsEmpty());
  writeKeytab(lumo::path::MACHINE_KEYTAB, {{MACHINE, 3, 23, "pw"}});
  store("stored");
  EXPECT_EQ(said(), weak("stored", "ArcFour with HMAC/md5"));
  load("stored");
  EXPECT_THAT(said(), IsEmpty());
  std::filesystem::rename("/var/morvand/stored.cred", "/var/morvand/read.cred");
  load("read");
  EXPECT_EQ(said(), weak("read", "ArcFour with HMAC/md5"));
}

}  // namespace
