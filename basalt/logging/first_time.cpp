#include "basalt/logging/first_time.h"

#include <mutex>
#include <set>

namespace lumo {

bool isFirstTime(const std::string& text) {
  constexpr std::size_t most = 256;
  static std::mutex mutex;
  // Never destroyed: destructors of static objects may still log.
  static auto* const said = new std::set<std::string>;
  const std::lock_guard<std::mutex> held(mutex);
  if (said->size() >= most) said->clear();
  return said->insert(text).second;
}

}  // namespace lumo
