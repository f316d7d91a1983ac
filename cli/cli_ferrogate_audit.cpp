#include "cli/cli_ferrogate_audit.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <optional>

#include "basalt/files/posix_file.h"
#include "basalt/files/secure_file.h"
#include "base/include/exceptions.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"
#include "cli/cli_common.h"
#include "cli/cli_ferrogate.h"
#include "cli/cli_ferrogate_trace.h"

namespace {

constexpr int INFORMATION = 2;
constexpr int WARNING = 3;
constexpr std::size_t LONGEST_VALUE = 200;

struct Run {
  int command = 0;
  std::string changes;
};
Run& run() {
  static Run theRun;
  return theRun;
}

// A small file of the kernel's about this process; empty when it cannot be read.
std::string aboutThisProcess(const char* name) try {
  const std::string path = std::string("/proc/self/") + name;
  const lumo::FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return "";
  constexpr std::size_t LONGEST = 4096;
  return lumo::readAll(file.get(), path, LONGEST);
} catch (const LUMOException&) {
  return "";
}

// The user who logged in, whoever he became since.
std::string loginUser() {
  constexpr char NOT_SET[] = "4294967295";
  const std::string id = aboutThisProcess("loginuid");
  return id.empty() || id == NOT_SET ? "none" : lumo::printable(id, LONGEST_VALUE);
}

std::string sudoUser() {
  const char* const name = std::getenv("SUDO_USER");  // NOLINT(concurrency-mt-unsafe): the tool has one thread
  return name == nullptr ? "none" : audit::quoted(name);
}

// The controlling terminal, wherever the streams lead. proc(5): the seventh word of "stat", the fifth behind the name
// in parentheses, has its device number.
std::string terminal() {
  const std::string stat = aboutThisProcess("stat");
  auto at = stat.rfind(')');
  for (int words = 0; words < 5 && at != std::string::npos; ++words) at = stat.find(' ', at + 1);
  const dev_t device = at == std::string::npos ? 0 : std::strtoul(stat.c_str() + at, nullptr, 10);
  constexpr unsigned CONSOLES = 4;
  constexpr unsigned FIRST_SERIAL = 64;
  constexpr unsigned PSEUDO_TERMINALS = 136;
  if (device == 0) return "none";
  if (major(device) == PSEUDO_TERMINALS) return VS("/dev/pts/%u", minor(device));
  if (major(device) == CONSOLES && minor(device) < FIRST_SERIAL) return VS("/dev/tty%u", minor(device));
  return VS("%u:%u", major(device), minor(device));
}

std::string statusText(int status) {
  const std::string words = status == result::Success ? "Success" : resultMessage(status);
  return VS("%d (%s)", status, words.c_str());
}

void record(int status) {
  const auto logger = getLogger(LOGGER_NAME, false);
  const int level = status == result::Success ? INFORMATION : WARNING;
  LUMO_LOG(logger, level,
           "Audit: --%s ended with status %s. Changed: %s. Caller: uid %u, login uid %s, SUDO_USER %s, terminal %s.",
           run().command == 'S' ? "set" : "delete", statusText(status).c_str(),
           run().changes.empty() ? "nothing" : run().changes.c_str(), getuid(), loginUser().c_str(), sudoUser().c_str(),
           terminal().c_str());
}

}  // namespace

namespace audit {

void begin(int command) {
  if (run().command == 0 && (command == 'S' || command == 'D')) run().command = command;
}

void changed(const std::string& what) {
  if (!run().changes.empty()) run().changes += "; ";
  run().changes += what;
}

void end(int status) {
  if (run().command == 0 || (status == result::Success && run().changes.empty())) return;
  try {
    record(status);
  } catch (const std::exception& failure) {
    FERRO_NOTE(false, std::string("No audit record: ") + failure.what());
  }
}

std::string quoted(std::string_view value) {
  std::string text = "'";
  for (const char c : lumo::printable(maskUrlPassword(std::string(value)), LONGEST_VALUE)) {
    // The end of a value is not the value's to say.
    if (c == '\'') {
      text += "\\x27";
    } else {
      text += c;
    }
  }
  return text + "'";
}

}  // namespace audit
