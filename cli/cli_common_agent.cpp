#include <array>

#include "basalt/directory/directory.h"
#include "basalt/files/lock_file.h"
#include "basalt/settings/settings_store.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "cli/cli_common.h"
#include "quill/local_rpc_session.h"

namespace {

constexpr int WARNING = 3;

// An agent that is there but is not trusted, or cannot be reached: no status says so.
void logUnreachable(const lumo::SystemException& failure) {
  LUMO_LOG(getLogger("cli.common", false), WARNING, "Cannot ask the agent: %s", failure.what());
}

struct StatusRow {
  const char* text;
  bool running;
};

// By AgentStatus.
constexpr std::array<StatusRow, 8> STATUS_ROWS{{{"connected", true},
                                                {"disconnected", true},
                                                {"starting", false},
                                                {"down", false},
                                                {"<unavailable>", false},
                                                {"disconnected", true},
                                                {"disconnected", true},
                                                {"<unavailable>", false}}};

const StatusRow& rowOf(AgentStatus status) {
  const auto index = static_cast<std::size_t>(status);
  return STATUS_ROWS[index < STATUS_ROWS.size() ? index : std::size_t{AgentUnknown}];
}

// ADS_UF_ACCOUNTDISABLE of the directory's account control bits.
constexpr int ACCOUNT_DISABLED = 2;

AgentStatus hostStatus() {
  lumo::LocalRpcSession session(lumo::path::AGENT_SOCKET, false, false);
  session.authenticateProcess();
  const lumo::SID hostSid(lumo::loadSetting(SETTING_HOSTSID, false, false));
  const ADObjectPtr host = session.ldapFetch("", hostSid.toDN(), nullptr, 0);
  if (!host || host->empty()) return AgentHostMissing;
  if (!host->attributeExists(AD_USER_ACCNT_CONTROL, false)) return AgentConnected;
  const int control = (*host)[AD_USER_ACCNT_CONTROL].toInt();
  return (control & ACCOUNT_DISABLED) != 0 ? AgentHostDisabled : AgentConnected;
}

// The socket serves nobody: does an agent on its way up hold the lock?
AgentStatus lockStatus() {
  int state = -1;
  const int handle = MvdLock(lumo::path::AGENT_LOCK, &state);
  if (handle == -1) return AgentLockUnknown;
  MvdUnlock(handle);
  if (state == -1) return AgentLockUnknown;
  return state == 0 ? AgentDown : AgentStarting;
}

std::string askForUPN(const std::string& user) {
  try {
    lumo::LocalRpcSession session(
        lumo::Props(false, false).getProperty(lumo::PN::LUMOD_SOCKET, lumo::path::AGENT_SOCKET), false, false);
    session.authenticateProcess();
    const ADObjectPtr object = session.getUserObj(user, lumo::UNIX_ONLY);
    if (!object) return "";
    return (*object)[LUMO_USER_PRINCIPAL_NAME].toString();
  } catch (const lumo::SystemException& failure) {
    logUnreachable(failure);
    throw;
  }
}

}  // namespace

AgentStatus agentStatus() {
  try {
    return hostStatus();
  } catch (const lumo::IPCException&) {
    return AgentRequestFailed;
  } catch (const lumo::IOException&) {
    return lockStatus();
  } catch (const lumo::SystemException& failure) {
    logUnreachable(failure);
    return AgentUnknown;
  } catch (...) {
    return AgentUnknown;
  }
}

bool agentRunning(AgentStatus status) { return rowOf(status).running; }

std::string agentStatusText() { return rowOf(agentStatus()).text; }

std::string GetUserUPN(const std::string& user) {
  try {
    return askForUPN(user);
  } catch (...) {
    LUMO_LOG(getLogger("cli.common", false), lumo::level::Debug,
             "Failed to get UPN for user '%s', maybe ferrod is not running/not available.", user.c_str());
    return "";
  }
}
