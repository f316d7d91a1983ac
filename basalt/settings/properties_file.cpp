#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <limits>
#include <optional>

#include "basalt/files/posix_file.h"
#include "basalt/files/secure_file.h"
#include "basalt/settings/properties_text.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

constexpr std::size_t largestFile = 1U << 20U;
constexpr int warning = 3;
constexpr int error = 4;

// A configuration file as it was found.
struct Found {
  std::string text;
  FileOwnerMode ownerMode{geteuid(), getegid(), 0644};
  bool othersMayWrite = false;
  bool othersMayReplace = false;
};

bool isOthers(const struct stat& status) { return status.st_uid != 0 && status.st_uid != geteuid(); }

// In a sticky folder others can make files, not replace root's.
bool isOpenFolder(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return false;
  return isOthers(status) || ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0);
}

Found readConfiguration(const std::string& path) {
  Found found;
  found.othersMayReplace = isOpenFolder(folderOf(path));
  const FileDescriptor file = openRegular(path, O_RDONLY, 0, "Cannot read", true);
  if (!file) return found;
  struct stat status {};
  if (fstat(file.get(), &status) != 0) throwSystem("Cannot read", path, errno);
  found.ownerMode = FileOwnerMode{status.st_uid, status.st_gid, status.st_mode & 07777U};
  found.othersMayWrite = isOthers(status) || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  found.text = readAll(file.get(), path, largestFile);
  return found;
}

void report(const std::string& path, const Found& found, const ParsedProperties& parsed) {
  const auto logger = getLogger("base.properties", false);
  if (found.othersMayWrite) {
    LUMO_LOG(logger, error, "%s can be written by others than root; run: chown root '%s'; chmod go-w '%s'",
             path.c_str(), path.c_str(), path.c_str());
  }
  if (found.othersMayReplace) {
    const std::string folder = folderOf(path);
    LUMO_LOG(logger, warning, "The folder %s can be written by others than root; run: chown root '%s'; chmod go-w '%s'",
             folder.c_str(), folder.c_str(), folder.c_str());
  }
  for (const std::size_t line : parsed.oddKeys) {
    LUMO_LOG(logger, warning, "%s line %zu has a key with \"=\" in it; a setting is written as key: value",
             path.c_str(), line);
  }
  if (parsed.oddKeyCount > parsed.oddKeys.size()) {
    LUMO_LOG(logger, warning, "%s has %zu more keys with \"=\" in them", path.c_str(),
             parsed.oddKeyCount - parsed.oddKeys.size());
  }
  for (const std::size_t line : parsed.badLines) {
    LUMO_LOG(logger, error, "%s line %zu is not a setting (key: value)", path.c_str(), line);
  }
  if (parsed.badLineCount > parsed.badLines.size()) {
    LUMO_LOG(logger, error, "%s has %zu more lines that are not settings", path.c_str(),
             parsed.badLineCount - parsed.badLines.size());
  }
}

PropertyChanges changesBetween(const PropertyMap& before, const PropertyMap& after) {
  PropertyChanges changes;
  for (const auto& [key, value] : after) {
    const auto old = before.find(key);
    if (old == before.end() || old->second != value) changes[key] = value;
  }
  for (const auto& [key, value] : before) {
    if (after.count(key) == 0) changes[key] = std::nullopt;
  }
  return changes;
}

struct Unit {
  char letter;
  long seconds;
};

constexpr std::array<Unit, 4> units{{{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}}};

std::optional<long> secondsOf(char letter) {
  for (const Unit& unit : units) {
    if (unit.letter == letter) return unit.seconds;
  }
  return std::nullopt;
}

std::optional<long> product(long count, long seconds) {
  long result = 0;
  if (__builtin_mul_overflow(count, seconds, &result)) return std::nullopt;
  return result;
}

// The number of a text of digits alone.
std::optional<long> wholeNumber(const std::string& text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
  long result = 0;
  for (const char digit : text) {
    if (__builtin_mul_overflow(result, 10, &result) || __builtin_add_overflow(result, digit - '0', &result)) {
      return std::nullopt;
    }
  }
  return result;
}

}  // namespace

void Properties::loadFile(const std::string& path) {
  const Found found = readConfiguration(path);
  ParsedProperties parsed = parseProperties(found.text);
  {
    Lock lock(m_mutex);
    m_saved = parsed.values;
    m_values.swap(parsed.values);
    m_bools.clear();
    m_times.clear();
    m_lists.clear();
    m_dirty = false;
  }
  // The levels and the log file may be among the settings just read.
  if (path == path::CONFIGURATION) Logger::ReconfigureLevels(*this);
  report(path, found, parsed);
}

void Properties::saveProperty(const std::string& path) {
  Lock lock(m_mutex);
  if (changesBetween(m_saved, m_values).empty()) {
    m_dirty = false;
    return;
  }
  lock.unLock();

  const FileLock writers(folderOf(path) + "/." + nameOf(path) + ".lock");
  // Only now: another thread may have saved while this one waited, and an older picture must not come behind a newer.
  lock.doLock();
  const PropertyMap values = m_values;
  const PropertyChanges changes = changesBetween(m_saved, values);
  lock.unLock();
  if (changes.empty()) return;
  const Found found = readConfiguration(path);
  const std::string text = mergeProperties(found.text, changes);
  if (text.size() > largestFile) {
    LUMO_THROW(SystemException, EFBIG, "Cannot write %s: it would be larger than %zu bytes", path.c_str(), largestFile);
  }
  replaceFile(path, text.data(), text.size(), found.ownerMode);

  lock.doLock();
  m_saved = values;
  m_dirty = !changesBetween(m_saved, m_values).empty();
}

long Properties::getTime(const std::string& key, char unit, long defaultValue) const {
  const long bare = secondsOf(unit).value_or(1);
  const long fallback = product(defaultValue, bare).value_or(std::numeric_limits<long>::max());
  std::string text = trimWhiteSpace(getProperty(key));
  if (text.empty()) return fallback;
  const std::optional<long> own = secondsOf(text.back());
  if (own) text.pop_back();
  const std::optional<long> count = wholeNumber(trimWhiteSpace(text));
  return count ? product(*count, own.value_or(bare)).value_or(fallback) : fallback;
}

namespace {

struct ProcessSettings {
  Mutex mutex;
  bool loading = false;
  bool loaded = false;
  Properties properties;
};

// Lives to the very end: destructors of static objects may still log.
ProcessSettings& processSettings() {
  static auto* settings = new ProcessSettings;
  return *settings;
}

}  // namespace

Properties& Props(bool reload, bool quiet) {
  ProcessSettings& settings = processSettings();
  Lock lock(settings.mutex);
  // Loading logs, and logging asks for the settings.
  if (settings.loading || (settings.loaded && !reload)) return settings.properties;
  settings.loading = true;
  try {
    settings.properties.loadFile(path::CONFIGURATION);
    settings.loaded = true;
  } catch (const LUMOException&) {
    settings.loading = false;
    if (!quiet) throw;
    return settings.properties;
  } catch (...) {
    settings.loading = false;
    throw;
  }
  settings.loading = false;
  return settings.properties;
}

}  // namespace lumo
