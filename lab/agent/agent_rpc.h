// What the lab's agent answers over the local RPC. README.md has its own methods.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "lab/agent/agent_logins.h"
#include "quill/local_rpc_server.h"

// Any thread. The process has an agent as long as this lives.
class AgentRpc : public lumo::LocalRpcHandler {
 public:
  // `reload` is called by the method of that name.
  AgentRpc(AgentLogins& logins, std::function<void()> reload) : m_logins(logins), m_reload(std::move(reload)) {}

  // Whoever the server lets in, root alone, is welcome.
  void authenticateProcess(const lumo::RpcCaller&) override {}
  ADObjectPtr getUserObj(const lumo::RpcCaller& caller, const std::string& name, lumo::UserLookup lookup) override;
  ADObjectPtr ldapFetch(const lumo::RpcCaller& caller, const std::string& base, const std::string& dn,
                        const std::vector<std::string>* attributes, int flags) override;
  int getFipsMode(const lumo::RpcCaller& caller) override;
  std::string call(const lumo::RpcCaller& caller, const std::string& method, const std::string& params) override;

 private:
  AgentLogins& m_logins;
  std::function<void()> m_reload;
};
