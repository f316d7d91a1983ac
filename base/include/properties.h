// The process-wide settings map.
#pragma once

#include <boost/shared_ptr.hpp>
#include <list>
#include <map>
#include <string>

#include "base/include/mutex.h"

namespace lumo {

// Orders strings without regard to case, as strcasecmp does.
struct StringCaseLessThan {
  bool operator()(const std::string& a, const std::string& b) const;
};

// Settings by case-insensitive key. Every operation takes the map's own lock for the map access only; any thread.
// Lookups do not fail: a missing key gives the default.
class Properties {
 public:
  Properties() = default;
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;

  // The value, or the default when the key is missing. A copy: safe beside an erase on another thread.
  std::string getProperty(const std::string& key, const std::string& defaultValue = std::string()) const;

  // "true", "yes" and "1" answer true, "false", "no" and "0" false, without case; all else answers the default.
  bool getBool(const std::string& key, bool defaultValue) const;

  // A span of time in seconds. The value is a whole number with an optional unit behind it, 's', 'm', 'h' or 'd'; a
  // bare number is in `unit` (one of the same letters), and so is defaultValue. A missing or malformed value gives the
  // default. Defined by the platform library.
  long getTime(const std::string& key, char unit, long defaultValue) const;

  // Stores the value. A key that is there keeps its first spelling. Marks the map dirty.
  void setProperty(const std::string& key, const std::string& value);

  // Removes the key; marks the map dirty only when it was there.
  void eraseProperty(const std::string& key);

  bool dirty() const;

  // All settings below a prefix (compared without case): the rest of the key behind the prefix, and the value.
  std::map<std::string, std::string, StringCaseLessThan> below(const std::string& prefix) const;

  // Reads the file at path, one "key: value" a line, and forgets what was there before. A missing file is an empty one.
  // A line that is no setting is an error in the log that names file and line. Throws SystemException when the file is
  // there and cannot be read. Defined by the platform library.
  void loadFile(const std::string& path);

  // Merges the map into the file at path: only the lines of keys changed since the load or the last save change;
  // comments, order, unknown lines, owner and mode stay. Writes a temporary file beside it, syncs, renames, syncs the
  // folder; writers are serialised by a lock file. Throws SystemException with words that say what to do; the old file
  // is then whole. Defined by the platform library.
  void saveProperty(const std::string& path);

 private:
  using Map = std::map<std::string, std::string, StringCaseLessThan>;
  using List = boost::shared_ptr<std::list<std::string>>;

  void forgetDerived(const std::string& key);

  Map m_values;
  mutable Mutex m_mutex;
  // What was derived from a value, dropped when the value changes.
  mutable std::map<std::string, bool, StringCaseLessThan> m_bools;
  mutable std::map<std::string, long, StringCaseLessThan> m_times;
  mutable std::multimap<std::string, List, StringCaseLessThan> m_lists;
  // The map as it was when it last agreed with the file: what saveProperty compares with.
  Map m_saved;
  bool m_dirty = false;
};

// The process-wide settings, read from /etc/morvand/morvand.conf at the first call. Both arguments are false in every
// call of this system: `reload` reads the file again, `quiet` keeps a file that cannot be read out of the way (the map
// then stays as it was, empty at first) instead of throwing SystemException. A first call that throws leaves nothing
// behind; the next one tries again. Defined by the platform library.
Properties& Props(bool reload, bool quiet);

}  // namespace lumo
