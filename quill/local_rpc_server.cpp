#include "quill/local_rpc_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <list>
#include <map>
#include <optional>
#include <system_error>
#include <thread>

#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/wipe.h"
#include "quill/rpc_channel.h"
#include "quill/rpc_message.h"
#include "quill/rpc_places.h"
#include "quill/rpc_socket_file.h"

namespace lumo {
namespace {

using std::chrono::steady_clock;

constexpr char LOGGER[] = "quill.server";

// Refusals of one user are logged at WARN once in this time, at DEBUG otherwise.
constexpr auto TOLD_AGAIN = std::chrono::minutes(1);
constexpr std::size_t MOST_TOLD = 1000;

// A counter that a poll can wait for.
class Event {
 public:
  Event() : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_fd) LUMO_THROW(SystemException, errno, "Cannot make an event: %s", strerror(errno));
  }
  int fd() const { return m_fd.get(); }
  void raise() const {
    // The one failure, a full counter, means that it is raised already.
    const eventfd_t one = 1;
    [[maybe_unused]] const int ignored = eventfd_write(m_fd.get(), one);
  }
  void clear() const {
    eventfd_t count = 0;
    [[maybe_unused]] const int ignored = eventfd_read(m_fd.get(), &count);
  }

 private:
  FileDescriptor m_fd;
};

// One client's dialogue, from the accepted socket to its end.
class Conversation {
 public:
  Conversation(LocalRpcHandler& handler, const LocalRpcServerOptions& options, FileDescriptor socket,
               const RpcCaller& caller, int stopFd)
      : m_handler(handler), m_options(options), m_channel(std::move(socket), stopFd), m_caller(caller) {}

  void hold() {
    while (auto content = m_channel.receive(m_options.idleLimit, m_options.callLimit)) {
      const WipeAtEnd wiped(*content);
      m_busy = true;
      send(answer(*content));
      m_busy = false;
    }
  }

  // Says why and leaves; a caller that is refused never holds one of the places.
  void refuse(const RpcFault& fault) { m_channel.send(encodeReply({std::nullopt, fault}), steady_clock::now()); }

  // The client sees the end of the connection.
  void shut() const { m_channel.shut(); }

  // Has the client gone, with no request of it in hand? hold() is then about to return. Any thread.
  bool isEnding() const { return !m_busy && m_channel.peerClosed(); }

  const RpcCaller& caller() const { return m_caller; }

 private:
  RpcReply answer(const std::string& content) {
    auto decoded = decodeRequest(content);
    if (const auto* fault = std::get_if<RpcReply>(&decoded)) return *fault;
    auto& request = std::get<RpcRequest>(decoded);
    const WipeAtEnd wiped(request.params);
    try {
      return {request.id, serve(request)};
    } catch (const RpcRefusedException& refused) {
      return {request.id, RpcFault{refused.rc(), refused.what()}};
    } catch (const LUMOException& failure) {
      return {request.id, RpcFault{rpc::RequestFailed, failure.what()}};
    } catch (const std::exception& failure) {
      return {request.id, RpcFault{rpc::InternalError, failure.what()}};
    } catch (...) {
      return {request.id, RpcFault{rpc::InternalError, "The agent failed for an unknown reason"}};
    }
  }

  RpcResult serve(const RpcRequest& request) {
    switch (request.method) {
      case RpcMethod::AuthenticateProcess:
        m_handler.authenticateProcess(m_caller);
        m_authenticated = true;
        return true;
      case RpcMethod::GetFipsMode:
        return m_handler.getFipsMode(m_caller);
      case RpcMethod::GetUserObj:
      case RpcMethod::LdapFetch:
      case RpcMethod::Own:
        break;
    }
    if (!m_authenticated) return RpcFault{rpc::NotAuthenticated, "The caller has not authenticated itself"};
    if (request.method == RpcMethod::Own) {
      return RpcJson{m_handler.call(m_caller, request.ownMethod, request.params)};
    }
    if (request.method == RpcMethod::GetUserObj) return m_handler.getUserObj(m_caller, request.name, request.lookup);
    return m_handler.ldapFetch(m_caller, request.base, request.dn, request.attributes ? &*request.attributes : nullptr,
                               request.flags);
  }

  void send(const RpcReply& reply) {
    std::string content;
    try {
      content = encodeReply(reply);
    } catch (const BadDataException& failure) {
      content = encodeReply({reply.id, RpcFault{rpc::InternalError, failure.what()}});
    }
    if (content.size() > MAX_FRAME) {
      content = encodeReply({reply.id, RpcFault{rpc::ReplyTooLarge, "The reply is larger than 1 MiB"}});
    }
    m_channel.send(content, steady_clock::now() + m_options.callLimit);
  }

  LocalRpcHandler& m_handler;
  const LocalRpcServerOptions& m_options;
  RpcChannel m_channel;
  RpcCaller m_caller;
  std::atomic<bool> m_busy{false};
  bool m_authenticated = false;
};

std::optional<RpcCaller> callerOf(int fd) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
  return RpcCaller{credentials.pid, credentials.uid, credentials.gid};
}

}  // namespace

std::string LocalRpcHandler::call(const RpcCaller&, const std::string&, const std::string&) {
  LUMO_THROW(RpcRefusedException, rpc::UnknownMethod, "Unknown method");
}

class LocalRpcServer::Impl {
 public:
  Impl(LocalRpcHandler& handler, LocalRpcServerOptions options)
      : m_handler(handler),
        m_options(std::move(options)),
        m_places(rpcPlaces(m_options.maxClients, m_options.rootOnly)),
        m_socket(std::in_place, m_options.path, m_options.mode) {
    m_acceptor = std::thread([this] { accept(); });
  }

  ~Impl() {
    m_stop.raise();
    m_acceptor.join();
    m_socket.reset();
    for (auto& client : m_clients) client.thread.join();
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

 private:
  struct Client {
    std::unique_ptr<Conversation> talk;
    std::thread thread;
    std::atomic<bool> done{false};
  };

  // The acceptor's thread: the only one that touches m_clients and m_told until it ends.
  void accept() {
    bool resting = false;  // after a failure that a moment's patience may mend
    for (;;) {
      const bool full = m_clients.size() >= m_places.all;
      pollfd waiting[3] = {
          {m_stop.fd(), POLLIN, 0}, {m_freed.fd(), POLLIN, 0}, {full || resting ? -1 : m_socket->fd(), POLLIN, 0}};
      poll(waiting, 3, resting ? 100 : -1);
      resting = false;
      if (waiting[0].revents != 0) return;
      if (waiting[1].revents != 0) reap();
      if (waiting[2].revents != 0) resting = !acceptOne();
    }
  }

  void reap() {
    m_freed.clear();
    m_clients.remove_if([](Client& client) {
      if (!client.done) return false;
      client.thread.join();
      return true;
    });
  }

  // Root, and the user of this process, which can stop the server anyway. These alone may fill every place.
  static bool isOwner(uid_t uid) { return uid == 0 || uid == geteuid(); }

  // Why this caller is not served, if it is not.
  std::optional<RpcFault> refusalOf(const RpcCaller& caller) const {
    const std::string user = "User " + std::to_string(caller.uid);
    if (m_options.rootOnly && caller.uid != 0) return RpcFault{rpc::CallerRefused, user + " may not talk to the agent"};
    if (isOwner(caller.uid)) return std::nullopt;
    std::size_t others = 0;
    std::size_t own = 0;
    for (const Client& client : m_clients) {
      const uid_t uid = client.talk->caller().uid;
      if (!isOwner(uid)) ++others;
      // A client that closes one connection and opens the next must not depend on how soon our thread notices.
      if (uid == caller.uid && !client.done && !client.talk->isEnding()) ++own;
    }
    if (own >= m_places.perUser) {
      return RpcFault{rpc::TooManyOfUser,
                      user + " has " + std::to_string(own) + " connections to the agent, as many as one user may have"};
    }
    if (others < m_places.others) return std::nullopt;
    return RpcFault{rpc::NoPlace, "The agent serves as many clients as it can; try again later"};
  }

  // Users must not be able to fill the log, nor this memory of them.
  void tell(const RpcCaller& caller, const RpcFault& fault) {
    const auto now = steady_clock::now();
    if (m_told.size() >= MOST_TOLD) m_told.clear();
    const auto told = m_told.find(caller.uid);
    const int level = told == m_told.end() || now - told->second >= TOLD_AGAIN ? 3 : 1;
    if (level == 3) m_told[caller.uid] = now;
    LUMO_LOG(getLogger(LOGGER, false), level, "Refused process %d of user %u: %s", static_cast<int>(caller.pid),
             caller.uid, fault.message.c_str());
  }

  // False when the system had no room for another client.
  bool acceptOne() {
    FileDescriptor socket(accept4(m_socket->fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) return errno != EMFILE && errno != ENFILE && errno != ENOMEM && errno != ENOBUFS;
    const auto caller = callerOf(socket.get());
    if (!caller) return true;
    auto conversation = std::make_unique<Conversation>(m_handler, m_options, std::move(socket), *caller, m_stop.fd());
    if (const auto fault = refusalOf(*caller)) {
      tell(*caller, *fault);
      guarded([&] { conversation->refuse(*fault); });
      return true;
    }
    return serve(std::move(conversation));
  }

  bool serve(std::unique_ptr<Conversation> conversation) {
    Client& client = m_clients.emplace_back();
    client.talk = std::move(conversation);
    try {
      client.thread = std::thread([this, &client] {
        guarded([&] { client.talk->hold(); });
        client.talk->shut();
        client.done = true;
        m_freed.raise();
      });
    } catch (const std::system_error& failure) {
      m_clients.pop_back();
      LUMO_LOG(getLogger(LOGGER, false), lumo::level::Error, "Cannot serve a client: %s", failure.what());
      return false;
    }
    return true;
  }

  // The border of one conversation: its failure ends it and nothing else.
  template <typename Talk>
  static void guarded(Talk talk) {
    try {
      talk();
    } catch (const std::exception& failure) {
      LUMO_LOG(getLogger(LOGGER, false), lumo::level::Debug, "Conversation ended: %s", failure.what());
    }
  }

  LocalRpcHandler& m_handler;
  LocalRpcServerOptions m_options;
  RpcPlaces m_places;
  std::optional<RpcSocketFile> m_socket;
  Event m_stop;
  Event m_freed;
  std::list<Client> m_clients;
  std::map<uid_t, steady_clock::time_point> m_told;  // when a refusal of that user was last logged at WARN
  std::thread m_acceptor;
};

LocalRpcServer::LocalRpcServer(LocalRpcHandler& handler, LocalRpcServerOptions options)
    : m_impl(std::make_unique<Impl>(handler, std::move(options))) {}

LocalRpcServer::~LocalRpcServer() { stop(); }

void LocalRpcServer::stop() { m_impl.reset(); }

}  // namespace lumo
