// A DNS server of the test's own on 127.0.0.1:53 of the private host.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "basalt/files/posix_file.h"
#include "testsupport/dns_bytes.h"

struct DnsRecord {
  unsigned type;
  std::string data;
};
inline constexpr unsigned DNS_A = 1;
inline constexpr unsigned DNS_SRV = 33;

// Answers from a table; a name that is not in it does not exist. Each answer comes so much later than its question, and
// of more records than `mostRecords` the first alone fit into a datagram.
class DnsServer {
 public:
  using Names = std::map<std::string, std::vector<DnsRecord>>;

  explicit DnsServer(Names names, std::chrono::milliseconds delay = {}, unsigned mostRecords = 1000)
      : m_names(std::move(names)), m_delay(delay), m_mostRecords(mostRecords) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    m_thread = std::thread([this] { serve(); });
  }
  ~DnsServer() {
    shutdown(m_socket.get(), SHUT_RDWR);
    m_thread.join();
  }
  DnsServer(const DnsServer&) = delete;
  DnsServer& operator=(const DnsServer&) = delete;

  std::vector<std::string> asked() {
    const std::lock_guard<std::mutex> held(m_mutex);
    return m_asked;
  }

  // What it would send for a question if so many records fit.
  std::string answer(const std::string& query, unsigned mostRecords) {
    std::string name;
    std::size_t at = HEADER;
    for (; query[at] != 0; at += static_cast<std::size_t>(query[at]) + 1) {
      name += (name.empty() ? "" : ".") + query.substr(at + 1, static_cast<std::size_t>(query[at]));
    }
    const auto type = static_cast<unsigned char>(query[at + 2]);
    const std::lock_guard<std::mutex> held(m_mutex);
    m_asked.push_back(name);
    const auto known = m_names.find(name);
    unsigned flags = known == m_names.end() ? 0x8183 : 0x8180;
    std::string records;
    unsigned count = 0;
    if (known != m_names.end()) {
      for (const DnsRecord& record : known->second) {
        if (record.type != type) continue;
        if (count == mostRecords) flags |= 0x0200;
        if (count == mostRecords) break;
        ++count;
        records += number16(0xc00c) + number16(type) + number16(1) + number16(0) + number16(60) +
                   number16(static_cast<unsigned>(record.data.size())) + record.data;
      }
    }
    return query.substr(0, 2) + number16(flags) + number16(1) + number16(count) + number16(0) + number16(0) +
           query.substr(HEADER, at + 5 - HEADER) + records;
  }

 private:
  static constexpr std::size_t HEADER = 12;

  void serve() {
    char buffer[1024];
    sockaddr_in peer{};
    for (;;) {
      socklen_t size = sizeof peer;
      const ssize_t got = recvfrom(m_socket.get(), buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&peer), &size);
      if (got <= static_cast<ssize_t>(HEADER)) return;
      const std::string reply = answer(std::string(buffer, static_cast<std::size_t>(got)), m_mostRecords);
      std::this_thread::sleep_for(m_delay);
      sendto(m_socket.get(), reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&peer), size);
    }
  }

  const lumo::FileDescriptor m_socket{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  const Names m_names;
  const std::chrono::milliseconds m_delay;
  const unsigned m_mostRecords;
  std::mutex m_mutex;
  std::vector<std::string> m_asked;
  std::thread m_thread;
};
