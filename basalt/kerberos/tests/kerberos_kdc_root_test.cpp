// Password requests to a real KDC.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gssapi/gssapi_krb5.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "basalt/kerberos/kerberos_credentials.h"
#include "basalt/kerberos/kerberos_handles.h"
#include "base/include/kerb_wrap.h"
#include "testsupport/log_capture.h"
#include "testsupport/mit_kdc.h"
#include "testsupport/private_host.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int YEAR = 31536000;

// The answer to one request, freed with the object.
struct Answer {
  explicit Answer(krb5_context context) : creds(context) {}
  krb5_error_code code = -1;
  std::string text;
  lumo::KrbCreds creds;
};

class PasswordRequestTest : public testing::Test {
 protected:
  PasswordRequestTest() { kdc.addUser("alice", "right"); }
  ~PasswordRequestTest() override { testsupport::cleanPrivateHost(); }

  void ask(Answer& answer, const std::string& user, const std::string& password,
           const std::string& realm = "CORP.EXAMPLE.TEST") {
    lumo::KrbPrincipal principal(context.get());
    ASSERT_EQ(krb5_parse_name(context.get(), user.c_str(), principal.out()), 0);
    answer.code = getCredentials(context.get(), principal.get(), lumo::Shredder(lumo::Shredder2(password)),
                                 answer.creds.out(), &answer.text, nullptr, nullptr, realm, YEAR, nullptr);
  }

  testsupport::MitKdc kdc;
  KerberosContext context;
};

TEST_F(PasswordRequestTest, RightPasswordGivesATicketThatACacheTakes) {
  Answer answer(context.get());
  ask(answer, "alice@CORP.EXAMPLE.TEST", "right");
  ASSERT_EQ(answer.code, 0) << answer.text;
  EXPECT_EQ(lumo::principalText(context.get(), answer.creds->client), "alice@CORP.EXAMPLE.TEST");
  EXPECT_EQ(lumo::principalText(context.get(), answer.creds->server), "krbtgt/CORP.EXAMPLE.TEST@CORP.EXAMPLE.TEST");
  MemoryCCache cache(context.get(), answer.creds->client);
  cache.storeCred(*answer.creds);
  lumo::GSSCredential credential;
  EXPECT_NE(credential.acquireCred(cache.name.c_str()), GSS_C_NO_CREDENTIAL);
}

TEST_F(PasswordRequestTest, UserWithoutRealmGetsTheGivenOne) {
  krb5_set_default_realm(context.get(), "ELSEWHERE.TEST");
  Answer answer(context.get());
  ask(answer, "alice", "right");
  EXPECT_EQ(answer.code, 0) << answer.text;
  Answer lowerCase(context.get());
  ask(lowerCase, "alice@corp.example.test", "right");
  EXPECT_EQ(lowerCase.code, 0) << lowerCase.text;
}

TEST_F(PasswordRequestTest, LifetimeIsAskedForAsFarAsTheRealmAllows) {
  kdc.admin({"modprinc", "-maxlife", "2hours", "alice"});
  Answer answer(context.get());
  ask(answer, "alice", "right");
  ASSERT_EQ(answer.code, 0) << answer.text;
  EXPECT_EQ(answer.creds->times.endtime - answer.creds->times.starttime, 2 * 3600);
}

TEST_F(PasswordRequestTest, WrongPasswordIsRefusedAndNowhereInTheLog) {
  const testsupport::LogCapture log{"TRACE"};
  Answer answer(context.get());
  ask(answer, "alice", "wrong-and-secret");
  EXPECT_EQ(answer.code, static_cast<krb5_error_code>(KRB5KDC_ERR_PREAUTH_FAILED));
  EXPECT_EQ(answer.text, "Preauthentication failed");
  EXPECT_EQ(answer.creds->client, nullptr);
  EXPECT_THAT(log.text(), HasSubstr("Getting initial credentials for alice@CORP.EXAMPLE.TEST"));
  EXPECT_THAT(log.text(), Not(HasSubstr("wrong-and-secret")));
  for (const char* tells : {"ncrypted timestamp", "AS key", "SPAKE "}) {
    EXPECT_THAT(log.text(), Not(HasSubstr(tells))) << "a weak password can be guessed from it";
  }
  EXPECT_THAT(log.text(), HasSubstr("Received answer")) << "the rest of the trace is there";
}

TEST_F(PasswordRequestTest, UnknownUserIsNamed) {
  Answer answer(context.get());
  ask(answer, "nobody", "right");
  EXPECT_EQ(answer.code, static_cast<krb5_error_code>(KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN));
  EXPECT_EQ(answer.text, "Client 'nobody@CORP.EXAMPLE.TEST' not found in Kerberos database");
}

TEST_F(PasswordRequestTest, ExpiredPasswordGivesItsErrorAndNobodyIsAsked) {
  kdc.addUser("old", "right", {"-pwexpire", "2020-01-01"});
  Answer answer(context.get());
  ask(answer, "old", "right");
  EXPECT_EQ(answer.code, static_cast<krb5_error_code>(KRB5KDC_ERR_KEY_EXP));
  EXPECT_EQ(answer.text, "Password has expired");
}

TEST_F(PasswordRequestTest, LockedAccountGivesItsError) {
  kdc.addUser("locked", "right", {"-allow_tix"});
  Answer answer(context.get());
  ask(answer, "locked", "right");
  EXPECT_EQ(answer.code, static_cast<krb5_error_code>(KRB5KDC_ERR_CLIENT_REVOKED));
}

TEST_F(PasswordRequestTest, LongPasswordsAndOddBytesGoThrough) {
  const std::string odd = "p\xc3\xa4 ss\"'\\%s:";
  kdc.addUser("odd", odd);
  Answer answer(context.get());
  ask(answer, "odd", odd);
  EXPECT_EQ(answer.code, 0) << answer.text;
  Answer tooLong(context.get());
  ask(tooLong, "odd", std::string(64 * 1024, 'x'));
  EXPECT_NE(tooLong.code, 0);
}

TEST_F(PasswordRequestTest, KdcThatIsDownIsSaidAtOnce) {
  kdc.stop();
  const auto begin = std::chrono::steady_clock::now();
  Answer answer(context.get());
  ask(answer, "alice", "right");
  EXPECT_EQ(answer.code, static_cast<krb5_error_code>(KRB5_KDC_UNREACH));
  EXPECT_EQ(answer.text, "Cannot contact any KDC for realm 'CORP.EXAMPLE.TEST'");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

// Twenty KDCs that take every packet and never answer: the library alone would try for minutes.
TEST_F(PasswordRequestTest, SilentKdcsDoNotHoldTheCallerForMinutes) {
  kdc.stop();
  std::string conf = "[libdefaults]\n dns_lookup_kdc = false\n[realms]\n CORP.EXAMPLE.TEST = {\n";
  std::vector<int> sockets;
  for (int i = 1; i <= 20; ++i) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(88);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 0x100U + static_cast<unsigned>(i));
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
      const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
      ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
      ASSERT_EQ(type == SOCK_STREAM ? listen(fd, 8) : 0, 0);
      sockets.push_back(fd);
    }
    conf += "  kdc = 127.0.1." + std::to_string(i) + "\n";
  }
  testsupport::writeFile("/etc/krb5.conf", conf + " }\n");
  const KerberosContext fresh;
  lumo::KrbPrincipal principal(fresh.get());
  ASSERT_EQ(krb5_parse_name(fresh.get(), "alice@CORP.EXAMPLE.TEST", principal.out()), 0);
  const auto begin = std::chrono::steady_clock::now();
  krb5_creds creds{};
  std::string text;
  EXPECT_EQ(getCredentials(fresh.get(), principal.get(), lumo::Shredder(lumo::Shredder2("right")), &creds, &text,
                           nullptr, nullptr, "CORP.EXAMPLE.TEST", YEAR, nullptr),
            static_cast<krb5_error_code>(KRB5_KDC_UNREACH));
  EXPECT_EQ(text, "No answer from a KDC within 30 seconds");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
  for (const int fd : sockets) close(fd);
}

// The library corrects itself by the KDC's clock, and so must the context that goes on with the ticket.
TEST_F(PasswordRequestTest, KdcsClockIsTakenOver) {
  kdc.start(3600);
  Answer answer(context.get());
  ask(answer, "alice", "right");
  ASSERT_EQ(answer.code, 0) << answer.text;
  krb5_timestamp seconds = 0;
  krb5_int32 microseconds = 0;
  ASSERT_EQ(krb5_get_time_offsets(context.get(), &seconds, &microseconds), 0);
  EXPECT_NEAR(seconds, 3600, 5);
}

TEST_F(PasswordRequestTest, ClocksThatDisagreeGiveTheirCodeAndResetTheScheduler) {
  kdc.start(3600);
  std::string conf = testsupport::readFile("/etc/krb5.conf");
  conf.insert(conf.find('\n') + 1, " kdc_timesync = 0\n");
  testsupport::writeFile("/etc/krb5.conf", conf);
  const KerberosContext strict;
  lumo::KrbPrincipal principal(strict.get());
  ASSERT_EQ(krb5_parse_name(strict.get(), "alice@CORP.EXAMPLE.TEST", principal.out()), 0);
  lumo::KrbCreds creds(strict.get());
  std::string text;
  const krb5_error_code code = getCredentials(strict.get(), principal.get(), lumo::Shredder(lumo::Shredder2("right")),
                                              creds.out(), &text, nullptr, nullptr, "CORP.EXAMPLE.TEST", YEAR, nullptr);
  EXPECT_EQ(code, static_cast<krb5_error_code>(KRB5KRB_AP_ERR_SKEW));
  EXPECT_EQ(text, "Clock skew too great");
  TimeSyncScheduler::getScheduler() = 77;
  const KerberosException failure(code, text.c_str(), __FILE__, __LINE__);
  EXPECT_EQ(TimeSyncScheduler::getScheduler(), 0);
}

// A ticket for a service, made over the user's cache with the types that the host allows.
TEST_F(PasswordRequestTest, TicketServesASpnegoExchange) {
  kdc.addWithKeytab("HTTP/proxy.corp.example.test", "/run/proxy.keytab");
  Answer answer(context.get());
  ask(answer, "alice", "right");
  ASSERT_EQ(answer.code, 0) << answer.text;
  MemoryCCache cache(context.get(), answer.creds->client);
  cache.storeCred(*answer.creds);
  lumo::GSSCredential credential;
  ASSERT_NE(credential.acquireCred(cache.name.c_str()), GSS_C_NO_CREDENTIAL);
  std::vector<int> types(krb5_enctypes_length() + 1);
  const unsigned count = getKrb5EncList(types.data(), static_cast<unsigned>(types.size()), "CORP.EXAMPLE.TEST");
  ASSERT_EQ(credential.setAllowableEtypes(count, types.data()), static_cast<OM_uint32>(GSS_S_COMPLETE));

  OM_uint32 minor = 0;
  std::string spn = "HTTP/proxy.corp.example.test@CORP.EXAMPLE.TEST";
  gss_buffer_desc text{spn.size(), spn.data()};
  gss_name_t target = GSS_C_NO_NAME;
  ASSERT_EQ(gss_import_name(&minor, &text, GSS_KRB5_NT_PRINCIPAL_NAME, &target), static_cast<OM_uint32>(0));
  gss_OID_desc spnego{6, const_cast<char*>("\x2b\x06\x01\x05\x05\x02")};
  gss_ctx_id_t exchange = GSS_C_NO_CONTEXT;
  gss_buffer_desc token = GSS_C_EMPTY_BUFFER;
  const OM_uint32 major =
      gss_init_sec_context(&minor, credential.get(), &exchange, target, &spnego, GSS_C_MUTUAL_FLAG, 0,
                           GSS_C_NO_CHANNEL_BINDINGS, GSS_C_NO_BUFFER, nullptr, &token, nullptr, nullptr);
  EXPECT_EQ(major, static_cast<OM_uint32>(GSS_S_CONTINUE_NEEDED));
  EXPECT_GT(token.length, 0U);
  EXPECT_THAT(kdc.log(), HasSubstr("alice@CORP.EXAMPLE.TEST for HTTP/proxy.corp.example.test@CORP.EXAMPLE.TEST"));
  gss_release_buffer(&minor, &token);
  gss_delete_sec_context(&minor, &exchange, GSS_C_NO_BUFFER);
  gss_release_name(&minor, &target);
}

}  // namespace
