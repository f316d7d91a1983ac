// What a person reads on the two streams, and its record in the log.
#include <cstdio>

#include "base/include/printable.h"
#include "cli/cli_ferrogate.h"

namespace {

void logText(int level, const char* file, int line, const char* function, const std::string& text) {
  const auto logger = getLogger(LOGGER_NAME, false);
  if (logger->isLevelEnabled(level)) logger->log(level, file, line, function, "%s", text.c_str());
}

void printError(const std::string& text) {
  // One write: lines of other processes on the same terminal do not come in between.
  const std::string line = lumo::printableLines(text) + "\n";
  std::fflush(stdout);
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

void reportAt(int level, const char* file, int line, const char* function, const std::string& text) {
  logText(level, file, line, function, text);
  printError(text);
}

void noteAt(bool console, const char* file, int line, const char* function, const std::string& text) {
  logText(1, file, line, function, text);
  if (console) printError(text);
}

void printOut(const std::string& text) {
  const std::string shown = lumo::printableLines(text);
  std::fwrite(shown.data(), 1, shown.size(), stdout);
  std::fflush(stdout);
}
