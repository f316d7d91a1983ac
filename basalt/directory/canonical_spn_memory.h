// What was learnt of service principal names, for a while.
#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/include/mutex.h"

namespace lumo {

// The canonical form by name. Ages by the steady clock. Any thread.
class SpnMemory {
 public:
  static constexpr std::chrono::minutes LIFE{5};
  // Of a name that has no canonical form, or for which nobody could be asked.
  static constexpr std::chrono::seconds MISS_LIFE{30};
  static constexpr std::size_t MAX_NAMES = 256;  // the oldest go first

  // The canonical form, empty where there is none; nothing where the name is not known (any more).
  std::optional<std::string> read(const std::string& spn);
  void store(const std::string& spn, const std::string& canonical);
  std::size_t size();

 private:
  struct Entry {
    std::string spn;
    std::string canonical;
    std::chrono::steady_clock::time_point until;
  };
  using Entries = std::list<Entry>;

  void drop(Entries::iterator entry);

  Mutex m_mutex;
  Entries m_entries;  // oldest first
  std::unordered_map<std::string_view, Entries::iterator> m_bySpn;
};

}  // namespace lumo
