// Client of the agent's local RPC: JSON-RPC 2.0 in length-prefixed frames over a Unix socket.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "basalt/directory/directory.h"

namespace lumo {

enum UserLookup { UNIX_ONLY = 1 };

// One session. One thread at a time. Every call, the connecting included, has a deadline: `limit`, 10 seconds. Each
// operation but the constructor throws IPCException when the request fails: an error reply (its code is rc(); the
// session stays usable), a broken frame, the agent gone, the deadline passed (the session is then of no more use).
// docs/rpc.md tells the wire format.
class LocalRpcSession {
 public:
  // Connects to the agent. Both bools are false in every call of this system. Throws IOException when there is nobody
  // there: no socket, nobody behind it, or no answer within the limit. Any other failure is a SystemException, also an
  // agent that cannot be trusted: the socket is not served by root, or its file does not belong to root, is no socket
  // or lies in a folder that others may write to (sticky folders excepted). A process of an ordinary user also takes a
  // server and a file of that user; one that is set-user-id or has file capabilities does not.
  LocalRpcSession(const std::string& path, bool, bool, std::chrono::milliseconds limit = std::chrono::seconds(10));
  ~LocalRpcSession();
  LocalRpcSession(const LocalRpcSession&) = delete;
  LocalRpcSession& operator=(const LocalRpcSession&) = delete;

  // Proves this process to the agent (the peer credentials of the socket).
  void authenticateProcess();
  // The object of a user; null when unknown.
  ADObjectPtr getUserObj(const std::string& name, UserLookup lookup);
  // The object at dn; null when there is none. `base` is empty, `attributes` null (all) and `flags` 0 in this system.
  ADObjectPtr ldapFetch(const std::string& base, const std::string& dn, const std::vector<std::string>* attributes,
                        int flags);
  // The agent's FIPS state, comparable with FIPSHelper::isStarted() as an integer.
  int getFipsMode();
  // A method that the agent has of its own; params and result are JSON of any kind.
  std::string call(const std::string& method, const std::string& params);
  void close();

 private:
  class Impl;
  Impl& open();
  std::unique_ptr<Impl> m_impl;
};

}  // namespace lumo
