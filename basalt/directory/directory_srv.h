// Servers by DNS: SRV records, read and put in order.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace lumo {

// One SRV record (RFC 2782).
struct SrvRecord {
  std::uint16_t priority = 0;
  std::uint16_t weight = 0;
  std::uint16_t port = 0;
  std::string target;  // without a final dot
};

// What DNS said about a name.
struct SrvAnswer {
  enum class Status {
    Found,
    NoRecords,  // DNS answers that there are none
    Silent      // no DNS server answers, or it refuses
  } status = Status::NoRecords;
  std::vector<SrvRecord> records;  // in the order of the answer
  std::string reason;              // of Silent, in words
};

// A number from 0 to `limit`, both included.
using RandomUpTo = std::function<std::uint32_t(std::uint32_t limit)>;

// The SRV records of a DNS answer. Records whose target is the root ("no such service here") or no host name are left
// out. Throws BadDataException for bytes that are no DNS message. Pure.
std::vector<SrvRecord> parseSrvAnswer(const unsigned char* bytes, std::size_t size);

// The records in the order in which to try them (RFC 2782): by priority, within one by lot, weighted. Pure but for the
// lots.
std::vector<SrvRecord> orderSrvRecords(std::vector<SrvRecord> records, const RandomUpTo& random);

// Asks the DNS servers of the host; a few seconds at the most for each of them. What does not fit into a datagram is
// asked for by TCP, within `tcpLimit` from each; where none gives it, the records that did fit are the answer. Never
// throws. Any thread.
SrvAnswer lookUpSrv(const std::string& name, std::chrono::milliseconds tcpLimit = std::chrono::seconds(2));

}  // namespace lumo
