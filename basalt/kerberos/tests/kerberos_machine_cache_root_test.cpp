#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "basalt/kerberos/kerberos_credentials.h"
#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/kerberos/kerberos_machine_cache.h"
#include "base/include/kerb_wrap.h"
#include "base/include/parameter_names.h"
#include "testsupport/fake_credential_source.h"
#include "testsupport/keytab.h"
#include "testsupport/log_capture.h"
#include "testsupport/manual_clock.h"
#include "testsupport/mit_kdc.h"
#include "testsupport/private_host.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testsupport::readFile;
using testsupport::writeFile;

constexpr char CACHE[] = "/var/morvand/machine.ccache";
constexpr char NAME[] = "FILE:/var/morvand/machine.ccache";
constexpr char KEYTAB[] = "/etc/krb5.keytab";

// Owner, and end of the ticket-granting ticket, of a cache file.
struct CacheContent {
  std::string owner;
  std::chrono::system_clock::time_point end;
};

CacheContent contentOf(const std::string& name) {
  const lumo::BareKerberosContext context;
  lumo::KrbCCache cache(context.get());
  lumo::KrbPrincipal owner(context.get());
  CacheContent content;
  if (krb5_cc_resolve(context.get(), name.c_str(), cache.out()) != 0 ||
      krb5_cc_get_principal(context.get(), cache.get(), owner.out()) != 0) {
    return content;
  }
  content.owner = lumo::principalText(context.get(), owner.get());
  krb5_cc_cursor cursor = nullptr;
  EXPECT_EQ(krb5_cc_start_seq_get(context.get(), cache.get(), &cursor), 0);
  lumo::KrbCreds creds(context.get());
  if (krb5_cc_next_cred(context.get(), cache.get(), &cursor, creds.out()) == 0) {
    content.end = std::chrono::system_clock::from_time_t(static_cast<unsigned>(creds->times.endtime));
  }
  krb5_cc_end_seq_get(context.get(), cache.get(), &cursor);
  return content;
}

ino_t fileNumber() {
  struct stat status {};
  EXPECT_EQ(lstat(CACHE, &status), 0);
  return status.st_ino;
}

int count(const std::string& text, const std::string& what) {
  int found = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++found;
  return found;
}

std::string failure() {
  try {
    ADHelper::GetMachineCredCache();
  } catch (const LUMOException& thrown) {
    return thrown.what();
  }
  return "no failure";
}

// Without a KDC: what is wrong before one is asked.
class MachineCacheWithoutKdcTest : public testing::Test {
 protected:
  MachineCacheWithoutKdcTest() { testsupport::cleanPrivateHost(); }
  ~MachineCacheWithoutKdcTest() override { testsupport::cleanPrivateHost(); }
};

class MachineCacheTest : public testing::Test {
 protected:
  MachineCacheTest() {
    testsupport::cleanPrivateHost();
    kdc.addWithKeytab("HOST1$", KEYTAB);
  }
  ~MachineCacheTest() override { testsupport::cleanPrivateHost(); }

  int ticketsIssued() const { return count(kdc.log(), "ISSUE"); }

  // A cache file with a ticket of nobody's making; true when the next call replaces it by a real one.
  bool isReplaced() {
    const int before = ticketsIssued();
    EXPECT_EQ(ADHelper::GetMachineCredCache(), NAME);
    struct stat status {};
    EXPECT_EQ(lstat(CACHE, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
    EXPECT_EQ(status.st_uid, 0U);
    EXPECT_EQ(contentOf(NAME).owner, "HOST1$@CORP.EXAMPLE.TEST");
    return ticketsIssued() == before + 1;
  }

  testsupport::MitKdc kdc;
};

TEST_F(MachineCacheWithoutKdcTest, KeytabThatIsMissingDamagedOrOfAnotherAccountIsSaid) {
  EXPECT_EQ(failure(), "The keytab /etc/krb5.keytab is missing; join the machine to the domain");
  writeFile(KEYTAB, "no keytab");
  EXPECT_THAT(failure(), HasSubstr("Cannot read the keytab /etc/krb5.keytab: "));
  testsupport::writeKeytab(KEYTAB, {{"host/host1.corp.example.test@CORP.EXAMPLE.TEST", 1, 18, "x"}});
  EXPECT_EQ(failure(), "The keytab /etc/krb5.keytab holds no key of this machine's account; join the machine again");
  EXPECT_TRUE(fs::is_empty("/var/morvand"));
}

TEST_F(MachineCacheWithoutKdcTest, RealmWithoutAKdcIsSaid) {
  writeFile("/etc/krb5.conf", "[libdefaults]\n dns_lookup_kdc = false\n");
  testsupport::writeKeytab(KEYTAB, {{"HOST1$@NOWHERE.TEST", 1, 18, "x"}});
  EXPECT_EQ(failure(),
            "Cannot get a ticket for the machine account HOST1$@NOWHERE.TEST: Cannot find KDC for realm "
            "\"NOWHERE.TEST\"; check the network and the name service");
  fs::remove("/etc/krb5.conf");
}

TEST_F(MachineCacheTest, IsMadeFromTheKeytabForRootAlone) {
  EXPECT_TRUE(isReplaced());
  EXPECT_GT(contentOf(NAME).end, std::chrono::system_clock::now() + 9h);
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator("/var/morvand")) names.push_back(entry.path().filename());
  EXPECT_THAT(names, testing::UnorderedElementsAre("machine.ccache", "machine.ccache.lock"));
  lumo::GSSCredential credential;
  EXPECT_NE(credential.acquireCred(NAME), GSS_C_NO_CREDENTIAL);
}

TEST_F(MachineCacheTest, IsKeptWhileItHasTenMinutesLeftAndRenewedThen) {
  ADHelper::GetMachineCredCache();
  testsupport::ManualClock clock;
  const auto end = contentOf(NAME).end;
  const ino_t first = fileNumber();
  clock.set(end - 10min);
  ADHelper::GetMachineCredCache();
  EXPECT_EQ(fileNumber(), first);
  EXPECT_EQ(ticketsIssued(), 1);
  clock.set(end - 10min + 1s);
  ADHelper::GetMachineCredCache();
  EXPECT_NE(fileNumber(), first);
  EXPECT_EQ(ticketsIssued(), 2);
  clock.set(end + 1h);
  ADHelper::GetMachineCredCache();
  EXPECT_EQ(ticketsIssued(), 3);
}

TEST_F(MachineCacheTest, TicketFromTheFutureIsReplacedAfterTheClockWasSetBack) {
  ADHelper::GetMachineCredCache();
  testsupport::ManualClock clock;
  clock.set(clock.now() - 4min);
  ADHelper::GetMachineCredCache();
  EXPECT_EQ(ticketsIssued(), 1);
  clock.set(clock.now() - 24h);
  ADHelper::GetMachineCredCache();
  EXPECT_EQ(ticketsIssued(), 2);
}

TEST_F(MachineCacheTest, FilesThatAreNoGoodAreReplaced) {
  EXPECT_TRUE(isReplaced());
  EXPECT_FALSE(isReplaced());
  const std::string good = readFile(CACHE);

  writeFile(CACHE, "", 0600);
  EXPECT_TRUE(isReplaced());
  writeFile(CACHE, "no cache at all", 0600);
  EXPECT_TRUE(isReplaced());
  writeFile(CACHE, good.substr(0, good.size() / 2), 0600);
  EXPECT_TRUE(isReplaced());
  ASSERT_EQ(chown(CACHE, 1000, 1000), 0);
  EXPECT_TRUE(isReplaced());
  ASSERT_EQ(chmod(CACHE, 0640), 0);
  EXPECT_TRUE(isReplaced());
  fs::remove(CACHE);
  ASSERT_EQ(mkfifo(CACHE, 0600), 0);
  EXPECT_TRUE(isReplaced());

  fs::rename(CACHE, "/var/morvand/elsewhere");
  fs::create_symlink("/var/morvand/elsewhere", CACHE);
  const std::string target = readFile("/var/morvand/elsewhere");
  EXPECT_TRUE(isReplaced());
  EXPECT_EQ(readFile("/var/morvand/elsewhere"), target);
}

TEST_F(MachineCacheTest, CacheOfAnotherAccountIsReplaced) {
  kdc.addWithKeytab("OTHER$", "/run/other.keytab");
  lumo::machineCredentialCache("/run/other.keytab", CACHE);
  EXPECT_EQ(contentOf(NAME).owner, "OTHER$@CORP.EXAMPLE.TEST");
  EXPECT_TRUE(isReplaced());
}

TEST_F(MachineCacheTest, FolderInItsPlaceIsAnError) {
  fs::create_directory(CACHE);
  EXPECT_THAT(failure(), testing::StartsWith("Cannot write /var/morvand/machine.ccache: "));
}

TEST_F(MachineCacheTest, KdcThatIsDownIsSaid) {
  kdc.stop();
  EXPECT_EQ(failure(),
            "Cannot get a ticket for the machine account HOST1$@CORP.EXAMPLE.TEST: Cannot contact any KDC for realm "
            "'CORP.EXAMPLE.TEST'; check the network and the name service");
  EXPECT_FALSE(testsupport::exists(CACHE));
}

TEST_F(MachineCacheTest, TicketIsUsedToItsLastMinuteWhileItCannotBeRenewed) {
  ADHelper::GetMachineCredCache();
  kdc.stop();
  testsupport::ManualClock clock;
  const testsupport::LogCapture log{"TRACE"};
  const auto end = contentOf(NAME).end;
  clock.set(end - 5min);
  EXPECT_EQ(ADHelper::GetMachineCredCache(), NAME);
  EXPECT_THAT(log.text(), HasSubstr("WARN base.kerberos.wrap: Using the machine's ticket for its last 300 seconds: "
                                    "Cannot get a ticket for the machine account"));
  clock.set(end - 59s);
  EXPECT_THAT(failure(), HasSubstr("Cannot contact any KDC"));
}

TEST_F(MachineCacheTest, NewKeyInTheDomainThatTheKeytabDoesNotHoldIsSaid) {
  kdc.rotateKey("HOST1$");
  EXPECT_EQ(failure(),
            "Cannot get a ticket for the machine account HOST1$@CORP.EXAMPLE.TEST: Preauthentication failed; join the "
            "machine again");
}

TEST_F(MachineCacheTest, NewKeyInDomainAndKeytabServes) {
  EXPECT_TRUE(isReplaced());
  kdc.rotateKey("HOST1$", KEYTAB);
  EXPECT_FALSE(isReplaced());  // the ticket outlives the key that it was got with
  fs::remove(CACHE);
  EXPECT_TRUE(isReplaced());
}

TEST_F(MachineCacheTest, DeletedAccountIsSaid) {
  kdc.admin({"delprinc", "-force", "HOST1$"});
  EXPECT_EQ(failure(),
            "Cannot get a ticket for the machine account HOST1$@CORP.EXAMPLE.TEST: Client "
            "'HOST1$@CORP.EXAMPLE.TEST' not found in Kerberos database; join the machine again");
}

// The machine's key is good; it is this host that rules it out.
TEST_F(MachineCacheTest, TypesThatTheHostDoesNotPermitAreNoReasonToJoinAgain) {
  std::string conf = readFile("/etc/krb5.conf");
  conf.insert(conf.find('\n') + 1, " permitted_enctypes = camellia256-cts-cmac\n");
  writeFile("/etc/krb5.conf", conf);
  const std::string words = failure();
  EXPECT_THAT(words, testing::StartsWith("Cannot get a ticket for the machine account HOST1$@CORP.EXAMPLE.TEST: "));
  EXPECT_THAT(words, testing::EndsWith("; permit its types (permitted_enctypes in krb5.conf)"));
}

TEST_F(MachineCacheTest, TypesThatTheRealmHasNoKeysOfAreOne) {
  // Only a key that the realm does not know stands in the keytab.
  testsupport::writeKeytab(KEYTAB, {{"HOST1$@CORP.EXAMPLE.TEST", 1, 26, "pw"}});
  EXPECT_THAT(failure(), testing::EndsWith("; join the machine again"));
}

TEST_F(MachineCacheTest, FullReadOnlyAndMissingFoldersAreSaid) {
  testsupport::mountSmall("/var/morvand", 4);
  writeFile("/var/morvand/filler", std::string(4096, 'x'));
  EXPECT_EQ(failure(), "Cannot write /var/morvand/machine.ccache: No space left on device");
  EXPECT_FALSE(testsupport::exists(CACHE));
  testsupport::cleanPrivateHost();
  kdc.addWithKeytab("HOST2$", KEYTAB);
  testsupport::mountReadOnly("/var/morvand");
  EXPECT_EQ(failure(), "Cannot lock /var/morvand/machine.ccache.lock: Read-only file system");
  EXPECT_THROW(lumo::machineCredentialCache(KEYTAB, "/var/morvand/no/machine.ccache"), lumo::SystemException);
}

TEST_F(MachineCacheTest, LockThatIsALinkIsNotFollowed) {
  writeFile("/var/morvand/victim", "precious");
  fs::create_symlink("/var/morvand/victim", "/var/morvand/machine.ccache.lock");
  EXPECT_EQ(failure(), "Cannot lock /var/morvand/machine.ccache.lock: it is a symbolic link");
  EXPECT_EQ(readFile("/var/morvand/victim"), "precious");
}

TEST_F(MachineCacheTest, OneOfManyProcessesAsksTheKdcAndAllUseItsTicket) {
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(failure() == "no failure" && contentOf(NAME).owner == "HOST1$@CORP.EXAMPLE.TEST" ? 0 : 1);
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(ticketsIssued(), 1);
}

TEST_F(MachineCacheTest, WaitsForTheProcessThatRenews) {
  const int lock = open("/var/morvand/machine.ccache.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(lock);
    _exit(failure() == "no failure" ? 0 : 1);
  }
  // The one that holds the lock finishes its work; the one that waits then finds it and asks nobody.
  lumo::machineCredentialCache(KEYTAB, "/var/morvand/other.ccache");
  fs::rename("/var/morvand/other.ccache", CACHE);
  flock(lock, LOCK_UN);
  close(lock);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ticketsIssued(), 1);
}

TEST_F(MachineCacheTest, DamagedKerberosConfigurationIsSurvivedAsFarAsTheCacheLasts) {
  EXPECT_TRUE(isReplaced());
  writeFile("/etc/krb5.conf", "[libdefaults]\n broken\n");
  EXPECT_FALSE(isReplaced());
  fs::remove("/etc/krb5.conf.bad");
}

}  // namespace
