// The option parsers: what is taken into the record, and what is refused with which words.
#include <getopt.h>
#include <string.h>

#include "basalt/settings/fips.h"
#include "base/include/string_helpers.h"
#include "cli/cli_common.h"
#include "cli/cli_ferrogate.h"
#include "cli/cli_ferrogate_trace.h"
#include "cloud/include/curl_object.h"
#include "quill/local_rpc_session.h"

namespace {

constexpr char WRONG_OPTION[] = "Wrong option.\n";
constexpr char EMPTY_USER[] = "Username should not be empty.\n";

int refuse(const char* text) {
  FERRO_REPORT(lumo::level::Error, text);
  return result::Usage;
}

bool isMachine(const CommandOptions& record) { return record.username == MACHINE_MARKER; }

// The refusals of a user name and a password, whose wordings differ from command to command.
struct Wording {
  const char* userWithMachine;
  const char* passwordWithMachine;
};
constexpr Wording SET_WORDING = {"Cannot use --username option with --machine option.\n",
                                 "Cannot use --password option with --machine option.\n"};
constexpr Wording TEST_WORDING = {"Cannot provide --username option with --machine option.\n",
                                  "Cannot provide --password option with --machine option.\n"};

int takeUser(CommandOptions& record, const Wording& wording) {
  if (*optarg == '\0') return refuse(EMPTY_USER);
  if (isMachine(record)) return refuse(wording.userWithMachine);
  record.username = optarg;
  return result::Success;
}

int takePassword(CommandOptions& record, const Wording& wording) {
  const lumo::Shredder2 given(optarg);
  explicit_bzero(optarg, strlen(optarg));
  if (isMachine(record)) return refuse(wording.passwordWithMachine);
  record.password = given;
  return result::Success;
}

// A copy of an argument that may be a URL with a password, which then stands in the process list no longer.
std::string takeAddress() {
  std::string value = optarg;
  const UrlPassword password = findUrlPassword(value);
  memset(optarg + password.start, '*', password.length);
  return value;
}

int takeServer(CommandOptions& record, bool& cleared) {
  record.server = takeAddress();
  if (!record.server.empty()) return checkServerNameSyntax(record.server);
  cleared = true;
  return result::Success;
}

int takeMachineForSet(CommandOptions& record) {
  if (!record.username.empty() || !record.password.empty() || !record.authType.empty() || record.clearAuthType) {
    return refuse("Cannot use --machine option with --username/--password/--authtype option.\n");
  }
  record.username = MACHINE_MARKER;
  return result::Success;
}

int takeMachineForTest(CommandOptions& record) {
  if (!record.username.empty() || !record.password.empty()) {
    return refuse("Cannot provide --machine option with --username/--password option.\n");
  }
  record.username = MACHINE_MARKER;
  return result::Success;
}

int takeAuthRequired(CommandOptions& record) {
  record.authRequired = lower(optarg);
  if (record.authRequired.empty()) {
    record.clearAuthRequired = true;
  } else if (record.authRequired != "true" && record.authRequired != "false") {
    return refuse("Invalid value specified to --authreq option.\n");
  }
  return result::Success;
}

// The weak types against FIPS mode.
int judgeFips(const std::string& authType) {
  if (!fipsModeConsistent()) FERRO_REPORT(lumo::level::Warn, FIPS_INCONSISTENT);
  if (!lumo::FIPSHelper::isStarted()) return result::Success;
  return refuse(VS("Auth Type '%s' is not allowed when FIPS mode is enabled.\n", authType.c_str()).c_str());
}

int takeAuthType(CommandOptions& record) {
  record.authType = lower(optarg);
  if (isMachine(record)) return refuse("Cannot use --authtype option with --machine option.\n");
  if (record.authType.empty()) {
    record.clearAuthType = true;
    return result::Success;
  }
  const auto known = proxyAuthTypes.find(record.authType);
  if (known == proxyAuthTypes.end() || known->second == 0) {
    return refuse("Invalid value specified to --authtype option.\n");
  }
  return lumo::FIPSHelper::bars(record.authType) ? judgeFips(record.authType) : result::Success;
}

int takeUrl(CommandOptions& record) {
  record.opxUrl = takeAddress();
  return record.opxUrl.empty() ? refuse("Morvane Identity Platform should not be empty.\n") : result::Success;
}

}  // namespace

int parseCommonOption(int ch, CommandOptions& record) {
  if (ch == '?') return refuse(WRONG_OPTION);
  if (ch != 'V') return -1;
  record.verbose = true;
  return result::Success;
}

int parseSetCommandOption(int ch, CommandOptions& record) {
  if (const int common = parseCommonOption(ch, record); common != -1) return common;
  switch (ch) {
    case 'u':
      return takeUser(record, SET_WORDING);
    case 'p':
      return takePassword(record, SET_WORDING);
    case 'm':
      return takeMachineForSet(record);
    case 's':
      return takeServer(record, record.clearServer);
    case 'r':
      return takeAuthRequired(record);
    case 't':
      return takeAuthType(record);
    default:
      return refuse(WRONG_OPTION);
  }
}

int parseTestCommandOption(int ch, CommandOptions& record) {
  if (const int common = parseCommonOption(ch, record); common != -1) return common;
  bool configured = false;  // an empty server means the configured one here, and nothing is to be cleared
  switch (ch) {
    case 'c':
      return takeUrl(record);
    case 'm':
      return takeMachineForTest(record);
    case 'p':
      return takePassword(record, TEST_WORDING);
    case 's':
      return takeServer(record, configured);
    case 'u':
      return takeUser(record, TEST_WORDING);
    default:
      FERRO_REPORT(lumo::level::Error, WRONG_OPTION);
      return result::Success;
  }
}

int checkServerNameSyntax(const std::string& value) {
  const auto colon = value.find(':');
  if (colon != std::string::npos && colon > 0 && colon + 1 < value.size()) return result::Success;
  return refuse("Invalid server's name format specified in --server option.\n");
}

bool fipsModeConsistent() {
  const bool own = lumo::FIPSHelper::isStarted();
  if (!agentRunning(agentStatus())) return true;
  lumo::LocalRpcSession session(lumo::path::AGENT_SOCKET, false, false);
  const int agents = session.getFipsMode();
  session.close();
  return agents == static_cast<int>(own);
}
