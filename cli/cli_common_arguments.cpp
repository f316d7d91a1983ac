#include <iostream>

#include "base/include/parameter_names.h"
#include "base/include/printable.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"
#include "cli/cli_common.h"

namespace {

constexpr char DIGITS[] = "0123456789";
constexpr int DEBUG = 1;
constexpr int INFORMATION = 2;

}  // namespace

int validateIntValue(const std::string& value, const std::string& optionName, const char* loggerName) {
  const std::string digits = value.substr(startsWith(value, "-", false, false) ? 1 : 0);
  if (!digits.empty() && digits.find_first_not_of(DIGITS) == std::string::npos) return result::Success;
  const std::string text = VS("%s option requires a valid integer value: %s is not allowed", optionName.c_str(),
                              lumo::printable(value).c_str());
  LUMO_LOG(getLogger(loggerName, false), DEBUG, "%s", text.c_str());
  std::cerr << text << std::endl;
  return result::Usage;
}

std::string joinArguments(int argc, char** argv) {
  std::string joined;
  bool anything = false;
  for (int i = 1; i < argc; ++i) {
    if (i > 1) joined += ' ';
    joined += argv[i];
    anything = anything || *argv[i] != '\0';
  }
  return anything ? joined : "(none)";
}

void debugLogging() {
  const auto root = getLogger(lumo::PN::ROOT_LOGGER_NAME, false);
  if (root->threshold(0) < INFORMATION || root->threshold(1) < INFORMATION) return;
  lumo::Properties& settings = lumo::Props(false, false);
  settings.setProperty(lumo::PN::ROOT_LOGGER_NAME, "DEBUG");
  lumo::Logger::ReconfigureLevels(settings);
}
