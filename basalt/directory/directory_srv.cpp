#include "basalt/directory/directory_srv.h"

#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <resolv.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <optional>

#include "basalt/directory/directory_socket.h"
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

using Bytes = std::vector<unsigned char>;

unsigned flagsOf(const Bytes& message) { return ns_get16(message.data() + sizeof(std::uint16_t)); }
bool isCutOff(const Bytes& message) { return (flagsOf(message) & 0x0200U) != 0; }
bool isFailure(const Bytes& message) { return (flagsOf(message) & 0x000fU) != 0; }
bool isSameQuestion(const Bytes& a, const Bytes& b) { return ns_get16(a.data()) == ns_get16(b.data()); }

bool readWhole(int fd, unsigned char* to, std::size_t size, SteadyTime end) {
  while (size > 0) {
    pollfd waiting{fd, POLLIN, 0};
    const int ready = poll(&waiting, 1, pollTime(end));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    const ssize_t got = recv(fd, to, size, 0);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) return false;
    to += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

// The answer to a question by TCP (RFC 1035, section 4.2.2); nothing when it did not come in time.
std::optional<Bytes> askByTcp(const DirectoryServer& server, const Bytes& question, std::chrono::milliseconds limit) {
  const SteadyTime end = std::chrono::steady_clock::now() + limit;
  const Connected connected = connectTcp(server, limit);
  if (!connected.socket) return std::nullopt;
  Bytes message(NS_INT16SZ);
  ns_put16(static_cast<unsigned>(question.size()), message.data());
  message.insert(message.end(), question.begin(), question.end());
  const int fd = connected.socket.get();
  if (send(fd, message.data(), message.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(message.size())) {
    return std::nullopt;
  }
  unsigned char length[NS_INT16SZ];
  if (!readWhole(fd, length, sizeof length, end)) return std::nullopt;
  Bytes answer(ns_get16(length));
  if (answer.size() < NS_HFIXEDSZ || !readWhole(fd, answer.data(), answer.size(), end)) return std::nullopt;
  if (!isSameQuestion(answer, question) || isFailure(answer)) return std::nullopt;
  return answer;
}

// The resolver's state of one query.
class Resolver {
 public:
  Resolver() {
    m_ready = res_ninit(&m_state) == 0;
    m_state.retrans = QUERY_SECONDS;
    m_state.retry = QUERY_ATTEMPTS;
    // By TCP the library would wait without a limit.
    m_state.options |= RES_IGNTC;
  }
  ~Resolver() {
    if (m_ready) res_nclose(&m_state);
  }
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;

  // Bytes of the answer, or -1.
  int query(const std::string& name, Bytes& answer, std::chrono::milliseconds tcpLimit) {
    if (!m_ready) return -1;
    const int size =
        res_nquery(&m_state, name.c_str(), ns_c_in, ns_t_srv, answer.data(), static_cast<int>(answer.size()));
    m_cutOff = isCutOff(answer);
    if (!m_cutOff) return size;
    if (auto whole = queryByTcp(name, tcpLimit)) {
      answer.swap(*whole);
      return static_cast<int>(answer.size());
    }
    return size;
  }
  bool saysNone() const {
    return m_ready && !m_cutOff && (m_state.res_h_errno == HOST_NOT_FOUND || m_state.res_h_errno == NO_DATA);
  }
  const char* reason() const {
    return m_cutOff ? "The answer needs TCP, and no DNS server gives it"
                    : hstrerror(m_ready ? m_state.res_h_errno : NETDB_INTERNAL);
  }

 private:
  std::optional<Bytes> queryByTcp(const std::string& name, std::chrono::milliseconds limit) {
    Bytes question(NS_PACKETSZ);
    const int size = res_nmkquery(&m_state, ns_o_query, name.c_str(), ns_c_in, ns_t_srv, nullptr, 0, nullptr,
                                  question.data(), static_cast<int>(question.size()));
    if (size < 0) return std::nullopt;
    question.resize(static_cast<std::size_t>(size));
    for (int i = 0; i < m_state.nscount; ++i) {
      if (auto answer = askByTcp(serverAt(i), question, limit)) return answer;
    }
    return std::nullopt;
  }

  // Those with an IPv6 address stand apart.
  DirectoryServer serverAt(int index) const {
    const sockaddr_in& four = m_state.nsaddr_list[index];
    const sockaddr_in6* six = four.sin_family == 0 ? m_state._u._ext.nsaddrs[index] : nullptr;
    const auto* address =
        six != nullptr ? reinterpret_cast<const sockaddr*>(six) : reinterpret_cast<const sockaddr*>(&four);
    const socklen_t size = six != nullptr ? sizeof *six : sizeof four;
    char host[NI_MAXHOST] = "";
    getnameinfo(address, size, host, sizeof host, nullptr, 0, NI_NUMERICHOST);
    return {host, ntohs(six != nullptr ? six->sin6_port : four.sin_port)};
  }

  struct __res_state m_state {};
  bool m_ready = false;
  bool m_cutOff = false;
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

SrvAnswer lookUpSrv(const std::string& name, std::chrono::milliseconds tcpLimit) {
  Resolver resolver;
  Bytes bytes(MAX_ANSWER);
  const int size = resolver.query(name, bytes, tcpLimit);
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
