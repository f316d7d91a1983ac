#include "basalt/directory/directory_ping.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

#include "basalt/process/clock.h"
#include "base/include/exceptions.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

constexpr std::size_t MAX_ASKED = 5;
constexpr std::chrono::milliseconds BEFORE_THE_NEXT{200};
constexpr std::size_t MAX_DATAGRAM = 65536;

// One ping over several servers.
class Ping {
 public:
  explicit Ping(const std::string& domain) : m_domain(domain) {}

  void ask(const DirectoryServer& server) {
    for (FileDescriptor& socket : connectUdp(server)) {
      const int id = ++m_lastId;
      const std::string request = netlogonRequest(m_domain, id);
      if (send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) continue;
      m_asked.push_back({std::move(socket), id});
    }
  }
  bool hopeless() const { return m_asked.empty(); }

  // The first good reply until then; ends early when nobody is left who could answer.
  std::optional<NetlogonReply> wait(SteadyTime until) {
    while (!hopeless()) {
      std::vector<pollfd> waiting;
      for (const auto& asked : m_asked) waiting.push_back({asked.socket.get(), POLLIN, 0});
      const int ready = poll(waiting.data(), waiting.size(), pollTime(until));
      if (ready == 0) return std::nullopt;
      for (std::size_t i = waiting.size(); ready > 0 && i-- > 0;) {
        if (waiting[i].revents == 0) continue;
        if (auto reply = take(i)) return reply;
      }
      if (std::chrono::steady_clock::now() >= until) return std::nullopt;
    }
    return std::nullopt;
  }

 private:
  struct Asked {
    FileDescriptor socket;
    int id;
  };

  std::optional<NetlogonReply> take(std::size_t index) {
    std::string datagram(MAX_DATAGRAM, '\0');
    const ssize_t size = recv(m_asked[index].socket.get(), datagram.data(), datagram.size(), 0);
    if (size >= 0) {
      datagram.resize(static_cast<std::size_t>(size));
      try {
        auto reply = parseNetlogonMessage(datagram, m_asked[index].id);
        if (reply && lower(reply->domain) == lower(m_domain)) return reply;
      } catch (const BadDataException&) {
        // A server that talks nonsense is one that does not answer.
      }
    }
    m_asked.erase(m_asked.begin() + static_cast<std::ptrdiff_t>(index));
    return std::nullopt;
  }

  const std::string& m_domain;
  std::vector<Asked> m_asked;
  int m_lastId = 0;
};

}  // namespace

std::optional<NetlogonReply> netlogonPing(const std::vector<DirectoryServer>& servers, const std::string& domain,
                                          std::chrono::milliseconds limit) {
  const SteadyTime end = std::chrono::steady_clock::now() + limit;
  Ping ping(domain);
  const std::size_t count = std::min(servers.size(), MAX_ASKED);
  for (std::size_t i = 0; i < count && std::chrono::steady_clock::now() < end; ++i) {
    ping.ask(servers[i]);
    const bool last = i + 1 == count;
    // Also where all the time went into looking names up: whoever was asked has a moment for the answer.
    const SteadyTime moment = std::chrono::steady_clock::now() + BEFORE_THE_NEXT;
    if (auto reply = ping.wait(last ? std::max(end, moment) : moment)) return reply;
  }
  return std::nullopt;
}

std::optional<NetlogonReply> PingMemory::operator()(const std::vector<DirectoryServer>& servers,
                                                    const std::string& domain) {
  {
    const Lock lock(m_mutex);
    const auto known = m_known.find(lower(domain));
    if (known != m_known.end() && Clock::getInstance().steadyNow() < known->second.until) return known->second.reply;
  }
  return renew(servers, domain);
}

std::optional<NetlogonReply> PingMemory::renew(const std::vector<DirectoryServer>& servers, const std::string& domain) {
  const auto now = Clock::getInstance().steadyNow();
  auto reply = m_ping(servers, domain);
  const Lock lock(m_mutex);
  if (reply) m_known[lower(domain)] = Known{*reply, now + LIFE};
  return reply;
}

}  // namespace lumo
