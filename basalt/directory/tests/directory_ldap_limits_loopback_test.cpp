// An LDAP connection and servers that send or say too much.
#include <gtest/gtest.h>

#include <string>

#include "basalt/directory/directory_ldap_connection.h"
#include "basalt/directory/tests/ldap_outcome.h"
#include "basalt/directory/tests/netlogon_bytes.h"
#include "base/include/exceptions.h"

namespace {

using lumo::LdapConnection;

constexpr int TOO_LARGE = 0x46;

// What a server says comes out at terminals and in records, and nobody knows yet who it is.
TEST(LdapLimits, EscapesAndCutsTheServersWords) {
  ScriptedServer server([](const std::string& message) {
    return ldapMessage(idOf(message), ldapDone(50, "no\n\x1b[31m" + std::string(4000, 'x')));
  });
  LdapConnection connection(server.server(), true, LONG);
  const Outcome refused = outcome([&] { connection.search({"DC=b\r", SearchScope::Subtree, "(cn=a)", {}}); });
  EXPECT_EQ(refused.text,
            "Cannot search 'DC=b\\r': Insufficient access (no\\n\\x1b[31m" + std::string(248, 'x') + "...)");
}

// Before all of the time is over, and without the memory.
void expectTooMuch(const ScriptedServer::Script& script, const std::string& words) {
  expectLost(script, TOO_LARGE, words);
}

// More than the 64 KiB of a server that has not proven who it is.
TEST(LdapLimits, EndsWhenTheServerPromisesTooMuch) {
  const auto promising = [](const std::string& length) {
    return [length](const std::string&) { return std::string("\x30\x84", 2) + length + "\x02\x01"; };
  };
  const std::string words = "the server sends what is no LDAP message of at most 64 KiB";
  expectTooMuch(promising(std::string("\x00\x01\x00\x01", 4)), words);
  expectTooMuch(promising("\x7f\xff\xff\xff"), words);
}

TEST(LdapLimits, EndsWhenTheServerSendsOneObjectAfterTheOther) {
  expectTooMuch(
      [](const std::string& message) {
        std::string answer;
        for (int i = 0; i < 70; ++i) {
          answer += ldapMessage(idOf(message), ldapEntry("CN=a,DC=b", "cn", std::string(1000, 'x')));
        }
        return answer;
      },
      "the server sends more than 64 KiB");
}

TEST(LdapLimits, CountsWhatTheServerSendsForEachRequest) {
  ScriptedServer server([](const std::string& message) {
    std::string answer;
    for (int i = 0; i < 40; ++i) {
      answer += ldapMessage(idOf(message), ldapEntry("CN=a,DC=b", "cn", std::string(1000, 'x')));
    }
    return answer + ldapMessage(idOf(message), ldapDone(0));
  });
  LdapConnection connection(server.server(), true, LONG);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(connection.search({"DC=b", SearchScope::Base, "(cn=a)", {}}).size(), 40U);
  }
}

// Such a server is one that is not there: the next one is asked.
TEST(LdapLimits, TakesAServerThatSendsTooMuchForOneThatIsNotThere) {
  const LDAPException failure(__FILE__, __LINE__, "", "LDAPException", TOO_LARGE);
  EXPECT_TRUE(isServerUnavailable(failure));
  EXPECT_FALSE(isConnectionLost(failure));
}

}  // namespace
