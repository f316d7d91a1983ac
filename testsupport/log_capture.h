// The log of a test, by way of the log file.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "testsupport/temp_folder.h"

namespace testsupport {

// The records of a log file's content without time and program: "ERROR base.properties: TEXT [FILE:LINE FUNCTION]".
std::vector<std::string> recordsIn(const std::string& content);
// Their level, logger and text alone: "ERROR base.properties: TEXT".
std::vector<std::string> textsIn(const std::string& content);

// Sends the log of this process to a file of its own, from construction to destruction, at a level (DEBUG by name)
// for all loggers. The system log is not touched by it: thresholds are the same for both.
class LogCapture {
 public:
  explicit LogCapture(const std::string& level = "DEBUG");
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // All records so far as they stand in the file, as one text.
  std::string text() const;
  // As recordsIn and textsIn.
  std::vector<std::string> lines() const;
  std::vector<std::string> texts() const;
  // Of those of one logger what came since the last call, without the logger's name: "ERROR TEXT".
  std::vector<std::string> newTexts(const std::string& logger);
  std::string path() const { return m_folder.file("log"); }

 private:
  TempFolder m_folder;
  std::map<std::string, std::size_t> m_seen;  // by logger
};

}  // namespace testsupport
