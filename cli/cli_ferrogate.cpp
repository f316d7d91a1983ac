// The entry: exception guard, dispatch of the command letters, result codes to messages and exit statuses.
#include "cli/cli_ferrogate.h"

#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "basalt/kerberos_abandoned.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"
#include "cli/cli_common.h"

namespace {

constexpr char VERSION_LINE[] = "Morvand 5.5.0-200";

constexpr char COMMAND_LETTERS[] = "SDLTvhC";
constexpr option COMMANDS[] = {
    {"set", no_argument, nullptr, 'S'},        {"delete", no_argument, nullptr, 'D'},
    {"list", no_argument, nullptr, 'L'},       {"test", no_argument, nullptr, 'T'},
    {"version", no_argument, nullptr, 'v'},    {"help", no_argument, nullptr, 'h'},
    {"credential", no_argument, nullptr, 'C'}, {nullptr, 0, nullptr, 0},
};
constexpr option SET_OPTIONS[] = {
    {"username", required_argument, nullptr, 'u'}, {"password", required_argument, nullptr, 'p'},
    {"machine", no_argument, nullptr, 'm'},        {"server", required_argument, nullptr, 's'},
    {"authreq", required_argument, nullptr, 'r'},  {"authtype", required_argument, nullptr, 't'},
    {"verbose", no_argument, nullptr, 'V'},        {nullptr, 0, nullptr, 0},
};
constexpr option TEST_OPTIONS[] = {
    {"opx", required_argument, nullptr, 'c'},
    {"server", required_argument, nullptr, 's'},
    {"username", required_argument, nullptr, 'u'},
    {"password", required_argument, nullptr, 'p'},
    {"machine", no_argument, nullptr, 'm'},
    {"verbose", no_argument, nullptr, 'V'},
    {nullptr, 0, nullptr, 0},
};
constexpr option COMMON_OPTIONS[] = {
    {"verbose", no_argument, nullptr, 'V'},
    {nullptr, 0, nullptr, 0},
};
constexpr option CREDENTIAL_OPTIONS[] = {
    {"username", no_argument, nullptr, 'u'},
    {"password", no_argument, nullptr, 'p'},
    {nullptr, 0, nullptr, 0},
};

// A command that works on the record: its options, who reads them, and what it does.
struct Command {
  int letter;
  const char* letters;
  const option* table;
  bool allOptions;  // reads options to the end, not just one
  int (*parse)(int, CommandOptions&);
  int (*handle)(CommandOptions&);
};

constexpr Command RECORD_COMMANDS[] = {
    {'D', "V", COMMON_OPTIONS, false, &parseCommonOption, &handleDeleteCommand},
    {'L', "V", COMMON_OPTIONS, false, &parseCommonOption, &handleListCommand},
    {'S', "u:p:ms:r:t:V", SET_OPTIONS, true, &parseSetCommandOption, &handleSetCommand},
    {'T', "c:s:u:p:mV", TEST_OPTIONS, true, &parseTestCommandOption, &handleTestCommand},
};

const Command* findCommand(int letter) {
  for (const Command& command : RECORD_COMMANDS) {
    if (command.letter == letter) return &command;
  }
  return nullptr;
}

int reportHint() {
  FERRO_REPORT(4, "Please run with -h option to get the help page.\n");
  return result::Usage;
}

int reportInvalidCommand() {
  FERRO_REPORT(4, "Invalid command.\n");
  return reportHint();
}

int reportSecondCommand() {
  FERRO_REPORT(4, "Only one command may be given.\n");
  return reportHint();
}

int reportResult(int code) {
  if (code == result::Usage) return reportHint();
  FERRO_REPORT(4, VS("ERROR: %s.\n", resultMessage(code).c_str()));
  return code;
}

// 0, or the parser's refusal.
int readOptions(const Command& command, int argc, char** argv, CommandOptions& record) {
  if (!command.allOptions) {
    // What is not a common option is none of the parser's business: only its refusal counts.
    const int refused = command.parse(getopt_long(argc, argv, command.letters, command.table, nullptr), record);
    return refused == result::Usage ? refused : result::Success;
  }
  int parsed = result::Success;
  while (parsed == result::Success) {
    const int ch = getopt_long(argc, argv, command.letters, command.table, nullptr);
    if (ch == -1) break;
    parsed = command.parse(ch, record);
  }
  return parsed;
}

// Reads the command's options and runs it. 0, or the exit status after the report.
int runCommand(const Command& command, int argc, char** argv, CommandOptions& record) {
  int code = readOptions(command, argc, argv, record);
  if (code == result::Success) code = command.handle(record);
  return code == result::Success ? result::Success : reportResult(code);
}

int showVersion() {
  FERRO_NOTE(false, VERSION_LINE);
  printOut(std::string(VERSION_LINE) + "\n");
  return result::Success;
}

int showHelp() {
  printUsage();
  return result::Success;
}

int runCredentialCommand(int argc, char** argv) {
  const int code = handleCredentialCommand(getopt_long(argc, argv, "up", CREDENTIAL_OPTIONS, nullptr));
  return code == result::Usage ? reportHint() : code;
}

// The missing ones of the three standard streams lead nowhere: otherwise a file of ours would get such a number, and
// messages would be written into it.
void fillStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) == -1 && errno == EBADF && open("/dev/null", O_RDWR) == -1) _exit(result::MiscError);
  }
}

// Which Kerberos files count is the host's configuration's to say; with another one in force, a damaged copy somewhere
// would have the host's own file moved aside.
void forgetKerberosEnvironment() {
  for (const char* name : {"KRB5_CONFIG", "KRB5CCNAME", "KRB5_KTNAME", "KRB5_CLIENT_KTNAME"}) unsetenv(name);
}

int failed(const std::string& text) {
  FERRO_NOTE(true, text);
  return result::MiscError;
}

}  // namespace

int readCommandOptions(int letter, int argc, char** argv, CommandOptions& record) {
  const Command* command = findCommand(letter);
  return command == nullptr ? result::Usage : readOptions(*command, argc, argv, record);
}

int main2(int argc, char** argv) {
  const auto logger = getLogger(LOGGER_NAME, false);
  static CommandOptions record;
  if (rootCheck(LOGGER_NAME) != result::Success) return result::NotRoot;
  // Deliberately silent: the status and the log record say it.
  if (!machineJoined(logger, nullptr)) return result::NotJoined;
  if (argc < 2) {
    printUsage();
    return result::Usage;
  }
  for (bool finished = false;; finished = true) {
    record.command = getopt_long(argc, argv, COMMAND_LETTERS, COMMANDS, nullptr);
    if (record.command == -1) return result::Success;
    const Command* command = findCommand(record.command);
    if (command == nullptr && record.command != 'v' && record.command != 'h' && record.command != 'C') {
      return reportInvalidCommand();
    }
    if (finished) return reportSecondCommand();
    if (record.command == 'v') return showVersion();
    if (record.command == 'h') return showHelp();
    if (record.command == 'C') return runCredentialCommand(argc, argv);
    if (const int status = runCommand(*command, argc, argv, record); status != result::Success) return status;
  }
}

int guardedMain(int argc, char** argv) {
  fillStandardStreams();
  forgetKerberosEnvironment();
  // A reader of ours or a peer that goes away is a failed write, not the end: libcurl leaves the signal to its caller.
  std::signal(SIGPIPE, SIG_IGN);
  // So is a file that the limit of the caller's shell lets grow no further.
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    return main2(argc, argv);
  } catch (const std::exception& failure) {
    return failed("Error: " + lumo::printable(failure.what()));
  } catch (...) {
    return failed("Error: Unknown exception");
  }
}

int leaveWith(int status) {
  if (lumo::joinAbandonedKdcRequests(std::chrono::milliseconds(0))) return status;
  std::fflush(nullptr);
  _exit(status);
}
