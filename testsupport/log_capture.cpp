#include "testsupport/log_capture.h"

#include <sstream>
#include <stdexcept>

#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"

namespace testsupport {

LogCapture::LogCapture(const std::string& level) {
  lumo::Props(false, true);  // their first reading sets the levels, and would undo this
  lumo::Properties settings;
  settings.setProperty(lumo::PN::ROOT_LOGGER_NAME, level);
  settings.setProperty(lumo::PN::LOG_FILE, path());
  lumo::Logger::ReconfigureLevels(settings);
}

LogCapture::~LogCapture() {
  lumo::Properties none;
  lumo::Logger::ReconfigureLevels(none);
}

std::string LogCapture::text() const { return exists(path()) ? readFile(path()) : std::string(); }

std::vector<std::string> recordsIn(const std::string& content) {
  // 2026-03-01T09:30:00.123+0100 PROGRAM[PID] RECORD
  std::istringstream lines(content);
  std::vector<std::string> records;
  for (std::string line; std::getline(lines, line);) {
    const std::size_t end = line.find("] ");
    if (line.size() < 30 || line[10] != 'T' || end == std::string::npos) {
      throw std::runtime_error("not a log record: " + line);
    }
    records.push_back(line.substr(end + 2));
  }
  return records;
}

std::vector<std::string> textsIn(const std::string& content) {
  std::vector<std::string> records = recordsIn(content);
  for (auto& record : records) record.resize(record.rfind(" ["));
  return records;
}

std::vector<std::string> LogCapture::lines() const { return recordsIn(readFile(path())); }

std::vector<std::string> LogCapture::texts() const { return textsIn(readFile(path())); }

std::vector<std::string> LogCapture::newTexts(const std::string& logger) {
  const std::string marker = " " + logger + ":";
  std::vector<std::string> found;
  for (std::string& record : texts()) {
    const std::size_t at = record.find(marker);
    if (at == record.find(' ') && at != std::string::npos) found.push_back(record.erase(at, marker.size()));
  }
  std::size_t& seen = m_seen[logger];
  found.erase(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(seen));
  seen += found.size();
  return found;
}

}  // namespace testsupport
