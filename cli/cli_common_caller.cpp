#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>
#include <string>

#include "basalt/settings/join_state.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"
#include "cli/cli_common.h"

// The C library's: the last part of the program's name.
extern char* __progname;

namespace {

constexpr int DEBUG = 1;
constexpr int ADMINISTRATOR = 5;

// Fills __progname from the running image where the caller of exec gave no name.
void detect_progname() {
  static char name[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", name, sizeof name - 1);
  name[length > 0 ? length : 0] = '\0';
  char* slash = std::strrchr(name, '/');
  __progname = slash == nullptr ? name : slash + 1;
}

}  // namespace

int rootCheck(const char* loggerName) {
  if (getuid() == 0) return result::Success;
  if (__progname == nullptr || *__progname == '\0') detect_progname();
  const std::string text = VS("Error: %s may only be run by root.", lumo::printable(__progname).c_str());
  LUMO_LOG(getLogger(loggerName, false), DEBUG, "%s", text.c_str());
  std::cerr << text << std::endl;
  return result::NotRoot;
}

bool machineJoined(const boost::shared_ptr<lumo::Logger>& logger, std::ostream* out) {
  if (lumo::joined()) return true;
  constexpr char TEXT[] = "Machine is not joined to any domain.";
  if (out != nullptr && out->good()) *out << TEXT << std::endl;
  LUMO_LOG(logger, ADMINISTRATOR, "%s", TEXT);
  return false;
}

long onlineProcessors() { return sysconf(_SC_NPROCESSORS_ONLN); }
