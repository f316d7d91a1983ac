#include "base/include/properties.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <optional>

namespace lumo {
namespace {

struct Word {
  const char* text;
  bool value;
};

constexpr std::array<Word, 6> words{
    {{"true", true}, {"yes", true}, {"1", true}, {"false", false}, {"no", false}, {"0", false}}};

std::optional<bool> boolOf(const std::string& value) {
  const auto* found = std::find_if(words.begin(), words.end(),
                                   [&](const Word& word) { return strcasecmp(word.text, value.c_str()) == 0; });
  // A zero byte ends what strcasecmp sees, but not the value.
  if (found == words.end() || value.find('\0') != std::string::npos) return std::nullopt;
  return found->value;
}

}  // namespace

bool StringCaseLessThan::operator()(const std::string& a, const std::string& b) const {
  return strcasecmp(a.c_str(), b.c_str()) < 0;
}

std::string Properties::getProperty(const std::string& key, const std::string& defaultValue) const {
  Lock lock(m_mutex);
  const auto found = m_values.find(key);
  return found == m_values.end() ? defaultValue : found->second;
}

bool Properties::getBool(const std::string& key, bool defaultValue) const {
  Lock lock(m_mutex);
  const auto known = m_bools.find(key);
  if (known != m_bools.end()) return known->second;
  const auto found = m_values.find(key);
  if (found == m_values.end()) return defaultValue;
  const std::optional<bool> value = boolOf(found->second);
  if (value) m_bools[key] = *value;
  return value.value_or(defaultValue);
}

void Properties::setProperty(const std::string& key, const std::string& value) {
  Lock lock(m_mutex);
  m_values[key] = value;
  forgetDerived(key);
  m_dirty = true;
}

void Properties::eraseProperty(const std::string& key) {
  Lock lock(m_mutex);
  if (m_values.erase(key) == 0) return;
  forgetDerived(key);
  m_dirty = true;
}

bool Properties::dirty() const {
  Lock lock(m_mutex);
  return m_dirty;
}

std::map<std::string, std::string, StringCaseLessThan> Properties::below(const std::string& prefix) const {
  Lock lock(m_mutex);
  Map result;
  for (auto entry = m_values.lower_bound(prefix);
       entry != m_values.end() && strncasecmp(entry->first.c_str(), prefix.c_str(), prefix.size()) == 0; ++entry) {
    result[entry->first.substr(prefix.size())] = entry->second;
  }
  return result;
}

void Properties::forgetDerived(const std::string& key) {
  m_bools.erase(key);
  m_times.erase(key);
  m_lists.erase(key);
}

}  // namespace lumo
