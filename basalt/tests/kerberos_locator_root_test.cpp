// The KDC locator against a DNS server of the test's own on 127.0.0.1:53 of the private host.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "basalt/kerberos_credentials.h"
#include "base/include/parameter_names.h"
#include "testsupport/log_capture.h"
#include "testsupport/private_host.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct Service {
  unsigned char priority;
  unsigned short port;
  std::string host;
};

std::string encodedName(const std::string& name) {
  std::string encoded;
  for (std::size_t begin = 0; begin <= name.size();) {
    const std::size_t dot = std::min(name.find('.', begin), name.size());
    encoded += static_cast<char>(dot - begin) + name.substr(begin, dot - begin);
    begin = dot + 1;
  }
  return encoded + '\0';
}

std::string number(unsigned value) { return {static_cast<char>(value >> 8), static_cast<char>(value)}; }

// Answers SRV questions from a table; anything else does not exist.
class DnsServer {
 public:
  explicit DnsServer(std::map<std::string, std::vector<Service>> services) : m_services(std::move(services)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    m_thread = std::thread([this] { serve(); });
  }
  ~DnsServer() {
    shutdown(m_socket, SHUT_RDWR);
    m_thread.join();
    close(m_socket);
  }
  std::vector<std::string> asked() {
    const std::lock_guard<std::mutex> held(m_mutex);
    return m_asked;
  }

 private:
  void serve() {
    char buffer[1024];
    sockaddr_in peer{};
    for (;;) {
      socklen_t size = sizeof peer;
      const ssize_t got = recvfrom(m_socket, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&peer), &size);
      if (got <= 12) return;
      const std::string reply = answer(std::string(buffer, static_cast<std::size_t>(got)));
      sendto(m_socket, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&peer), size);
    }
  }

  std::string answer(const std::string& query) {
    std::string name;
    std::size_t at = 12;
    for (; query[at] != 0; at += static_cast<std::size_t>(query[at]) + 1) {
      name += (name.empty() ? "" : ".") + query.substr(at + 1, static_cast<std::size_t>(query[at]));
    }
    const std::lock_guard<std::mutex> held(m_mutex);
    m_asked.push_back(name);
    const auto& found = m_services[name];
    std::string reply = query.substr(0, 2) + number(found.empty() ? 0x8183 : 0x8180) + number(1) +
                        number(static_cast<unsigned>(found.size())) + number(0) + number(0) +
                        query.substr(12, at + 5 - 12);
    for (const auto& service : found) {
      const std::string host = encodedName(service.host);
      reply += number(0xc00c) + number(33) + number(1) + number(0) + number(60) +
               number(static_cast<unsigned>(6 + host.size())) + number(service.priority) + number(0) +
               number(service.port) + host;
    }
    return reply;
  }

  int m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::map<std::string, std::vector<Service>> m_services;
  std::mutex m_mutex;
  std::vector<std::string> m_asked;
  std::thread m_thread;
};

class KdcLocatorTest : public testing::Test {
 protected:
  KdcLocatorTest() {
    testsupport::cleanPrivateHost();
    testsupport::writeFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
  }
  ~KdcLocatorTest() override { testsupport::cleanPrivateHost(); }

  static std::vector<std::string> find(const char* realm) {
    std::vector<KdcAddress> found;
    const int rc = krb5_dc_locator_callback(realm, &found);
    EXPECT_EQ(rc, found.empty() ? static_cast<int>(KRB5_REALM_CANT_RESOLVE) : 0);
    std::vector<std::string> texts;
    for (const auto& one : found) texts.push_back(one.host + ":" + std::to_string(one.port));
    return texts;
  }
};

TEST_F(KdcLocatorTest, DomainControllersComeFirstAndInTheirOrder) {
  DnsServer server({{"_kerberos._tcp.dc._msdcs.corp.test", {{20, 88, "dc2.corp.test"}, {10, 750, "dc1.corp.test"}}},
                    {"_kerberos._tcp.corp.test", {{0, 88, "other.corp.test"}}}});
  EXPECT_THAT(find("CORP.TEST"), ElementsAre("dc1.corp.test:750", "dc2.corp.test:88"));
  EXPECT_EQ(krb5_dc_locator_callback("CORP.TEST", nullptr), 0);
}

TEST_F(KdcLocatorTest, RealmWithoutDomainControllersIsFoundByItsPlainRecords) {
  DnsServer server({{"_kerberos._tcp.corp.test", {{0, 88, "kdc.corp.test"}}}});
  EXPECT_THAT(find("CORP.TEST"), ElementsAre("kdc.corp.test:88"));
  EXPECT_THAT(server.asked(), ElementsAre("_kerberos._tcp.dc._msdcs.corp.test", "_kerberos._tcp.corp.test"));
}

TEST_F(KdcLocatorTest, UnknownRealmAndSilentNameServersGiveNone) {
  {
    DnsServer server({});
    EXPECT_THAT(find("CORP.TEST"), ElementsAre());
  }
  EXPECT_THAT(find("CORP.TEST"), ElementsAre());  // nobody listens any more
}

TEST_F(KdcLocatorTest, ExchangeAsksAheadForTheJoinedRealm) {
  std::filesystem::create_directories(lumo::path::SETTINGS_STORE);
  chmod(lumo::path::SETTINGS_STORE, 0700);
  testsupport::writeFile(std::string(lumo::path::SETTINGS_STORE) + "domain.name", "corp.test", 0600);
  const testsupport::LogCapture log{"TRACE"};
  DnsServer server({});
  OM_uint32 minor = 1;
  EXPECT_EQ(
      gss_init_server_locator(&minor, nullptr, nullptr, reinterpret_cast<void*>(&krb5_dc_locator_callback), nullptr),
      static_cast<OM_uint32>(GSS_S_COMPLETE));
  EXPECT_EQ(minor, 0U);
  EXPECT_THAT(server.asked(), testing::Contains("_kerberos._tcp.dc._msdcs.corp.test"));
  EXPECT_THAT(log.text(), HasSubstr("No KDC of realm 'CORP.TEST' is known to the name service"));
}

}  // namespace
