// Answers of a DNS server that do not fit into a datagram.
#include <gmock/gmock.h>

#include <thread>

#include "basalt/directory/directory_srv.h"
#include "testsupport/dns_server.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

namespace {

using lumo::FileDescriptor;
using lumo::SrvAnswer;
using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr char NAME[] = "_ldap._tcp.dc._msdcs.corp.test";

DnsServer::Names threeServers() {
  DnsServer::Names names;
  for (const char* host : {"dc1.corp.test", "dc2.corp.test", "dc3.corp.test"}) {
    names[NAME].push_back({DNS_SRV, srvData(0, 100, 389, host)});
  }
  return names;
}

// Takes connections on 127.0.0.1:53 and answers nothing.
FileDescriptor silentListener() {
  FileDescriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(53);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int again = 1;
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &again, sizeof again);
  EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(listen(listener.get(), 4), 0);
  return listener;
}

// Answers one question by TCP, in two pieces.
void answerByTcp(DnsServer& names, const FileDescriptor& listener) {
  const FileDescriptor client(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  char buffer[512];
  const ssize_t got = recv(client.get(), buffer, sizeof buffer, 0);
  if (got <= 2) return;
  const std::string answer = names.answer(std::string(buffer + 2, static_cast<std::size_t>(got - 2)), 1000);
  const std::string message = number16(static_cast<unsigned>(answer.size())) + answer;
  send(client.get(), message.data(), 20, MSG_NOSIGNAL);
  send(client.get(), message.data() + 20, message.size() - 20, MSG_NOSIGNAL);
}

class LongSrvAnswer : public testing::Test {
 protected:
  LongSrvAnswer() {
    testsupport::cleanPrivateHost();
    testsupport::writeFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
  }

  static std::vector<std::string> targets(const SrvAnswer& answer) {
    EXPECT_EQ(answer.status, SrvAnswer::Status::Found) << answer.reason;
    std::vector<std::string> hosts;
    for (const auto& record : answer.records) hosts.push_back(record.target);
    return hosts;
  }
};

TEST_F(LongSrvAnswer, IsAskedForByTcp) {
  DnsServer names(threeServers(), {}, 2);
  const FileDescriptor listener = silentListener();
  std::thread server([&] { answerByTcp(names, listener); });
  EXPECT_THAT(targets(lumo::lookUpSrv(NAME, 5s)), ElementsAre("dc1.corp.test", "dc2.corp.test", "dc3.corp.test"));
  server.join();
}

TEST_F(LongSrvAnswer, IsWhatFitsWhereTcpIsRefused) {
  const DnsServer names(threeServers(), {}, 2);
  EXPECT_THAT(targets(lumo::lookUpSrv(NAME)), ElementsAre("dc1.corp.test", "dc2.corp.test"));
}

TEST_F(LongSrvAnswer, IsWhatFitsWhereTcpIsSilent) {
  const DnsServer names(threeServers(), {}, 2);
  const FileDescriptor listener = silentListener();
  EXPECT_THAT(targets(lumo::lookUpSrv(NAME, 50ms)), ElementsAre("dc1.corp.test", "dc2.corp.test"));
}

TEST_F(LongSrvAnswer, OfWhichNothingFitsIsNotTakenForNone) {
  const DnsServer names(threeServers(), {}, 0);
  const SrvAnswer answer = lumo::lookUpSrv(NAME);
  EXPECT_EQ(answer.status, SrvAnswer::Status::Silent);
  EXPECT_EQ(answer.reason, "The answer needs TCP, and no DNS server gives it");
}

}  // namespace
