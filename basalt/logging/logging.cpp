#include <strings.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <cerrno>
#include <cstdarg>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "basalt/logging/logging_sinks.h"
#include "basalt/process/printf_text.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

constexpr Logger::LogLevel defaultLevel = 2;
constexpr Logger::LogLevel error = 4;

struct Level {
  const char* name;
  Logger::LogLevel value;
  spdlog::level::level_enum severity;
};

constexpr std::array<Level, 7> levels{{{"TRACE", 0, spdlog::level::trace},
                                       {"DEBUG", 1, spdlog::level::debug},
                                       {"INFO", 2, spdlog::level::info},
                                       {"WARN", 3, spdlog::level::warn},
                                       {"ERROR", 4, spdlog::level::err},
                                       {"FATAL", 5, spdlog::level::critical},
                                       {"OFF", Logger::OFF, spdlog::level::off}}};

// The system log's datagrams are short; more than this would be lost whole.
constexpr std::size_t longestSystemRecord = 8000;

std::optional<Logger::LogLevel> levelNamed(const std::string& name) {
  for (const Level& level : levels) {
    if (strcasecmp(level.name, name.c_str()) == 0) return level.value;
  }
  return std::nullopt;
}

const Level& levelOf(Logger::LogLevel value) {
  return levels[static_cast<std::size_t>(std::clamp(value, 0, Logger::OFF - 1))];
}

std::string parentOf(const std::string& name) {
  const std::size_t dot = name.find_last_of('.');
  return dot == std::string::npos ? PN::ROOT_LOGGER_NAME : name.substr(0, dot);
}

using Thresholds = std::map<std::string, Logger::LogLevel, StringCaseLessThan>;

// All that the threads share. Lives to the very end: destructors of static objects may still log.
struct Logging {
  std::mutex mutex;
  std::shared_ptr<spdlog::sinks::sink> system;
  std::shared_ptr<spdlog::sinks::sink> file;
  Logger::LogLevel rootLevel = defaultLevel;
  Thresholds levels;  // of the loggers that a setting names
  std::vector<boost::weak_ptr<Logger>> loggers;
  std::atomic<bool> settingsTried{false};
};

Logging& logging() {
  static auto* shared = new Logging;
  return *shared;
}

// What the settings in force give a logger by its own name; -1 for nothing. The mutex is held.
Logger::LogLevel ownThreshold(const Logging& shared, const std::string& name, int sink) {
  if (name == PN::ROOT_LOGGER_NAME) return sink == 1 && !shared.file ? Logger::OFF : shared.rootLevel;
  if (sink == 1 && !shared.file) return -1;
  const auto found = shared.levels.find(name);
  return found == shared.levels.end() ? -1 : found->second;
}

Logger::LogLevel effectiveThreshold(const Logging& shared, std::string name, int sink) {
  for (;;) {
    const Logger::LogLevel own = ownThreshold(shared, name, sink);
    if (own != -1) return own;
    name = parentOf(name);
  }
}

// The loggers of one thread.
struct ThreadLoggers {
  std::map<std::string, boost::shared_ptr<Logger>> byName;
  boost::shared_ptr<Logger> last;  // most records come in runs by the same logger
  ~ThreadLoggers();
};

thread_local bool threadEnded = false;
thread_local ThreadLoggers threadLoggers;

ThreadLoggers::~ThreadLoggers() { threadEnded = true; }

boost::shared_ptr<Logger> makeLogger(const std::string& name, const boost::shared_ptr<Logger>& parent) {
  auto logger = boost::make_shared<Logger>(name, parent);
  Logging& shared = logging();
  const std::lock_guard<std::mutex> lock(shared.mutex);
  for (int sink = 0; sink < Logger::SINKS; ++sink) logger->setThreshold(sink, ownThreshold(shared, name, sink));
  auto& all = shared.loggers;
  all.erase(std::remove_if(all.begin(), all.end(), [](const auto& one) { return one.expired(); }), all.end());
  all.push_back(logger);
  return logger;
}

boost::shared_ptr<Logger> loggerNamed(const std::string& name) {
  const bool isRoot = name == PN::ROOT_LOGGER_NAME;
  if (threadEnded) return makeLogger(name, isRoot ? nullptr : loggerNamed(parentOf(name)));
  ThreadLoggers& mine = threadLoggers;
  if (mine.last && mine.last->name() == name) return mine.last;
  const auto found = mine.byName.find(name);
  if (found != mine.byName.end()) return mine.last = found->second;
  auto logger = makeLogger(name, isRoot ? nullptr : loggerNamed(parentOf(name)));
  mine.byName[name] = logger;
  return logger;
}

// The levels and the log file come with the settings, whoever asks for these first.
void readSettingsOnce() {
  auto& tried = logging().settingsTried;
  if (tried.load() || tried.exchange(true)) return;
  try {
    Props(false, true);
  } catch (...) {
    // Without settings the defaults are in force.
  }
}

struct Configuration {
  Logger::LogLevel rootLevel = defaultLevel;
  Thresholds levels;
  std::shared_ptr<spdlog::sinks::sink> file;
  std::vector<std::string> problems;
};

std::optional<Logger::LogLevel> levelSetting(Configuration& into, const std::string& key, const std::string& value) {
  const auto level = levelNamed(trimWhiteSpace(value));
  if (!level) {
    into.problems.push_back("The setting " + key + " is '" + value +
                            "'; it must be one of TRACE, DEBUG, INFO, WARN, ERROR, FATAL and OFF");
  }
  return level;
}

Configuration readLogSettings(const Properties& settings) {
  Configuration read;
  const std::string root = PN::ROOT_LOGGER_NAME;
  const std::string rootValue = settings.getProperty(root);
  if (!rootValue.empty()) read.rootLevel = levelSetting(read, root, rootValue).value_or(defaultLevel);
  const std::string prefix = root + ".";
  for (const auto& [name, value] : settings.below(prefix)) {
    const auto level = levelSetting(read, prefix + name, value);
    if (level) read.levels[name] = *level;
  }
  const std::string path = settings.getProperty(PN::LOG_FILE);
  if (path.empty()) return read;
  try {
    if (path.front() != '/') {
      LUMO_THROW(SystemException, EINVAL, "Cannot write %s: it must be an absolute path", path.c_str());
    }
    read.file = makeFileSink(path);
  } catch (const LUMOException& failure) {
    read.problems.push_back(std::string("No log file: ") + failure.what());
  }
  return read;
}

void putInForce(Configuration& read) {
  Logging& shared = logging();
  const std::lock_guard<std::mutex> lock(shared.mutex);
  shared.rootLevel = read.rootLevel;
  shared.levels.swap(read.levels);
  shared.file = read.file;
  for (const auto& one : shared.loggers) {
    const auto logger = one.lock();
    for (int sink = 0; logger && sink < Logger::SINKS; ++sink) {
      logger->setThreshold(sink, effectiveThreshold(shared, logger->name(), sink));
    }
  }
}

void send(const std::shared_ptr<spdlog::sinks::sink>& sink, const Level& level, const std::string& line) {
  try {
    sink->log(spdlog::details::log_msg("", level.severity, spdlog::string_view_t(line.data(), line.size())));
  } catch (...) {
    // A record that cannot be written must not end what it tells about.
  }
}

}  // namespace

boost::shared_ptr<Logger> Logger::GetThreadPrivateLogger(const std::string& name) {
  readSettingsOnce();
  return loggerNamed(name.empty() ? PN::ROOT_LOGGER_NAME : name);
}

void Logger::ReconfigureLevels(Properties& settings) {
  try {
    logging().settingsTried = true;
    Configuration read = readLogSettings(settings);
    putInForce(read);
    for (const auto& problem : read.problems) LUMO_LOG(getLogger("base.logger", false), error, "%s", problem.c_str());
  } catch (...) {
    // Short of memory: the old levels stay.
  }
}

void Logger::log(LogLevel level, const char* file, int line, const char* function, const char* format, ...) {
  const int before = errno;
  va_list arguments;
  va_start(arguments, format);
  try {
    const std::string text = printfText(format, arguments);
    const Level& named = levelOf(level);
    const std::string start = std::string(named.name) + " " + oneLine(m_name) + ": ";
    const std::string end = VS(" [%s:%d %s]", file, line, function);
    Logging& shared = logging();
    std::unique_lock<std::mutex> lock(shared.mutex);
    if (!shared.system) shared.system = makeSystemSink();
    const auto system = shared.system;
    const auto toFile = shared.file;
    lock.unlock();
    std::string body = oneLine(text);
    if (toFile && level >= threshold(1)) send(toFile, named, start + body + end);
    if (level >= threshold(0)) {
      if (body.size() > longestSystemRecord) body = body.substr(0, longestSystemRecord) + "...";
      send(system, named, start + body + end);
    }
  } catch (...) {
    // As above.
  }
  va_end(arguments);
  errno = before;
}

}  // namespace lumo
