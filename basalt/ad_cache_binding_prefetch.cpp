// Many objects by name, ahead of their use.
#include <map>
#include <set>

#include "basalt/ad_cache_binding.h"
#include "basalt/ad_cache_binding_question.h"
#include "basalt/clock.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/string_helpers.h"

namespace {

DirectorySearch byName(const std::string& dn, const std::vector<std::string>& attributes) {
  return {dn, SearchScope::Base, lumo::ANY_OBJECT, attributes};
}

}  // namespace

void ADCacheBinding::prefetch(const std::vector<std::string>& dns, const char* const* attributes) {
  const TimePoint end = lumo::Clock::getInstance().steadyNow() + PREFETCH_LIMIT;
  const std::vector<std::string> list = lumo::attributeList(attributes);
  std::set<std::string> seen;
  std::vector<std::string> batch;
  for (const std::string& dn : dns) {
    if (dn.empty() || !seen.insert(lower(dn)).second) continue;
    if (m_memory.holds(lumo::questionText(byName(dn, list), 0))) continue;
    // Only what is a name can be compared with one: "<GUID=...>" names an object as a base alone.
    if (!isDistinguishedName(dn)) {
      prefetchOne(dn, list, end);
      continue;
    }
    batch.push_back(dn);
    if (batch.size() == PREFETCH_BATCH) {
      prefetchBatch(batch, list, end);
      batch.clear();
    }
  }
  if (!batch.empty()) prefetchBatch(batch, list, end);
}

// A server that answers each question at the last moment would hold whoever waits for all of them.
std::vector<ADObjectPtr> ADCacheBinding::searchBefore(TimePoint end, const DirectorySearch& what) {
  const lumo::Lock lock(m_mutex);
  if (lumo::Clock::getInstance().steadyNow() >= end) {
    lose(
        {false, serverUnavailable("").rc(),
         lumo::exceptionMessage("The directory of '%s' takes too long to give many objects", m_target.domain.c_str())});
  }
  return search(what);
}

void ADCacheBinding::prefetchBatch(const std::vector<std::string>& dns, const std::vector<std::string>& attributes,
                                   TimePoint end) {
  DirectorySearch what{"", SearchScope::Subtree, "(|", attributes, false};
  std::map<std::string, std::string> wanted;  // by name without case
  for (const std::string& dn : dns) {
    what.filter += std::string("(") + AD_DN + "=" + escapeFilterValue(dn) + ")";
    wanted.emplace(lower(dn), dn);
  }
  what.filter += ")";

  bool allRecognised = true;
  try {
    for (const ADObjectPtr& object : searchBefore(end, what)) {
      const auto found = wanted.find(lower(object->dn()));
      allRecognised = allRecognised && found != wanted.end();
      if (found == wanted.end()) continue;
      m_memory.store(lumo::questionText(byName(found->second, attributes), 0), {object});
      wanted.erase(found);
    }
  } catch (const LDAPException& failure) {
    if (isServerUnavailable(failure)) throw;
    LUMO_LOG(getLogger("base.directory", false), 1, "The directory does not take %zu names at once: %s", dns.size(),
             failure.what());
    allRecognised = false;
  }
  for (const auto& [key, dn] : wanted) {
    // A name that the server spells otherwise is no miss.
    if (!allRecognised) {
      prefetchOne(dn, attributes, end);
    } else {
      m_memory.store(lumo::questionText(byName(dn, attributes), 0), {});
    }
  }
}

void ADCacheBinding::prefetchOne(const std::string& dn, const std::vector<std::string>& attributes, TimePoint end) {
  try {
    const DirectorySearch what = byName(dn, attributes);
    m_memory.store(lumo::questionText(what, 0), searchBefore(end, what));
  } catch (const LDAPException& failure) {
    if (isServerUnavailable(failure)) throw;
    LUMO_LOG(getLogger("base.directory", false), 1, "The object '%s' cannot be read ahead: %s", dn.c_str(),
             failure.what());
  }
}
