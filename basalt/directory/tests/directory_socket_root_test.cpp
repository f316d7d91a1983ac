// Servers with several addresses, and names that are looked up slowly: by the host's own files and name service.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "basalt/directory/directory_ping.h"
#include "basalt/directory/directory_socket.h"
#include "basalt/directory/tests/netlogon_bytes.h"
#include "testsupport/dns_server.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

namespace {

using lumo::connectTcp;
using lumo::FileDescriptor;
using namespace std::chrono_literals;

constexpr char ONE[] = "127.0.0.2";
constexpr char OTHER[] = "127.0.0.3";
constexpr char HOSTS[] = "/etc/hosts";

// A socket at that address of loopback; port 0 becomes one of the system's choice.
FileDescriptor boundAt(const char* host, int type, std::uint16_t& port) {
  FileDescriptor fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, host, &address.sin_addr);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  EXPECT_EQ(bind(fd.get(), generic, size), 0);
  EXPECT_EQ(getsockname(fd.get(), generic, &size), 0);
  port = ntohs(address.sin_port);
  return fd;
}

// Listens and takes nobody any more: whoever connects gets no answer at all.
class SilentListener {
 public:
  SilentListener(const char* host, std::uint16_t& port) : m_listener(boundAt(host, SOCK_STREAM, port)) {
    EXPECT_EQ(listen(m_listener.get(), 0), 0);
    do {
      m_waiting.push_back(connectTcp({host, port}, 30ms));
    } while (m_waiting.back().socket && m_waiting.size() < 8);
    EXPECT_EQ(m_waiting.back().failure, "no answer in time");
  }

 private:
  FileDescriptor m_listener;
  std::vector<lumo::Connected> m_waiting;
};

// Answers one ping, so much later.
class PingAnswer {
 public:
  PingAnswer(const char* host, std::uint16_t& port, std::chrono::milliseconds delay = {})
      : m_delay(delay), m_socket(boundAt(host, SOCK_DGRAM, port)), m_thread([this] { run(); }) {}
  ~PingAnswer() {
    shutdown(m_socket.get(), SHUT_RDWR);  // wakes it where nobody asked
    m_thread.join();
  }
  PingAnswer(const PingAnswer&) = delete;
  PingAnswer& operator=(const PingAnswer&) = delete;

 private:
  void run() {
    char bytes[4096];
    sockaddr_in from{};
    socklen_t size = sizeof from;
    auto* const peer = reinterpret_cast<sockaddr*>(&from);
    if (recvfrom(m_socket.get(), bytes, sizeof bytes, 0, peer, &size) <= 4) return;
    const auto id = static_cast<unsigned char>(bytes[bytes[1] & 0x80 ? 6 : 4]);
    const std::string answer = ldapMessage(id, ldapEntry("", "netlogon", netlogonValue("Berlin")));
    std::this_thread::sleep_for(m_delay);
    sendto(m_socket.get(), answer.data(), answer.size(), 0, peer, size);
  }

  const std::chrono::milliseconds m_delay;
  FileDescriptor m_socket;
  std::thread m_thread;
};

class DirectorySocketRoot : public testing::Test {
 protected:
  DirectorySocketRoot() { testsupport::cleanPrivateHost(); }
  ~DirectorySocketRoot() override { testsupport::writeFile(HOSTS, m_hosts); }

  // In which order the addresses of one name come is the library's choice: each is once the silent one.
  template <class Check>
  void withEitherSilent(const Check& check) {
    testsupport::writeFile(HOSTS, std::string(ONE) + " dc.corp.test\n" + OTHER + " dc.corp.test\n");
    check(ONE, OTHER);
    check(OTHER, ONE);
  }

 private:
  const std::string m_hosts = testsupport::readFile(HOSTS);
};

TEST_F(DirectorySocketRoot, ASilentAddressLeavesTimeForTheNext) {
  withEitherSilent([](const char* silent, const char* answering) {
    std::uint16_t port = 0;
    const SilentListener nobody(silent, port);
    const FileDescriptor server = boundAt(answering, SOCK_STREAM, port);
    ASSERT_EQ(listen(server.get(), 4), 0);
    const lumo::Connected connected = connectTcp({"dc.corp.test", port}, 2s);
    EXPECT_TRUE(connected.socket) << silent << " is silent: " << connected.failure;
  });
}

TEST_F(DirectorySocketRoot, APingGoesToAllAddresses) {
  withEitherSilent([](const char* silent, const char* answering) {
    std::uint16_t port = 0;
    const FileDescriptor nobody = boundAt(silent, SOCK_DGRAM, port);
    const PingAnswer server(answering, port);
    EXPECT_TRUE(lumo::netlogonPing({{"dc.corp.test", port}}, "corp.test", 20s)) << silent << " is silent";
  });
}

// The first name server of many hosts is one of the domain's controllers: when that is down, each name takes seconds.
class SlowNameService : public testing::Test {
 protected:
  SlowNameService() {
    testsupport::cleanPrivateHost();
    testsupport::writeFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
  }

  DnsServer m_names{{{"dc.corp.test", {{DNS_A, std::string("\x7f\0\0\x02", 4)}}}}, 50ms};
  // A failure of all of several tries: a busy machine delays some of them, a wrong count of the time ends each.
  static std::string withinTries(const std::function<std::string()>& attempt) {
    std::string failure = attempt();
    for (int more = 0; more < 20 && !failure.empty(); ++more) failure = attempt();
    return failure;
  }

  std::uint16_t m_port = 0;
};

TEST_F(SlowNameService, TakesNothingOfTheTimeForConnecting) {
  const FileDescriptor server = boundAt(ONE, SOCK_STREAM, m_port);
  ASSERT_EQ(listen(server.get(), 4), 0);
  EXPECT_EQ(withinTries([&] { return connectTcp({"dc.corp.test", m_port}, 30ms).failure; }), "");
}

TEST_F(SlowNameService, LeavesAPingAMomentForItsAnswer) {
  EXPECT_EQ(withinTries([&] {
              const PingAnswer server(ONE, m_port, 20ms);
              const auto reply = lumo::netlogonPing({{"dc.corp.test", m_port}}, "corp.test", 30ms);
              return reply ? "" : "no answer";
            }),
            "");
}

}  // namespace
