// Logger handles: a name, two thresholds and a parent. The sinks belong to the platform library.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <string>

namespace lumo {

class Properties;

// One named logger. A record passes when its level is at or above either threshold: the first is that of the system
// log, the second that of the log file. A threshold of -1 is not set here: it is taken from the nearest ancestor that
// has one and then cached; the root always has both. Names form a tree at their dots ("cloud.proxy" is below "cloud").
class Logger {
 public:
  // Higher is more severe: 0 full response bodies, 1 debug and progress, 2 information, 3 warning, 4 error,
  // 5 what an administrator must see. OFF lets nothing through.
  using LogLevel = int;
  static constexpr LogLevel OFF = 6;
  static constexpr int SINKS = 2;

  Logger(std::string name, boost::shared_ptr<Logger> parent) : m_name(std::move(name)), m_parent(std::move(parent)) {}
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // The logger of that name for the calling thread, made when needed; the name of the root is that of its parameter,
  // "log". Never throws for want of a sink or of settings: settings that cannot be read leave the defaults in force.
  static boost::shared_ptr<Logger> GetThreadPrivateLogger(const std::string& name);

  // Rereads the thresholds of all loggers, of every thread, from the settings `log` and `log.NAME`, and opens the log
  // file that `logging.file` names (an absolute path; made with mode 0600, a symbolic link is refused). Level names are
  // TRACE, DEBUG, INFO, WARN, ERROR, FATAL and OFF, without case; a setting with another name is an error in the log
  // and counts as not set. The root stands at INFO where nothing sets it; its second threshold is OFF without a log
  // file. Never throws. Any thread.
  static void ReconfigureLevels(Properties& settings);

  bool isLevelEnabled(LogLevel level) const { return level >= threshold(0) || level >= threshold(1); }

  // Writes one record, filled printf-style, to each sink whose threshold lets the level through. A record is one line:
  // newlines at the end of the text are the line's own, control characters within it come out as \n, \t, \x1b and so
  // on. Callers test isLevelEnabled first. Never throws, leaves errno alone; a sink that fails loses the record. Any
  // thread. The lines, in the system log (facility authpriv, ident the program's name) and in the file:
  //   LEVEL NAME: TEXT [FILE:LINE FUNCTION]
  //   2026-03-01T09:30:00.123+0100 PROGRAM[PID] LEVEL NAME: TEXT [FILE:LINE FUNCTION]
  void log(LogLevel level, const char* file, int line, const char* function, const char* format, ...)
      __attribute__((format(printf, 6, 7)));

  // The effective threshold of a sink (0 system log, 1 file).
  LogLevel threshold(int sink) const {
    LogLevel own = m_thresholds[sink].load(std::memory_order_relaxed);
    if (own == -1) {
      const LogLevel inherited = m_parent ? m_parent->threshold(sink) : OFF;
      // A value that was set in the meantime stands.
      if (m_thresholds[sink].compare_exchange_strong(own, inherited, std::memory_order_relaxed)) return inherited;
    }
    return own;
  }
  void setThreshold(int sink, LogLevel level) { m_thresholds[sink].store(level, std::memory_order_relaxed); }
  const std::string& name() const { return m_name; }

 private:
  std::string m_name;
  mutable std::atomic<LogLevel> m_thresholds[SINKS] = {{-1}, {-1}};
  boost::shared_ptr<Logger> m_parent;
};

// The levels by name, as LUMO_LOG and isLevelEnabled take them.
namespace level {
inline constexpr Logger::LogLevel Trace = 0;  // whole response bodies
inline constexpr Logger::LogLevel Debug = 1;  // debug and progress
inline constexpr Logger::LogLevel Info = 2;
inline constexpr Logger::LogLevel Warn = 3;  // a warning, or a failure that names a user
inline constexpr Logger::LogLevel Error = 4;
inline constexpr Logger::LogLevel Fatal = 5;  // what an administrator must see
}  // namespace level

}  // namespace lumo

// The calling thread's logger of that name; with diag true the name gets "diag." in front.
boost::shared_ptr<lumo::Logger> getLogger(const char* name, bool diag);

// Logs at a level only when the level is open, with the place of the call; arguments are not evaluated otherwise.
#define LUMO_LOG(logger, level, ...)                                        \
  do {                                                                      \
    const auto& lumoLogger_ = (logger);                                     \
    if (lumoLogger_->isLevelEnabled(level)) {                               \
      lumoLogger_->log((level), __FILE__, __LINE__, __func__, __VA_ARGS__); \
    }                                                                       \
  } while (false)
