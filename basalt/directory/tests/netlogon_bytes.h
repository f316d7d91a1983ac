// Replies to the LDAP ping by hand, for tests.
#pragma once

#include <string>

#include "testsupport/dns_bytes.h"

// A reply whose host and domain refer back to the forest's name at its start.
inline std::string netlogonValue(const std::string& clientSite, char opcode = 23,
                                 const std::string& forest = "corp.test") {
  std::string bytes = std::string(1, opcode) + std::string("\0\0\0\xfd\xf3\x03\x00", 7) + std::string(16, 'G');
  bytes += dnsName(forest);             // at 24
  bytes += std::string("\xc0\x18", 2);  // domain: the forest's name
  bytes += std::string(
      "\x03"
      "dc1\xc0\x18",
      6);
  bytes += dnsName("CORP") + dnsName("DC1") + dnsName("");
  bytes += dnsName("Server-Site") + (clientSite.empty() ? dnsName("") : dnsName(clientSite));
  return bytes + std::string("\x05\0\0\0\xff\xff\xff\xff", 8);
}

inline std::string berItem(unsigned char tag, const std::string& content) {
  std::string length;
  if (content.size() < 0x80) {
    length = std::string(1, static_cast<char>(content.size()));
  } else {
    length = "\x82" + number16(static_cast<unsigned>(content.size()));
  }
  return static_cast<char>(tag) + length + content;
}

inline std::string ldapMessage(unsigned char id, const std::string& operation) {
  return berItem(0x30, berItem(0x02, std::string(1, static_cast<char>(id))) + operation);
}

// A search's entry with one attribute.
inline std::string ldapEntry(const std::string& dn, const std::string& attribute, const std::string& value) {
  return berItem(0x64, berItem(0x04, dn) + berItem(0x30, berItem(0x30, berItem(0x04, attribute) +
                                                                           berItem(0x31, berItem(0x04, value)))));
}

// A search's end.
inline std::string ldapDone(unsigned char code, const std::string& text = "") {
  return berItem(0x65,
                 berItem(0x0a, std::string(1, static_cast<char>(code))) + berItem(0x04, "") + berItem(0x04, text));
}
