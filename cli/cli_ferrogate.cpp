// Dispatch of the command letters, result codes to messages and exit statuses.
#include "cli/cli_ferrogate.h"

#include <getopt.h>

#include <vector>

#include "base/include/string_helpers.h"
#include "cli/cli_common.h"
#include "cli/cli_ferrogate_audit.h"

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
constexpr char CREDENTIAL_LETTERS[] = "up";
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
  FERRO_REPORT(lumo::level::Error, "Please run with -h option to get the help page.\n");
  return result::Usage;
}

int reportInvalidCommand() {
  FERRO_REPORT(lumo::level::Error, "Invalid command.\n");
  return reportHint();
}

int reportSecondCommand() {
  FERRO_REPORT(lumo::level::Error, "Only one command may be given.\n");
  return reportHint();
}

int reportResult(int code) {
  if (code == result::Usage) return reportHint();
  FERRO_REPORT(lumo::level::Error, VS("ERROR: %s.\n", resultMessage(code).c_str()));
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

// While it lives, getopt reads from the beginning and says nothing; afterwards it begins again.
class QuietReading {
 public:
  QuietReading() {
    opterr = 0;
    optind = 0;
  }
  ~QuietReading() {
    opterr = m_before;
    optind = 0;
  }
  QuietReading(const QuietReading&) = delete;
  QuietReading& operator=(const QuietReading&) = delete;

 private:
  const int m_before = opterr;
};

// Reads as the run will, up to the first option that getopt does not take. True where there is one.
bool readsToUnknown(int argc, char** argv) {
  for (;;) {
    const int letter = getopt_long(argc, argv, COMMAND_LETTERS, COMMANDS, nullptr);
    if (letter == -1 || letter == '?') return letter == '?';
    if (letter == 'C') return getopt_long(argc, argv, CREDENTIAL_LETTERS, CREDENTIAL_OPTIONS, nullptr) == '?';
    const Command* const command = findCommand(letter);
    if (command == nullptr) return false;
    int ch = 0;
    do {
      ch = getopt_long(argc, argv, command->letters, command->table, nullptr);
      if (ch == '?') return true;
    } while (command->allOptions && ch != -1);
  }
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
  const int code = handleCredentialCommand(getopt_long(argc, argv, CREDENTIAL_LETTERS, CREDENTIAL_OPTIONS, nullptr));
  return code == result::Usage ? reportHint() : code;
}

}  // namespace

int readCommandOptions(int letter, int argc, char** argv, CommandOptions& record) {
  const Command* command = findCommand(letter);
  return command == nullptr ? result::Usage : readOptions(*command, argc, argv, record);
}

int firstCommand(int argc, char** argv) {
  const QuietReading quiet;
  std::vector<char*> words(argv, argv + argc + 1);
  return getopt_long(argc, words.data(), COMMAND_LETTERS, COMMANDS, nullptr);
}

const char* unknownLongOption(int argc, char** argv) {
  const QuietReading quiet;
  std::vector<char*> words(argv, argv + argc + 1);
  // Of a short option getopt keeps the letter.
  return readsToUnknown(argc, words.data()) && optopt == 0 ? words[static_cast<std::size_t>(optind - 1)] : nullptr;
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
    audit::begin(record.command);
    if (finished) return reportSecondCommand();
    if (record.command == 'v') return showVersion();
    if (record.command == 'h') return showHelp();
    if (record.command == 'C') return runCredentialCommand(argc, argv);
    if (const int status = runCommand(*command, argc, argv, record); status != result::Success) return status;
  }
}
