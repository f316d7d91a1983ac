#include "cli/cli_common_hooks.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "basalt/files/file_security.h"
#include "basalt/process/child_process.h"
#include "base/include/parameter_names.h"
#include "base/include/printable.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"

namespace {

constexpr int DEBUG = 1;
constexpr int WARNING = 3;
constexpr int DEFAULT_TIMEOUT = 30;
constexpr int NO_TIMEOUT = -1;

int timeoutFrom(const std::string& setting, const boost::shared_ptr<lumo::Logger>& logger) {
  if (setting.empty()) return DEFAULT_TIMEOUT;
  char* end = nullptr;
  const long seconds = std::strtol(setting.c_str(), &end, 10);
  if (*end != '\0') {
    LUMO_LOG(logger, WARNING, "The value '%s' of %s is no number of seconds: it counts as %ld.", setting.c_str(),
             lumo::PN::CLI_HOOK_TIMEOUT, seconds);
  }
  return seconds < 0 ? NO_TIMEOUT : static_cast<int>(std::min<long>(seconds, INT_MAX));
}

}  // namespace

std::string hookOutcome(const char* program, int status, int error) {
  if (status < 0 && error == ETIMEDOUT) return VS("Post-command-hook %s execute timed out.", program);
  if (status < 0) return VS("Cannot execute %s: %s", program, strerror(error));
  const int high = status >> 8 & 0xff;
  const int low = status & 0x7f;
  if (low == 0) return VS("Post-command-hook %s exits with %d.", program, high);
  if ((status & 0xff) == 0x7f) return VS("Post-command-hook %s stopped by signal %d.", program, high);
  if (low == 0x7f) return VS("Post-command-hook %s return status %d.", program, status);
  return VS("Post-command-hook %s terminated by signal %d.", program, low);
}

PostCommandHook::PostCommandHook(const std::string& name, boost::shared_ptr<lumo::Logger> hookLogger, bool verboseMode)
    : logger(std::move(hookLogger)), verbose(verboseMode) {
  const lumo::Properties& settings = lumo::Props(false, false);
  hookCommand = settings.getProperty(lumo::PN::CLI_HOOK_PREFIX + name);
  timeoutSeconds = timeoutFrom(settings.getProperty(lumo::PN::CLI_HOOK_TIMEOUT), logger);
}

PostCommandHook::PostCommandHook(const std::string& name, const std::list<std::string>& commands,
                                 boost::shared_ptr<lumo::Logger> hookLogger, bool verboseMode)
    : PostCommandHook(name, std::move(hookLogger), verboseMode) {
  extraCommands = commands;
}

PostCommandHook::~PostCommandHook() {
  if (!hookEnabled) return;
  try {
    std::list<std::string> commands = extraCommands;
    const bool listed = std::find(commands.begin(), commands.end(), hookCommand) != commands.end();
    if (!hookCommand.empty() && !listed) commands.push_back(hookCommand);
    for (const auto& command : commands) runCommand(command);
  } catch (const std::exception& failure) {
    LUMO_LOG(logger, WARNING, "Post-command-hooks ended early: %s", failure.what());
  }
}

void PostCommandHook::report(const std::string& text) const {
  LUMO_LOG(logger, DEBUG, "%s", text.c_str());
  if (verbose) std::cerr << lumo::printable(text) << std::endl;
}

void PostCommandHook::runCommand(const std::string& commandLine) {
  if (commandLine.empty()) return;
  const std::string checked = lumo::FileSecurityCheck(commandLine, false, true, true);
  if (checked.empty()) {
    report(VS("Security check failed and Post-command-hook %s will not be executed.", commandLine.c_str()));
    return;
  }
  lumo::ArgV words(checked);
  report(VS("Started executing Post-command-hook %s", words.cmd()));
  // The hook writes to the same streams: what the command has said so far comes first.
  std::cout.flush();
  const int streams[] = {0, 1, 2};
  errno = 0;
  const int status = spawnfv_time(0, 3, streams, words.cmd(), words.argv(), timeoutSeconds, 1, 1);
  report(hookOutcome(words.cmd(), status, errno));
}

namespace {

struct ConsoleRow {
  int level;
  std::ostream* console;
  bool onRequest;
};

// By ConsoleMode.
const std::array<ConsoleRow, 4> CONSOLE_ROWS{
    {{DEBUG, &std::cerr, true}, {DEBUG, &std::cout, false}, {DEBUG, &std::cerr, false}, {WARNING, &std::cerr, false}}};

}  // namespace

void CommandOutputReader::output(bool showMode0) {
  const ConsoleRow& row = CONSOLE_ROWS.at(static_cast<std::size_t>(mode));
  std::string line;
  while (std::getline(input, line)) {
    LUMO_LOG(logger, row.level, "%s", line.c_str());
    if (!row.onRequest || showMode0) *row.console << lumo::printable(line) << '\n';
  }
  row.console->flush();
  input.clear();
}
