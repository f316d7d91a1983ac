// The log of this process while a test looks at it.
#pragma once

#include <string>

#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "testsupport/temp_folder.h"

namespace testsupport {

// Sends every record of every level to a file of its own until the object goes.
class CapturedLog {
 public:
  CapturedLog() {
    auto& settings = lumo::Props(false, false);
    settings.setProperty(lumo::PN::LOG_FILE, m_folder.file("log"));
    settings.setProperty(lumo::PN::ROOT_LOGGER_NAME, "TRACE");
    lumo::Logger::ReconfigureLevels(settings);
  }
  ~CapturedLog() {
    auto& settings = lumo::Props(false, false);
    settings.eraseProperty(lumo::PN::LOG_FILE);
    settings.eraseProperty(lumo::PN::ROOT_LOGGER_NAME);
    lumo::Logger::ReconfigureLevels(settings);
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // All records so far.
  std::string text() const { return exists(m_folder.file("log")) ? readFile(m_folder.file("log")) : std::string(); }

 private:
  TempFolder m_folder;
};

}  // namespace testsupport
