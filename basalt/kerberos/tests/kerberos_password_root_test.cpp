// How often a password is sent, and to whom, counted in the log of a real KDC.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include "basalt/kerberos/kerberos_credentials.h"
#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/kerberos/kerberos_refusals.h"
#include "testsupport/manual_clock.h"
#include "testsupport/mit_kdc.h"
#include "testsupport/private_host.h"

namespace {

constexpr char REALM[] = "CORP.EXAMPLE.TEST";
constexpr char AGAIN[] = " (refused a moment ago; the same password is not sent again)";

int count(const std::string& text, const std::string& what) {
  int found = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++found;
  return found;
}

// A KDC's address where packets are taken and nothing is ever said.
class SilentKdc {
 public:
  explicit SilentKdc(const char* address) {
    sockaddr_in where{};
    where.sin_family = AF_INET;
    where.sin_port = htons(88);
    inet_pton(AF_INET, address, &where.sin_addr);
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
      const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
      EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&where), sizeof where), 0);
      EXPECT_EQ(type == SOCK_STREAM ? listen(fd, 8) : 0, 0);
      m_sockets.push_back(fd);
    }
  }
  ~SilentKdc() {
    for (const int fd : m_sockets) close(fd);
  }
  SilentKdc(const SilentKdc&) = delete;
  SilentKdc& operator=(const SilentKdc&) = delete;

 private:
  std::vector<int> m_sockets;
};

class GuessTest : public testing::Test {
 protected:
  GuessTest() { kdc.addUser("alice", "right"); }
  ~GuessTest() override { testsupport::cleanPrivateHost(); }

  // The realm's KDCs as the host's configuration names them.
  static void configure(const std::string& servers) {
    testsupport::writeFile("/etc/krb5.conf", std::string("[libdefaults]\n default_realm = ") + REALM +
                                                 "\n dns_lookup_kdc = false\n rdns = false\n[realms]\n " + REALM +
                                                 " = {\n" + servers + " }\n");
  }
  krb5_error_code ask(const std::string& user, const std::string& password) {
    const KerberosContext context;
    lumo::KrbPrincipal principal(context.get());
    EXPECT_EQ(krb5_parse_name(context.get(), user.c_str(), principal.out()), 0);
    lumo::KrbCreds creds(context.get());
    return getCredentials(context.get(), principal.get(), lumo::Shredder(lumo::Shredder2(password)), creds.out(), &text,
                          nullptr, nullptr, REALM, 3600, nullptr);
  }
  // Guesses that the KDC has judged wrong, and requests of any kind.
  int guesses() const { return count(kdc.log(), "PREAUTH_FAILED: "); }
  int requests() const { return count(kdc.log(), "AS_REQ ("); }

  testsupport::MitKdc kdc;
  std::string text;
};

// The library's own call sends a refused password to the primary KDC as well.
TEST_F(GuessTest, WrongPasswordIsOneGuessAlsoWhereThereIsAPrimaryKdc) {
  configure("  kdc = 127.0.0.1\n  primary_kdc = localhost\n  master_kdc = localhost\n");
  EXPECT_EQ(ask("alice", "wrong-1"), static_cast<krb5_error_code>(KRB5KDC_ERR_PREAUTH_FAILED));
  EXPECT_EQ(text, "Preauthentication failed");
  EXPECT_EQ(guesses(), 1);
  EXPECT_EQ(requests(), 2) << "one for the salt, one guess";
}

TEST_F(GuessTest, KdcThatIsSilentIsFollowedByTheNext) {
  const SilentKdc silent("127.0.1.1");
  configure("  kdc = 127.0.1.1\n  kdc = 127.0.0.1\n");
  EXPECT_EQ(ask("alice", "right"), 0) << text;
  EXPECT_EQ(ask("alice", "wrong-2"), static_cast<krb5_error_code>(KRB5KDC_ERR_PREAUTH_FAILED));
  EXPECT_EQ(guesses(), 1);
}

TEST_F(GuessTest, PasswordThatWasJustRefusedIsNotSentAgain) {
  testsupport::ManualClock clock;
  EXPECT_EQ(ask("alice", "wrong-3"), static_cast<krb5_error_code>(KRB5KDC_ERR_PREAUTH_FAILED));
  const int before = requests();
  EXPECT_EQ(ask("alice", "wrong-3"), static_cast<krb5_error_code>(KRB5KDC_ERR_PREAUTH_FAILED));
  EXPECT_EQ(text, std::string("Preauthentication failed") + AGAIN);
  EXPECT_EQ(requests(), before);

  EXPECT_EQ(ask("alice", "wrong-4"), static_cast<krb5_error_code>(KRB5KDC_ERR_PREAUTH_FAILED));
  EXPECT_EQ(text, "Preauthentication failed") << "another password is another guess";
  EXPECT_EQ(guesses(), 2);
  EXPECT_EQ(ask("alice", "right"), 0) << text;
  EXPECT_EQ(ask("bob", "wrong-3"), static_cast<krb5_error_code>(KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN));

  clock.advance(lumo::PasswordRefusals::MEMORY - std::chrono::milliseconds(1));
  ask("alice", "wrong-3");
  EXPECT_EQ(guesses(), 2);
  clock.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(ask("alice", "wrong-3"), static_cast<krb5_error_code>(KRB5KDC_ERR_PREAUTH_FAILED));
  EXPECT_EQ(text, "Preauthentication failed");
  EXPECT_EQ(guesses(), 3) << "the password may have been put right in the directory";
}

TEST_F(GuessTest, LockedAndExpiredAccountsAreRememberedTooAndNoOtherFailure) {
  kdc.addUser("locked", "right", {"-allow_tix"});
  kdc.addUser("old", "right", {"-pwexpire", "2020-01-01"});
  kdc.addUser("gone", "right", {"-expire", "2020-01-01"});
  for (const char* user : {"locked", "old", "gone"}) {
    const krb5_error_code first = ask(user, "right");
    EXPECT_NE(first, 0) << user;
    const std::string words = text;
    const int before = requests();
    EXPECT_EQ(ask(user, "right"), first) << user;
    EXPECT_EQ(text, words + AGAIN);
    EXPECT_EQ(requests(), before) << user;
  }
  EXPECT_EQ(ask("nobody", "right"), static_cast<krb5_error_code>(KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN));
  kdc.addUser("nobody", "right");
  EXPECT_EQ(ask("nobody", "right"), 0) << text;
  kdc.stop();
  EXPECT_EQ(ask("alice", "right"), static_cast<krb5_error_code>(KRB5_KDC_UNREACH));
  kdc.start();
  EXPECT_EQ(ask("alice", "right"), 0) << text;
}

}  // namespace
