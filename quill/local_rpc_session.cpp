#include "quill/local_rpc_session.h"

#include <sys/auxv.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "basalt/files/file_security.h"
#include "base/include/exceptions.h"
#include "base/include/printable.h"
#include "quill/rpc_channel.h"
#include "quill/rpc_message.h"

namespace lumo {
namespace {

using std::chrono::steady_clock;

// The errors that say that nobody serves the socket; any other is a fault of its own.
bool isNobodyThere(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ECONNREFUSED:
    case EAGAIN:  // the backlog stayed full until the time was up
    case ETIMEDOUT:
      return true;
    default:
      return false;
  }
}

sockaddr_un addressOf(const std::string& path) {
  // Without a path the address is one that has no file, and any user of the host may serve it.
  if (path.empty()) LUMO_THROW(IOException, ENOENT, "The path of the agent's socket is empty");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    LUMO_THROW(SystemException, ENAMETOOLONG, "Cannot connect to %s: the path is too long for a socket", path.c_str());
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

// 0, or the error. A blocking connect waits while the server's backlog is full, and takes its limit from the socket.
int connectWithin(int fd, const sockaddr_un& address, steady_clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - steady_clock::now()).count();
    if (left <= 0) return ETIMEDOUT;
    const timeval limit{static_cast<time_t>(left / 1000000), static_cast<suseconds_t>(left % 1000000)};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return 0;
    if (errno != EINTR) return errno;
  }
}

// Does this process act for its own user alone? One with more rights than the user who started it does not.
bool isUsersOwn() { return geteuid() != 0 && getauxval(AT_SECURE) == 0; }

// The agent answers with names and states that its callers act on, and is given passwords: whoever serves the socket
// must be root. A process of an ordinary user also takes a server of that same user, which could read its memory and
// answer in its place anyway; root, and a process with more rights than its user, never do.
void requireTrusted(int fd, const std::string& path) {
  const std::string shown = printable(path);
  ucred server{};
  socklen_t size = sizeof server;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &server, &size) != 0) {
    LUMO_THROW(SystemException, errno, "Cannot tell who serves %s: %s", shown.c_str(), strerror(errno));
  }
  if (server.uid != 0 && !(isUsersOwn() && server.uid == geteuid())) {
    LUMO_THROW(SystemException, EPERM,
               "Refused the agent at %s: user %u serves it, not root; end that process, remove the socket and start "
               "the agent again",
               shown.c_str(), server.uid);
  }
  // Kernel and file may differ: a socket that root opened for a service of another user is that user's to serve.
  try {
    checkSocketFile(path, !isUsersOwn());
  } catch (const FileSecurityException& fault) {
    LUMO_THROW(SystemException, EPERM, "Refused the agent at %s: %s", shown.c_str(), fault.what());
  }
}

FileDescriptor connected(const std::string& path, std::chrono::milliseconds limit) {
  const sockaddr_un address = addressOf(path);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) LUMO_THROW(SystemException, errno, "Cannot make a socket: %s", strerror(errno));
  const int error = connectWithin(socket.get(), address, steady_clock::now() + limit);
  if (error == 0) {
    requireTrusted(socket.get(), path);
    return socket;
  }
  if (isNobodyThere(error)) {
    LUMO_THROW(IOException, error, "Nobody serves %s: %s", path.c_str(),
               error == EAGAIN ? strerror(ETIMEDOUT) : strerror(error));
  }
  LUMO_THROW(SystemException, error, "Cannot connect to %s: %s", path.c_str(), strerror(error));
}

}  // namespace

class LocalRpcSession::Impl {
 public:
  Impl(const std::string& path, std::chrono::milliseconds limit) : m_channel(connected(path, limit)), m_limit(limit) {}

  // The result of a request; a fault in place of a result is an IPCException and leaves the session usable.
  RpcResult call(RpcRequest request) {
    request.id = ++m_lastId;
    RpcResult result = exchange(request);
    if (const auto* fault = std::get_if<RpcFault>(&result)) {
      LUMO_THROW(IPCException, fault->code, "The agent could not serve %s: %s", rpcMethodName(request).c_str(),
                 printable(fault->message).c_str());
    }
    return result;
  }

  template <typename Result>
  Result callFor(const RpcRequest& request) {
    const RpcResult result = call(request);
    if (const auto* wanted = std::get_if<Result>(&result)) return *wanted;
    LUMO_THROW(IPCException, -1, "The agent's reply to %s holds a result of another kind",
               rpcMethodName(request).c_str());
  }

  bool usable() const { return m_usable; }

 private:
  RpcResult exchange(const RpcRequest& request) {
    const auto deadline = steady_clock::now() + m_limit;
    std::string content;
    try {
      content = encodeRequest(request);
      rpcFrame(content);
    } catch (const BadDataException& failure) {
      LUMO_THROW(IPCException, -1, "Cannot send the request %s: %s", rpcMethodName(request).c_str(), failure.what());
    }
    m_usable = false;
    send(content, deadline);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
    const auto reply = m_channel.receive(left, left);
    if (!reply) LUMO_THROW(IPCException, -1, "The agent closed the connection");
    const auto form = request.method == RpcMethod::Own ? RpcResultForm::Json : RpcResultForm::Known;
    RpcReply decoded = decodeReply(*reply, form);
    if (decoded.id && *decoded.id != request.id) {
      LUMO_THROW(IPCException, -1, "The agent's reply answers request %lld, not %lld",
                 static_cast<long long>(*decoded.id), static_cast<long long>(request.id));
    }
    m_usable = true;
    return std::move(decoded.result);
  }

  // An agent that refuses a caller says so and closes at once: its words are then still there to be read.
  void send(const std::string& content, steady_clock::time_point deadline) {
    try {
      m_channel.send(content, deadline);
    } catch (const IPCException& failure) {
      if (failure.rc() != EPIPE && failure.rc() != ECONNRESET) throw;
    }
  }

  RpcChannel m_channel;
  std::chrono::milliseconds m_limit;
  std::int64_t m_lastId = 0;
  // False from the moment a request is on its way until its reply is read: a failure in between loses the stream's
  // place.
  bool m_usable = true;
};

LocalRpcSession::LocalRpcSession(const std::string& path, bool, bool, std::chrono::milliseconds limit)
    : m_impl(std::make_unique<Impl>(path, limit)) {}

LocalRpcSession::~LocalRpcSession() = default;

LocalRpcSession::Impl& LocalRpcSession::open() {
  if (!m_impl || !m_impl->usable()) LUMO_THROW(IPCException, -1, "The session with the agent is closed");
  return *m_impl;
}

void LocalRpcSession::authenticateProcess() {
  RpcRequest request;
  request.method = RpcMethod::AuthenticateProcess;
  if (!open().callFor<bool>(request)) LUMO_THROW(IPCException, -1, "The agent does not accept this process");
}

ADObjectPtr LocalRpcSession::getUserObj(const std::string& name, UserLookup lookup) {
  RpcRequest request;
  request.method = RpcMethod::GetUserObj;
  request.name = name;
  request.lookup = lookup;
  return open().callFor<ADObjectPtr>(request);
}

ADObjectPtr LocalRpcSession::ldapFetch(const std::string& base, const std::string& dn,
                                       const std::vector<std::string>* attributes, int flags) {
  RpcRequest request;
  request.method = RpcMethod::LdapFetch;
  request.base = base;
  request.dn = dn;
  if (attributes != nullptr) request.attributes = *attributes;
  request.flags = flags;
  return open().callFor<ADObjectPtr>(request);
}

int LocalRpcSession::getFipsMode() {
  RpcRequest request;
  request.method = RpcMethod::GetFipsMode;
  return open().callFor<int>(request);
}

std::string LocalRpcSession::call(const std::string& method, const std::string& params) {
  RpcRequest request;
  request.method = RpcMethod::Own;
  request.ownMethod = method;
  request.params = params;
  return open().callFor<RpcJson>(request).text;
}

void LocalRpcSession::close() { m_impl.reset(); }

}  // namespace lumo
