// What the family's commands share: result codes, checks on the caller, the agent's status, argument checks.
#pragma once

#include <boost/shared_ptr.hpp>
#include <iosfwd>
#include <string>

#include "base/include/logger.h"

// Result codes that the tool uses by name; the whole tables stand in cli_common_results.cpp.
namespace result {
inline constexpr int Success = 0;
inline constexpr int MiscError = 6;
inline constexpr int Usage = 7;
inline constexpr int NotRoot = 9;
inline constexpr int NotJoined = 10;
inline constexpr int NoCredential = 158;
inline constexpr int GetCredentialFailed = 159;
inline constexpr int SetCredentialFailed = 160;
inline constexpr int ClearCredentialFailed = 161;
inline constexpr int ConnectionTestFailed = 162;
inline constexpr int NoProxyServer = 163;
inline constexpr int AuthTypeInvalid = 164;
}  // namespace result

// The text of a code: the tool's own table above 155, "Unknown error <N>" below 6, else the family's common table.
std::string resultMessage(int code);

// 0 for root, else 9 after a line on standard error and in the log.
int rootCheck(const char* loggerName);

// Is the machine joined? If not, a line to `out` where it is not null, and a record at level 5.
bool machineJoined(const boost::shared_ptr<lumo::Logger>& logger, std::ostream* out);

// State of the local agent.
enum AgentStatus {
  AgentConnected = 0,
  AgentRequestFailed = 1,
  AgentStarting = 2,
  AgentDown = 3,
  AgentUnknown = 4,
  AgentHostMissing = 5,
  AgentHostDisabled = 6,
  AgentLockUnknown = 7
};

AgentStatus agentStatus();
// True for 0, 1, 5 and 6.
bool agentRunning(AgentStatus status);
// "connected", "disconnected", "starting", "down" or "<unavailable>" for the present status.
std::string agentStatusText();

// The principal name of a user as the agent knows it; empty when unknown or when the agent cannot be asked.
std::string GetUserUPN(const std::string& user);

// 0 for a decimal integer with an optional "-", else 7 after a line on standard error and in the log.
int validateIntValue(const std::string& value, const std::string& optionName, const char* loggerName);

// The arguments behind the program's name joined by blanks; "(none)" when all are empty or missing.
std::string joinArguments(int argc, char** argv);

// Lowers the root logger to debug unless it is there already.
void debugLogging();

// Processors that are on line.
long onlineProcessors();
