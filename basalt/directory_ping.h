// The LDAP ping: a domain controller says by one datagram which forest and which site it and its caller belong to.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "basalt/directory_socket.h"

namespace lumo {

// What a domain controller tells (NETLOGON_SAM_LOGON_RESPONSE_EX).
struct NetlogonReply {
  std::uint32_t flags = 0;  // DS_FLAG bits: what the controller is
  std::string forest;       // DNS names
  std::string domain;
  std::string host;
  std::string serverSite;
  std::string clientSite;  // empty when the caller's address belongs to no site
};

// The time within which the ping ends, whoever answers or not.
constexpr std::chrono::milliseconds PING_LIMIT{2000};

// The question as an LDAP message for one datagram.
std::string netlogonRequest(const std::string& domain, int messageId);

// The value of the `netlogon` attribute. Throws BadDataException for what is none. Pure.
NetlogonReply parseNetlogonReply(const std::string& value);

// The reply to the message of that number in a datagram; nothing when the datagram is something else. Throws
// BadDataException for a damaged value. Pure.
std::optional<NetlogonReply> parseNetlogonMessage(const std::string& datagram, int messageId);

// Asks the first few of the servers, a moment after one another, and takes the first good reply for that domain.
// Nothing when none came within the limit: the caller then knows no site. Never throws. Any thread.
std::optional<NetlogonReply> netlogonPing(const std::vector<DirectoryServer>& servers, const std::string& domain,
                                          std::chrono::milliseconds limit = PING_LIMIT);

}  // namespace lumo
