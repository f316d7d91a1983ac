#include "quill/local_rpc_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <list>
#include <optional>
#include <system_error>
#include <thread>

#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/wipe.h"
#include "quill/rpc_channel.h"
#include "quill/rpc_message.h"
#include "quill/rpc_socket_file.h"

namespace lumo {
namespace {

using std::chrono::steady_clock;

constexpr char LOGGER[] = "quill.server";

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
      send(answer(*content));
    }
  }

  // Says why and leaves; a caller that may not talk to us never holds one of the places.
  void refuse() {
    const std::string words = "User " + std::to_string(m_caller.uid) + " may not talk to the agent";
    m_channel.send(encodeReply({std::nullopt, RpcFault{rpc::CallerRefused, words}}), steady_clock::now());
  }

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
      : m_handler(handler), m_options(std::move(options)), m_socket(std::in_place, m_options.path, m_options.mode) {
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
    std::thread thread;
    std::atomic<bool> done{false};
  };

  // The acceptor's thread: the only one that touches m_clients until it ends.
  void accept() {
    bool resting = false;  // after a failure that a moment's patience may mend
    for (;;) {
      const bool full = m_clients.size() >= static_cast<std::size_t>(std::max(m_options.maxClients, 1));
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

  // False when the system had no room for another client.
  bool acceptOne() {
    FileDescriptor socket(accept4(m_socket->fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) return errno != EMFILE && errno != ENFILE && errno != ENOMEM && errno != ENOBUFS;
    const auto caller = callerOf(socket.get());
    if (!caller) return true;
    auto conversation = std::make_unique<Conversation>(m_handler, m_options, std::move(socket), *caller, m_stop.fd());
    if (m_options.rootOnly && caller->uid != 0) {
      LUMO_LOG(getLogger(LOGGER, false), 3, "Refused process %d of user %u", static_cast<int>(caller->pid),
               caller->uid);
      guarded([&] { conversation->refuse(); });
      return true;
    }
    Client& client = m_clients.emplace_back();
    try {
      client.thread = std::thread([this, talk = std::move(conversation), &client]() mutable {
        guarded([&] { talk->hold(); });
        talk.reset();
        client.done = true;
        m_freed.raise();
      });
    } catch (const std::system_error& failure) {
      m_clients.pop_back();
      LUMO_LOG(getLogger(LOGGER, false), 4, "Cannot serve a client: %s", failure.what());
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
      LUMO_LOG(getLogger(LOGGER, false), 1, "Conversation ended: %s", failure.what());
    }
  }

  LocalRpcHandler& m_handler;
  LocalRpcServerOptions m_options;
  std::optional<RpcSocketFile> m_socket;
  Event m_stop;
  Event m_freed;
  std::list<Client> m_clients;
  std::thread m_acceptor;
};

LocalRpcServer::LocalRpcServer(LocalRpcHandler& handler, LocalRpcServerOptions options)
    : m_impl(std::make_unique<Impl>(handler, std::move(options))) {}

LocalRpcServer::~LocalRpcServer() { stop(); }

void LocalRpcServer::stop() { m_impl.reset(); }

}  // namespace lumo
