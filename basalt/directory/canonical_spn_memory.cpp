#include "basalt/directory/canonical_spn_memory.h"

#include <iterator>
#include <utility>

#include "basalt/process/clock.h"

namespace lumo {

std::optional<std::string> SpnMemory::read(const std::string& spn) {
  const auto now = Clock::getInstance().steadyNow();
  const Lock lock(m_mutex);
  const auto found = m_bySpn.find(spn);
  if (found == m_bySpn.end()) return std::nullopt;
  if (now < found->second->until) return found->second->canonical;
  drop(found->second);
  return std::nullopt;
}

void SpnMemory::store(const std::string& spn, const std::string& canonical) {
  const std::chrono::seconds life = canonical.empty() ? MISS_LIFE : std::chrono::seconds(LIFE);
  Entry entry{spn, canonical, Clock::getInstance().steadyNow() + life};
  const Lock lock(m_mutex);
  if (const auto old = m_bySpn.find(spn); old != m_bySpn.end()) drop(old->second);
  if (m_entries.size() >= MAX_NAMES) drop(m_entries.begin());
  m_entries.push_back(std::move(entry));
  m_bySpn[m_entries.back().spn] = std::prev(m_entries.end());
}

std::size_t SpnMemory::size() {
  const Lock lock(m_mutex);
  return m_entries.size();
}

void SpnMemory::drop(Entries::iterator entry) {
  m_bySpn.erase(entry->spn);
  m_entries.erase(entry);
}

}  // namespace lumo
