// The LDAP ping and servers on loopback.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "basalt/directory/directory_ping.h"
#include "basalt/directory/tests/netlogon_bytes.h"
#include "basalt/directory/tests/scripted_server.h"
#include "testsupport/in_time.h"

namespace {

using lumo::DirectoryServer;
using std::chrono::milliseconds;

// Answers the first datagram as the script says and ends.
class OneAnswer {
 public:
  using Script = std::function<std::string(unsigned char id)>;
  explicit OneAnswer(Script script)
      : m_script(std::move(script)), m_socket(boundSocket(SOCK_DGRAM, m_server)), m_thread([this] { run(); }) {}
  ~OneAnswer() {
    // Wakes a receiver that nobody asked.
    shutdown(m_socket.get(), SHUT_RDWR);
    m_thread.join();
  }
  OneAnswer(const OneAnswer&) = delete;
  OneAnswer& operator=(const OneAnswer&) = delete;
  const DirectoryServer& server() const { return m_server; }

 private:
  void run() {
    char bytes[4096];
    sockaddr_in from{};
    socklen_t size = sizeof from;
    auto* address = reinterpret_cast<sockaddr*>(&from);
    const ssize_t got = recvfrom(m_socket.get(), bytes, sizeof bytes, 0, address, &size);
    if (got <= 4) return;
    const std::string answer = m_script(static_cast<unsigned char>(bytes[bytes[1] & 0x80 ? 6 : 4]));
    if (!answer.empty()) sendto(m_socket.get(), answer.data(), answer.size(), 0, address, size);
  }

  const Script m_script;
  DirectoryServer m_server;
  lumo::FileDescriptor m_socket;
  std::thread m_thread;
};

std::string good(unsigned char id) { return ldapMessage(id, ldapEntry("", "netlogon", netlogonValue("Berlin"))); }

DirectoryServer closedPort() {
  DirectoryServer server;
  const auto gone = boundSocket(SOCK_DGRAM, server);
  return server;
}

template <class Work>
milliseconds timeOf(const Work& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
}

TEST(LdapPing, GivesTheReply) {
  const OneAnswer server(good);
  const auto reply = lumo::netlogonPing({server.server()}, "CORP.test");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->clientSite, "Berlin");
}

TEST(LdapPing, EndsInTimeWhenTheServerIsSilent) {
  const OneAnswer server([](unsigned char) { return std::string(); });
  EXPECT_TRUE(testsupport::onceWithin(milliseconds(1500), [&] {
    const auto took =
        timeOf([&] { EXPECT_FALSE(lumo::netlogonPing({server.server()}, "corp.test", milliseconds(250))); });
    EXPECT_GE(took, milliseconds(250));
  }));
}

TEST(LdapPing, EndsAtOnceWhenNobodyListens) {
  const auto took = timeOf([] {
    EXPECT_FALSE(lumo::netlogonPing({closedPort(), closedPort()}, "corp.test", std::chrono::seconds(10)));
  });
  EXPECT_LT(took, std::chrono::seconds(5));
}

TEST(LdapPing, AsksTheNextServerAMomentLater) {
  const OneAnswer silent([](unsigned char) { return std::string(); });
  const OneAnswer answering(good);
  EXPECT_TRUE(lumo::netlogonPing({silent.server(), answering.server()}, "corp.test", std::chrono::seconds(10)));
}

TEST(LdapPing, PassesOverServersThatAreGoneOrTalkNonsense) {
  const OneAnswer nonsense([](unsigned char) { return std::string("hello"); });
  const OneAnswer damaged([](unsigned char id) { return ldapMessage(id, ldapEntry("", "netlogon", "x")); });
  const OneAnswer answering(good);
  EXPECT_TRUE(lumo::netlogonPing(
      {{"name..of.nobody", 389}, closedPort(), nonsense.server(), damaged.server(), answering.server()}, "corp.test",
      std::chrono::seconds(10)));
}

TEST(LdapPing, TakesNoReplyOfAnotherDomainOrNumber) {
  const OneAnswer other([](unsigned char id) {
    return ldapMessage(id, ldapEntry("", "netlogon", netlogonValue("Berlin", 23, "other.test")));
  });
  EXPECT_FALSE(lumo::netlogonPing({other.server()}, "corp.test", milliseconds(500)));
  const OneAnswer late([](unsigned char id) { return good(static_cast<unsigned char>(id + 1)); });
  EXPECT_FALSE(lumo::netlogonPing({late.server()}, "corp.test", milliseconds(500)));
}

TEST(LdapPing, AsksOnlyTheFirstFewServers) {
  const OneAnswer sixth(good);
  const std::vector<DirectoryServer> servers{closedPort(), closedPort(), closedPort(),
                                             closedPort(), closedPort(), sixth.server()};
  EXPECT_FALSE(lumo::netlogonPing(servers, "corp.test", milliseconds(500)));
  EXPECT_FALSE(lumo::netlogonPing({}, "corp.test"));
}

}  // namespace
