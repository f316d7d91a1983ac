// Server side of the agent's local RPC: an agent or a test hosts it. docs/rpc.md tells the wire format.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "basalt/directory/directory.h"
#include "base/include/exceptions.h"
#include "base/include/parameter_names.h"
#include "quill/local_rpc_session.h"

namespace lumo {

// The process at the other end, as the kernel knew it when it connected.
struct RpcCaller {
  pid_t pid = -1;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
};

// An error reply with a code of the handler's choice, rc(): docs/rpc.md has them.
LUMO_DECLARE_EXCEPTION(RpcRefusedException, Base_Exception);

// What an agent answers. Any operation may be called on several threads at once. Whatever is thrown becomes an error
// reply with the exception's text, and RpcRefusedException gives its code too. The server cannot break an operation
// off: keep it shorter than the client's deadline.
class LocalRpcHandler {
 public:
  virtual ~LocalRpcHandler() = default;
  // Throws to refuse the caller.
  virtual void authenticateProcess(const RpcCaller& caller) = 0;
  // Null when the user is unknown. Only for callers that have authenticated themselves.
  virtual ADObjectPtr getUserObj(const RpcCaller& caller, const std::string& name, UserLookup lookup) = 0;
  // Null when there is no object at dn. `attributes` may be null: all. Only for callers that have authenticated
  // themselves.
  virtual ADObjectPtr ldapFetch(const RpcCaller& caller, const std::string& base, const std::string& dn,
                                const std::vector<std::string>* attributes, int flags) = 0;
  virtual int getFipsMode(const RpcCaller& caller) = 0;
  // A method that the agent has beside those of above, which never come here. `params` is JSON, "null" when the caller
  // gave none; what comes back is JSON too. Only for callers that have authenticated themselves. Throws
  // RpcRefusedException: -32602 for wrong params; this one -32601, "Unknown method".
  virtual std::string call(const RpcCaller& caller, const std::string& method, const std::string& params);
};

struct LocalRpcServerOptions {
  std::string path = lumo::path::AGENT_SOCKET;
  mode_t mode = 0600;    // of the socket file
  bool rootOnly = true;  // other callers get an error reply and are disconnected, whatever the mode
  // Served at once; an agent gives the value of `lumod.max.client.threads`. Root's further clients wait in the backlog.
  // Where rootOnly is false a quarter of the places is root's alone, and one other user has at most a quarter
  // (quill/rpc_places.h); its further clients get an error reply and are disconnected.
  int maxClients = 20;
  std::chrono::milliseconds callLimit = std::chrono::seconds(10);   // for a request or a reply to get through
  std::chrono::milliseconds idleLimit = std::chrono::seconds(900);  // between two requests
};

// Serves from construction to stop(), on threads of its own. The handler must live as long. Construction and stop():
// one thread.
class LocalRpcServer {
 public:
  // A socket file that nobody serves is replaced. Throws IOException when somebody serves the path, and SystemException
  // when the socket cannot be made, e.g. because something else stands at the path.
  explicit LocalRpcServer(LocalRpcHandler& handler, LocalRpcServerOptions options = {});
  // Stops.
  ~LocalRpcServer();
  LocalRpcServer(const LocalRpcServer&) = delete;
  LocalRpcServer& operator=(const LocalRpcServer&) = delete;

  // Takes the socket file away, lets requests in hand end, disconnects all clients and waits for its threads. A second
  // call does nothing.
  void stop();

 private:
  class Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace lumo
