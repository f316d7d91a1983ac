#include "basalt/directory_srv.h"

#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "base/include/exceptions.h"

namespace lumo {
namespace {

constexpr int QUERY_SECONDS = 2;   // until the next server is asked
constexpr int QUERY_ATTEMPTS = 2;  // rounds over all servers
constexpr std::size_t MAX_ANSWER = 65535;
constexpr int SRV_FIXED_BYTES = 6;  // priority, weight, port

bool isHostName(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_' || c == '.';
  });
}

// The resolver's state of one query.
class Resolver {
 public:
  Resolver() {
    m_ready = res_ninit(&m_state) == 0;
    m_state.retrans = QUERY_SECONDS;
    m_state.retry = QUERY_ATTEMPTS;
  }
  ~Resolver() {
    if (m_ready) res_nclose(&m_state);
  }
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;

  // Bytes of the answer, or -1.
  int query(const std::string& name, std::vector<unsigned char>& answer) {
    return m_ready
               ? res_nquery(&m_state, name.c_str(), ns_c_in, ns_t_srv, answer.data(), static_cast<int>(answer.size()))
               : -1;
  }
  bool saysNone() const { return m_ready && (m_state.res_h_errno == HOST_NOT_FOUND || m_state.res_h_errno == NO_DATA); }
  const char* reason() const { return hstrerror(m_ready ? m_state.res_h_errno : NETDB_INTERNAL); }

 private:
  struct __res_state m_state {};
  bool m_ready = false;
};

}  // namespace

std::vector<SrvRecord> parseSrvAnswer(const unsigned char* bytes, std::size_t size) {
  ns_msg message;
  if (size > MAX_ANSWER || ns_initparse(bytes, static_cast<int>(size), &message) != 0) {
    LUMO_THROW(BadDataException, -1, "The answer of the DNS server is damaged");
  }
  std::vector<SrvRecord> records;
  for (int i = 0; i < ns_msg_count(message, ns_s_an); ++i) {
    ns_rr record;
    if (ns_parserr(&message, ns_s_an, i, &record) != 0) {
      LUMO_THROW(BadDataException, -1, "The answer of the DNS server is damaged");
    }
    if (ns_rr_type(record) != ns_t_srv || ns_rr_class(record) != ns_c_in) continue;
    if (ns_rr_rdlen(record) <= SRV_FIXED_BYTES) {
      LUMO_THROW(BadDataException, -1, "The answer of the DNS server is damaged");
    }
    const unsigned char* data = ns_rr_rdata(record);
    char target[NS_MAXDNAME];
    if (ns_name_uncompress(ns_msg_base(message), ns_msg_end(message), data + SRV_FIXED_BYTES, target, sizeof target) <
        0) {
      LUMO_THROW(BadDataException, -1, "The answer of the DNS server is damaged");
    }
    SrvRecord one{static_cast<std::uint16_t>(ns_get16(data)), static_cast<std::uint16_t>(ns_get16(data + 2)),
                  static_cast<std::uint16_t>(ns_get16(data + 4)), target};
    if (isHostName(one.target) && one.target != ".") records.push_back(std::move(one));
  }
  return records;
}

std::vector<SrvRecord> orderSrvRecords(std::vector<SrvRecord> records, const RandomUpTo& random) {
  // Those without weight come first, so that a lot of zero can fall on them.
  std::stable_sort(records.begin(), records.end(), [](const SrvRecord& a, const SrvRecord& b) {
    return a.priority != b.priority ? a.priority < b.priority : a.weight == 0 && b.weight != 0;
  });
  for (auto first = records.begin(); first != records.end(); ++first) {
    const auto end = std::find_if(first, records.end(), [&](const auto& r) { return r.priority != first->priority; });
    std::uint32_t sum = 0;
    for (auto r = first; r != end; ++r) sum += r->weight;
    const std::uint32_t lot = random(sum);
    std::uint32_t running = 0;
    const auto drawn = std::find_if(first, end, [&](const auto& r) { return (running += r.weight) >= lot; });
    // The order of those that wait stays, the ones without weight in front.
    if (drawn != end) std::rotate(first, drawn, drawn + 1);
  }
  return records;
}

SrvAnswer lookUpSrv(const std::string& name) {
  Resolver resolver;
  std::vector<unsigned char> bytes(MAX_ANSWER);
  const int size = resolver.query(name, bytes);
  if (size < 0 && resolver.saysNone()) return {SrvAnswer::Status::NoRecords, {}, {}};
  if (size < 0) return {SrvAnswer::Status::Silent, {}, resolver.reason()};
  try {
    auto records = parseSrvAnswer(bytes.data(), std::min(static_cast<std::size_t>(size), bytes.size()));
    const auto status = records.empty() ? SrvAnswer::Status::NoRecords : SrvAnswer::Status::Found;
    return {status, std::move(records), {}};
  } catch (const BadDataException& damage) {
    return {SrvAnswer::Status::Silent, {}, damage.what()};
  }
}

}  // namespace lumo
