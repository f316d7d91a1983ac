// The outcome of a request to an LDAP server that misbehaves, as text.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "basalt/directory/directory_ldap_connection.h"
#include "basalt/directory/tests/scripted_server.h"
#include "base/include/exceptions.h"

// For servers that answer, which may take them a while on a busy machine, and for those that fall silent.
inline constexpr lumo::LdapLimits LONG{std::chrono::minutes(1), std::chrono::minutes(1)};
inline constexpr lumo::LdapLimits SHORT{std::chrono::minutes(1), std::chrono::milliseconds(300)};
// Far above SHORT, below the default limits.
inline constexpr std::chrono::milliseconds SOON{10000};

// Number of the message, its second inner element.
inline unsigned char idOf(const std::string& message) {
  return static_cast<unsigned char>(message.at(message[1] & 0x80 ? 6 : 4));
}
inline bool isUnbind(const std::string& message) { return message.size() == 7; }

struct Outcome {
  int rc = 0;
  std::string text;
  std::chrono::milliseconds took{};
};

template <class Work>
Outcome outcome(const Work& work) {
  Outcome result;
  const auto start = std::chrono::steady_clock::now();
  try {
    work();
  } catch (const LDAPException& failure) {
    result.rc = failure.rc();
    result.text = failure.what();
  }
  result.took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  return result;
}

inline void expectLost(const ScriptedServer::Script& script, int rc, const std::string& words) {
  ScriptedServer server(script);
  lumo::LdapConnection connection(server.server(), true, rc == -5 ? SHORT : LONG);
  const DirectorySearch what{"DC=b", SearchScope::Subtree, "(cn=a)", {}};
  const Outcome lost = outcome([&] { connection.search(what); });
  EXPECT_EQ(lost.rc, rc);
  EXPECT_EQ(lost.text, "Cannot search 'DC=b': " + words);
  EXPECT_LT(lost.took, SOON);
  // The library would now connect anew, as nobody.
  const Outcome after = outcome([&] { connection.search(what); });
  EXPECT_EQ(after.rc, -1);
  EXPECT_EQ(after.text, "Cannot search 'DC=b': the connection was lost before");
}
