// DNS messages by hand, for tests.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

inline std::string number16(unsigned value) {
  return {static_cast<char>(static_cast<unsigned char>(value >> 8U)),
          static_cast<char>(static_cast<unsigned char>(value & 0xffU))};
}

inline std::string dnsName(const std::string& name) {
  std::string bytes;
  for (std::size_t at = 0; at < name.size();) {
    const std::size_t dot = std::min(name.find('.', at), name.size());
    bytes += static_cast<char>(dot - at);
    bytes.append(name, at, dot - at);
    at = dot + 1;
  }
  return bytes + '\0';
}

inline std::string srvData(unsigned priority, unsigned weight, unsigned port, const std::string& target) {
  return number16(priority) + number16(weight) + number16(port) + dnsName(target);
}

// An answer to one question with these data as records of that type (33: SRV).
inline std::string dnsAnswer(const std::vector<std::string>& data, unsigned type = 33) {
  std::string bytes = number16(0x1234) + number16(0x8180) + number16(1) + number16(static_cast<unsigned>(data.size())) +
                      number16(0) + number16(0);
  bytes += dnsName("_ldap._tcp.corp.test") + number16(33) + number16(1);
  for (const std::string& one : data) {
    bytes += number16(0xc00c) + number16(type) + number16(1) + number16(0) + number16(600) +
             number16(static_cast<unsigned>(one.size())) + one;
  }
  return bytes;
}
