// The LDAP ping: a domain controller says by one datagram which forest and which site it and its caller belong to.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "basalt/directory/directory_socket.h"
#include "base/include/mutex.h"

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

// The time within which the ping ends, whoever answers or not; looking up names may take longer, and the server that
// was asked last has a moment behind it.
constexpr std::chrono::milliseconds PING_LIMIT{2000};

// The question as an LDAP message for one datagram.
std::string netlogonRequest(const std::string& domain, int messageId);

// The value of the `netlogon` attribute. Throws BadDataException for what is none. Pure.
NetlogonReply parseNetlogonReply(const std::string& value);

// The reply to the message of that number in a datagram; nothing when the datagram is something else. Throws
// BadDataException for a damaged value. Pure.
std::optional<NetlogonReply> parseNetlogonMessage(const std::string& datagram, int messageId);

// Asks the first few of the servers at all their addresses, a moment after one another, and takes the first good reply
// for that domain.
// Nothing when none came within the limit: the caller then knows no site. Never throws. Any thread.
std::optional<NetlogonReply> netlogonPing(const std::vector<DirectoryServer>& servers, const std::string& domain,
                                          std::chrono::milliseconds limit = PING_LIMIT);

// Remembers a domain's reply for ten minutes: forest and site change seldom, and two bindings to one domain need no two
// pings. A ping without a reply is not remembered. Any thread, as far as the ping given is for any.
class PingMemory {
 public:
  using Ping = std::function<std::optional<NetlogonReply>(const std::vector<DirectoryServer>&, const std::string&)>;
  static constexpr std::chrono::minutes LIFE{10};

  explicit PingMemory(Ping ping) : m_ping(std::move(ping)) {}
  std::optional<NetlogonReply> operator()(const std::vector<DirectoryServer>& servers, const std::string& domain);
  // Pings whatever is remembered; a reply is then remembered, silence leaves the last one until its time.
  std::optional<NetlogonReply> renew(const std::vector<DirectoryServer>& servers, const std::string& domain);

 private:
  struct Known {
    NetlogonReply reply;
    std::chrono::steady_clock::time_point until;
  };

  Ping m_ping;
  Mutex m_mutex;
  std::map<std::string, Known> m_known;
};

}  // namespace lumo
