// The whole log of this process, of every level, as one text.
#pragma once

#include <string>

#include "testsupport/log_capture.h"

namespace testsupport {

class CapturedLog {
 public:
  // All records so far.
  std::string text() const { return exists(m_log.path()) ? readFile(m_log.path()) : std::string(); }

 private:
  LogCapture m_log{"TRACE"};
};

}  // namespace testsupport
