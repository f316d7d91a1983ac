// An LDAP connection and servers that misbehave.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <tuple>
#include <utility>

#include "basalt/directory/ad_cache_binding.h"
#include "basalt/directory/directory_ldap.h"
#include "basalt/directory/directory_ldap_connection.h"
#include "basalt/directory/tests/ldap_outcome.h"
#include "basalt/directory/tests/netlogon_bytes.h"
#include "basalt/directory/tests/scripted_server.h"
#include "base/include/exceptions.h"

namespace {

using lumo::LdapConnection;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(LdapConnection, ReadsTheRootObject) {
  ScriptedServer server([](const std::string& message) {
    if (isUnbind(message)) return std::string(ScriptedServer::CLOSE);
    return ldapMessage(idOf(message), ldapEntry("", "rootDomainNamingContext", "DC=corp,DC=test")) +
           ldapMessage(idOf(message), ldapDone(0));
  });
  LdapConnection connection(server.server(), false, LONG);
  EXPECT_EQ((*connection.rootDse())["rootdomainnamingcontext"].toString(), "DC=corp,DC=test");
}

TEST(LdapConnection, KeepsValuesThatAreNoText) {
  const std::string value("\x00\xff\x01\x00", 4);
  ScriptedServer server([&](const std::string& message) {
    return ldapMessage(idOf(message), ldapEntry("CN=a,DC=b", "objectGUID", value)) +
           ldapMessage(idOf(message), ldapDone(0));
  });
  LdapConnection connection(server.server(), true, LONG);
  const auto found = connection.search({"CN=a,DC=b", SearchScope::Base, "(objectClass=*)", {}});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found.front()->dn(), "CN=a,DC=b");
  EXPECT_EQ((*found.front())["objectGUID"].toString(), value);
}

TEST(LdapConnection, PutsValuesThatComeInPartsTogether) {
  ScriptedServer server([&](const std::string& message) {
    std::string attribute = "member;range=0-0";
    std::string value = "one";
    if (message.find("member;range=1-*") != std::string::npos)
      std::tie(attribute, value) = std::pair("member;Range=1-1", "two");
    if (message.find("member;range=2-*") != std::string::npos)
      std::tie(attribute, value) = std::pair("member;range=2-*", "three");
    return ldapMessage(idOf(message), ldapEntry("CN=a,DC=b", attribute, value)) +
           ldapMessage(idOf(message), ldapDone(0));
  });
  LdapConnection connection(server.server(), true, LONG);
  const auto found = connection.search({"CN=a,DC=b", SearchScope::Base, "(objectClass=*)", {"member"}});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_THAT((*found.front())["member"].values(), ElementsAre("one", "two", "three"));
}

// Part of the values would look like all of them.
TEST(LdapConnection, SaysOfAnAttributeThatTheServerShowsOnlyInPartThatItCannotBeRead) {
  ScriptedServer server([&](const std::string& message) {
    const bool more = message.find("keywords;range=1-*") != std::string::npos;
    return (more ? std::string() : ldapMessage(idOf(message), ldapEntry("CN=a,DC=b", "keywords;range=0-0", "one"))) +
           ldapMessage(idOf(message), ldapDone(0));
  });
  LdapConnection connection(server.server(), true, LONG);
  const auto found = connection.search({"CN=a,DC=b", SearchScope::Base, "(objectClass=*)", {"keywords"}});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_TRUE((*found.front())["keywords"].isNull());
  EXPECT_TRUE(found.front()->attributeExists("keywords", true));
}

TEST(LdapConnection, SaysOfValuesThatCannotBeDecodedThatTheyCannotBeRead) {
  ScriptedServer server([&](const std::string& message) {
    // The set of values holds one that promises more bytes than there are.
    const auto attribute = [](const std::string& name, const std::string& values) {
      return berItem(0x30, berItem(0x04, name) + berItem(0x31, values));
    };
    const std::string list = attribute("cn", berItem(0x04, "a")) + attribute("keywords", std::string("\x04\x7fxy", 4)) +
                             attribute("sn", berItem(0x04, "b"));
    return ldapMessage(idOf(message), berItem(0x64, berItem(0x04, "CN=a,DC=b") + berItem(0x30, list))) +
           ldapMessage(idOf(message), ldapDone(0));
  });
  LdapConnection connection(server.server(), true, LONG);
  const auto found = connection.search({"CN=a,DC=b", SearchScope::Base, "(objectClass=*)", {"keywords"}});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_TRUE((*found.front())["keywords"].isNull());
  EXPECT_EQ(found.front()->getString("cn", ""), "a") << "the others can";
  EXPECT_EQ(found.front()->getString("sn", ""), "b");
}

// Each page comes in time, and there is no end of them.
TEST(LdapConnection, EndsWhenAllPagesTogetherTakeTooLong) {
  ScriptedServer server([](const std::string& message) {
    std::this_thread::sleep_for(milliseconds(20));
    const std::string cookie = berItem(0x30, berItem(0x02, std::string(1, '\0')) + berItem(0x04, "next"));
    const std::string control = berItem(0x30, berItem(0x04, "1.2.840.113556.1.4.319") + berItem(0x04, cookie));
    return berItem(
        0x30, berItem(0x02, std::string(1, static_cast<char>(idOf(message)))) + ldapDone(0) + berItem(0xa0, control));
  });
  LdapConnection connection(server.server(), true, {std::chrono::minutes(1), milliseconds(300), milliseconds(200)});
  const Outcome lost = outcome([&] { connection.search({"DC=b", SearchScope::Subtree, "(cn=a)", {}}); });
  EXPECT_EQ(lost.rc, -5);
  EXPECT_EQ(lost.text, "Cannot search 'DC=b': no answer in time");
  EXPECT_LT(lost.took, SOON);
}

// A controller is first asked for its domain's name: the time of a search is that of both answers.
TEST(LdapConnection, EndsWhenTheBaseAndTheAnswerTogetherTakeTooLong) {
  bool first = true;
  ScriptedServer server([&](const std::string& message) {
    if (isUnbind(message)) return std::string(ScriptedServer::CLOSE);
    std::this_thread::sleep_for(milliseconds(60));
    const std::string entry = std::exchange(first, false) ? ldapEntry("", "defaultNamingContext", "DC=corp,DC=test")
                                                          : ldapEntry("CN=a,DC=corp,DC=test", "cn", "a");
    return ldapMessage(idOf(message), entry) + ldapMessage(idOf(message), ldapDone(0));
  });
  LdapConnection connection(server.server(), false, {std::chrono::minutes(1), milliseconds(300), milliseconds(100)});
  const Outcome lost = outcome([&] { connection.search({"", SearchScope::Subtree, "(cn=a)", {}}); });
  EXPECT_EQ(lost.rc, -5);
  EXPECT_THAT(lost.text, HasSubstr("no answer in time"));
}

TEST(LdapConnection, DoesNotTakeAPageForTheLastWhereItCannotReadWhatTheServerSaysOfIt) {
  ScriptedServer server([](const std::string& message) {
    if (isUnbind(message)) return std::string(ScriptedServer::CLOSE);
    const std::string control = berItem(0x30, berItem(0x04, "1.2.840.113556.1.4.319") + berItem(0x04, "nonsense"));
    const std::string id = berItem(0x02, std::string(1, static_cast<char>(idOf(message))));
    return ldapMessage(idOf(message), ldapEntry("CN=a,DC=b", "cn", "a")) +
           berItem(0x30, id + ldapDone(0) + berItem(0xa0, control));
  });
  LdapConnection connection(server.server(), true, LONG);
  const Outcome damaged = outcome([&] { connection.search({"DC=b", SearchScope::Subtree, "(cn=a)", {}}); });
  EXPECT_EQ(damaged.rc, -4);
  EXPECT_EQ(damaged.text, "Cannot search 'DC=b': Decoding error");
}

TEST(LdapConnection, AsksForPages) {
  std::string request;
  ScriptedServer server([&](const std::string& message) {
    if (!isUnbind(message)) request = message;
    return ldapMessage(idOf(message), ldapDone(0));
  });
  LdapConnection connection(server.server(), true, LONG);
  EXPECT_TRUE(connection.search({"DC=b", SearchScope::Subtree, "(cn=a)", {}}).empty());
  // Critical, a thousand at a time.
  EXPECT_THAT(request, HasSubstr(berItem(0x04, "1.2.840.113556.1.4.319") + std::string("\x01\x01\xff", 3)));
  EXPECT_THAT(request, HasSubstr(std::string("\x02\x02\x03\xe8\x04\x00", 6)));
  DirectorySearch small{"DC=b", SearchScope::Subtree, "(cn=a)", {}};
  small.paged = false;
  EXPECT_TRUE(connection.search(small).empty());
  EXPECT_THAT(request, testing::Not(HasSubstr("1.2.840.113556.1.4.319")));
}

// Answers each search with an object of its base and tells what came: base, or "abandon".
class AnnouncedSearches : public testing::Test {
 protected:
  static DirectorySearch of(const std::string& base) {
    return {base, SearchScope::Subtree, "(objectClass=*)", {"cn"}, false};
  }
  std::string found(const std::string& base) {
    const auto objects = m_connection.search(of(base));
    return objects.size() == 1 ? objects.front()->dn() : std::to_string(objects.size()) + " objects";
  }

  // Written by the server's thread before it answers.
  std::vector<std::string> m_came;
  std::atomic<bool> m_silent{false};
  ScriptedServer m_server{[this](const std::string& message) {
    if (isUnbind(message)) return std::string(ScriptedServer::CLOSE);
    if (message.find("CN=") == std::string::npos) {
      m_came.emplace_back("abandon");
      return std::string();
    }
    const std::string base = message.substr(message.find("CN="), 4);
    m_came.push_back(base);
    if (m_silent) return std::string(ScriptedServer::CLOSE);
    return ldapMessage(idOf(message), ldapEntry(base, "cn", base)) + ldapMessage(idOf(message), ldapDone(0));
  }};
  LdapConnection m_connection{m_server.server(), true, LONG};
};

TEST_F(AnnouncedSearches, AreAskedOnceAndAnsweredInTheirOrder) {
  m_connection.announce(of("CN=a"));
  m_connection.announce(of("CN=b"));
  EXPECT_EQ(found("CN=a"), "CN=a");
  m_connection.announce(of("CN=c"));
  EXPECT_EQ(found("CN=b"), "CN=b");
  EXPECT_EQ(found("CN=c"), "CN=c");
  EXPECT_EQ(found("CN=c"), "CN=c") << "asked anew";
  EXPECT_THAT(m_came, ElementsAre("CN=a", "CN=b", "CN=c", "CN=c"));
}

TEST_F(AnnouncedSearches, AreDroppedByAnother) {
  m_connection.announce(of("CN=a"));
  m_connection.announce(of("CN=b"));
  EXPECT_EQ(found("CN=x"), "CN=x");
  EXPECT_EQ(found("CN=b"), "CN=b");
  EXPECT_THAT(m_came, ElementsAre("CN=a", "CN=b", "abandon", "abandon", "CN=x", "CN=b"));
}

TEST_F(AnnouncedSearches, FailAsTheSearchDoesWhereTheServerGoes) {
  m_silent = true;
  m_connection.announce(of("CN=a"));
  EXPECT_EQ(outcome([&] { found("CN=a"); }).rc, -1);
  EXPECT_NO_THROW(m_connection.announce(of("CN=a")));
  EXPECT_EQ(outcome([&] { found("CN=a"); }).text, "Cannot search 'CN=a': the connection was lost before");
}

TEST(LdapConnection, GivesTheObjectsOfAllPages) {
  std::vector<std::string> cookies;
  ScriptedServer server([&](const std::string& message) {
    if (isUnbind(message)) return std::string(ScriptedServer::CLOSE);
    const std::string page = std::to_string(cookies.size());
    cookies.push_back(message.find("next") == std::string::npos ? "" : message.substr(message.find("next"), 5));
    const std::string cookie = cookies.size() == 3 ? "" : "next" + page;
    const std::string value = berItem(0x30, berItem(0x02, std::string(1, '\0')) + berItem(0x04, cookie));
    const std::string control = berItem(0x30, berItem(0x04, "1.2.840.113556.1.4.319") + berItem(0x04, value));
    const std::string id = berItem(0x02, std::string(1, static_cast<char>(idOf(message))));
    return ldapMessage(idOf(message), ldapEntry("CN=" + page, "cn", page)) +
           berItem(0x30, id + ldapDone(0) + berItem(0xa0, control));
  });
  LdapConnection connection(server.server(), true, LONG);
  std::vector<std::string> names;
  for (const auto& object : connection.search({"DC=b", SearchScope::Subtree, "(cn=a)", {}}))
    names.push_back(object->dn());
  EXPECT_THAT(names, ElementsAre("CN=0", "CN=1", "CN=2"));
  EXPECT_THAT(cookies, ElementsAre("", "next0", "next1"));
}

TEST(LdapConnection, TakesAMissingBaseForNothing) {
  ScriptedServer server([](const std::string& message) { return ldapMessage(idOf(message), ldapDone(32)); });
  LdapConnection connection(server.server(), true, LONG);
  EXPECT_TRUE(connection.search({"CN=none,DC=b", SearchScope::Subtree, "(cn=a)", {}}).empty());
}

TEST(LdapConnection, PassesOnTheServersWords) {
  ScriptedServer server(
      [](const std::string& message) { return ldapMessage(idOf(message), ldapDone(50, "00002098: not for you")); });
  LdapConnection connection(server.server(), true, LONG);
  for (int i = 0; i < 2; ++i) {
    const Outcome refused = outcome([&] { connection.search({"DC=b", SearchScope::Subtree, "(cn=a)", {}}); });
    EXPECT_EQ(refused.rc, 50);
    EXPECT_EQ(refused.text, "Cannot search 'DC=b': Insufficient access (00002098: not for you)");
  }
}

TEST(LdapConnection, DoesNotFollowAReferral) {
  ScriptedServer server([](const std::string& message) { return ldapMessage(idOf(message), ldapDone(10)); });
  LdapConnection connection(server.server(), true, LONG);
  EXPECT_EQ(outcome([&] { connection.search({"DC=else", SearchScope::Subtree, "(cn=a)", {}}); }).rc, 10);
}

TEST(LdapConnection, EndsWhenNobodyListens) {
  lumo::DirectoryServer server;
  { const auto gone = boundSocket(SOCK_STREAM, server); }
  const Outcome refused = outcome([&] { LdapConnection(server, false, LONG); });
  EXPECT_EQ(refused.rc, -11);
  EXPECT_EQ(refused.text, "Connection refused");
  EXPECT_LT(refused.took, SOON);
}

TEST(LdapConnection, EndsWhenTheNameDoesNotResolve) {
  const Outcome unknown = outcome([] { LdapConnection({"name..of.nobody", 389}, false, LONG); });
  EXPECT_EQ(unknown.rc, -11);
  EXPECT_NE(unknown.text, "");
}

// The queue of a listener that never accepts is full after a few: the next one gets no answer at all.
TEST(LdapConnection, EndsWhenTheServerDoesNotTakeIt) {
  lumo::DirectoryServer server;
  const auto listener = boundSocket(SOCK_STREAM, server);
  ASSERT_EQ(listen(listener.get(), 0), 0);
  std::vector<lumo::Connected> queue;
  std::string failure;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 8 && failure.empty(); ++i) {
    queue.push_back(lumo::connectTcp(server, milliseconds(200)));
    failure = queue.back().failure;
  }
  EXPECT_EQ(failure, "no answer in time");
  EXPECT_LT(std::chrono::steady_clock::now() - start, SOON);
}

TEST(LdapConnection, EndsWhenTheServerIsSilent) {
  expectLost([](const std::string&) { return std::string(); }, -5, "no answer in time");
}

TEST(LdapConnection, EndsWhenTheServerFallsSilentInTheMiddle) {
  expectLost(
      [](const std::string& message) {
        return ldapMessage(idOf(message), ldapEntry("CN=a,DC=b", "cn", "a")) +
               ldapMessage(idOf(message), ldapDone(0)).substr(0, 9);
      },
      -5, "no answer in time");
}

TEST(LdapConnection, EndsWhenTheServerPromisesMoreThanItSends) {
  expectLost([](const std::string&) { return std::string("\x30\x84\x00\x00\x40\x00\x02\x01", 8); }, -5,
             "no answer in time");
}

TEST(LdapConnection, EndsWhenTheServerHangsUp) {
  expectLost([](const std::string&) { return std::string(ScriptedServer::CLOSE); }, -1, "Can't contact LDAP server");
}

TEST(LdapConnection, EndsWhenTheServerTalksSomethingElse) {
  ScriptedServer server([](const std::string&) { return std::string("HTTP/1.1 400 Bad Request\r\n\r\n"); });
  LdapConnection connection(server.server(), true, SHORT);
  const Outcome nonsense = outcome([&] { connection.search({"DC=b", SearchScope::Subtree, "(cn=a)", {}}); });
  EXPECT_NE(nonsense.rc, 0);
  EXPECT_LT(nonsense.took, SOON);
}

TEST(RealDirectory, NamesTheGivenServerThatDoesNotAnswer) {
  lumo::DirectoryServer server;
  { const auto gone = boundSocket(SOCK_STREAM, server); }
  const std::string name = "127.0.0.1:" + std::to_string(server.port);
  try {
    ldapDirectoryConnector().open({"corp.test", false, name, "", "FILE:/none"});
    FAIL();
  } catch (const lumo::IOException& failure) {
    EXPECT_EQ(failure.what(),
              "No directory server of the domain 'corp.test' answers: " + name + ": Connection refused");
  }
}

// The agent's side of it: the same words, and a code that says that the server is not there.
TEST(RealDirectory, GivesTheAgentsBindingItsWords) {
  lumo::DirectoryServer server;
  { const auto gone = boundSocket(SOCK_STREAM, server); }
  const std::string name = "127.0.0.1:" + std::to_string(server.port);
  ADCacheBinding binding({"corp.test", false, name, "", ""}, [] { return "FILE:/none"; });
  for (int i = 0; i < 2; ++i) {
    const Outcome lost = outcome([&] { binding.search({}); });
    EXPECT_EQ(lost.rc, -11);
    EXPECT_EQ(lost.text, "No directory server of the domain 'corp.test' answers: " + name + ": Connection refused");
  }
  EXPECT_FALSE(binding.isHealthy());
}

TEST(RealDirectory, TellsNoSiteOfADomainThatIsNoName) { EXPECT_EQ(ldapDirectoryConnector().site(""), ""); }

}  // namespace
