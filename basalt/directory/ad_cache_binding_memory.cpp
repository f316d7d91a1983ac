#include "basalt/directory/ad_cache_binding_memory.h"

#include <utility>

#include "basalt/process/clock.h"

namespace lumo {
namespace {

ADObjectList copiesOf(const ADObjectList& objects) {
  ADObjectList copies;
  copies.reserve(objects.size());
  for (const ADObjectPtr& object : objects) copies.push_back(object->clone());
  return copies;
}

}  // namespace

std::optional<ADObjectList> SearchMemory::read(const std::string& question) {
  ADObjectList kept;
  {
    const Lock lock(m_mutex);
    dropExpired();
    const auto found = m_byQuestion.find(question);
    if (found == m_byQuestion.end()) return std::nullopt;
    kept = found->second->answer;
  }
  return copiesOf(kept);
}

bool SearchMemory::holds(const std::string& question) {
  const Lock lock(m_mutex);
  dropExpired();
  return m_byQuestion.count(question) != 0;
}

void SearchMemory::store(const std::string& question, const ADObjectList& answer) {
  if (answer.size() > MAX_ANSWER) return forget(question);
  adopt(question, copiesOf(answer));
}

void SearchMemory::adopt(const std::string& question, ADObjectList answer) {
  if (answer.size() > MAX_ANSWER) return forget(question);
  Entry entry{question, std::move(answer), Clock::getInstance().steadyNow() + LIFE};
  const Lock lock(m_mutex);
  dropExpired();
  if (const auto old = m_byQuestion.find(question); old != m_byQuestion.end()) drop(old->second);
  m_size += entry.weight();
  m_entries.push_back(std::move(entry));
  m_byQuestion[m_entries.back().question] = std::prev(m_entries.end());
  while (m_size > m_maxObjects) drop(m_entries.begin());
}

void SearchMemory::forget(const std::string& question) {
  const Lock lock(m_mutex);
  dropExpired();
  if (const auto old = m_byQuestion.find(question); old != m_byQuestion.end()) drop(old->second);
}

std::size_t SearchMemory::size() {
  const Lock lock(m_mutex);
  dropExpired();
  return m_size;
}

void SearchMemory::dropExpired() {
  const auto now = Clock::getInstance().steadyNow();
  while (!m_entries.empty() && m_entries.front().until <= now) drop(m_entries.begin());
}

void SearchMemory::drop(Entries::iterator entry) {
  m_size -= entry->weight();
  m_byQuestion.erase(entry->question);
  m_entries.erase(entry);
}

}  // namespace lumo
