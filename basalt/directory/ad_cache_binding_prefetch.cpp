// Many objects by name, ahead of their use.
#include <set>
#include <unordered_map>
#include <utility>

#include "basalt/directory/ad_cache_binding.h"
#include "basalt/directory/ad_cache_binding_question.h"
#include "basalt/directory/directory_name.h"
#include "basalt/process/clock.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace {

constexpr char LOGGER_NAME[] = "base.directory";

DirectorySearch byName(const std::string& dn, const std::vector<std::string>& attributes) {
  return {dn, SearchScope::Base, lumo::ANY_OBJECT, attributes};
}

struct Wanted {
  std::string dn;
  lumo::ComparableName name;
};

// A common name costs a server a third of what a whole name does: measured with Samba; other servers too have an index
// of it.
std::string filterTerm(const Wanted& one) {
  const std::string& cn = one.name.commonName;
  return cn.empty() ? std::string("(") + AD_DN + "=" + escapeFilterValue(one.dn) + ")"
                    : std::string("(") + AD_CN + "=" + escapeFilterValue(cn) + ")";
}

// All of them in one question; its answer fits into a page.
DirectorySearch questionOf(const std::vector<Wanted>& names, const std::vector<std::string>& attributes) {
  std::set<std::string> terms;
  DirectorySearch question{"", SearchScope::Subtree, "(|", attributes, false};
  for (const Wanted& one : names) {
    const std::string term = filterTerm(one);
    if (terms.insert(lower(term)).second) question.filter += term;
  }
  question.filter += ")";
  return question;
}

// The names of one question that no object was found for, and whether that says that there is none: objects of other
// names have come as well, since many may share a common name, and a server may spell a name in ways unknown here.
class Missing {
 public:
  explicit Missing(const std::vector<Wanted>& batch) : m_batch(batch) {
    for (const Wanted& one : batch) {
      m_left.emplace(one.name.text, &one);
      m_commonNames.emplace(lower(one.name.commonName), false);
    }
  }

  // The name that the object was asked for with; null for another object.
  const Wanted* take(const lumo::ADObject& object) {
    const auto name = lumo::comparableName(object.dn());
    const auto found = name ? m_left.find(name->text) : m_left.end();
    if (found != m_left.end()) return m_left.extract(found).mapped();
    const auto shared = name ? m_commonNames.find(lower(name->commonName)) : m_commonNames.end();
    if (shared == m_commonNames.end() || shared->first.empty()) {
      m_strange = true;
    } else {
      shared->second = true;
    }
    return nullptr;
  }

  // Calls with each name that is left and whether it is known to be that of no object.
  template <class Take>
  void rest(const Take& take) const {
    for (const Wanted& one : m_batch) {
      const auto left = m_left.find(one.name.text);
      if (left == m_left.end() || left->second != &one) continue;
      take(one.dn, !m_strange && !m_commonNames.at(lower(one.name.commonName)));
    }
  }

 private:
  const std::vector<Wanted>& m_batch;
  std::unordered_map<std::string, const Wanted*> m_left;
  std::unordered_map<std::string, bool> m_commonNames;  // has an object of another name come?
  bool m_strange = false;
};

}  // namespace

// Names that are asked for together.
struct ADCacheBinding::Batch {
  std::vector<Wanted> names;
  DirectorySearch question;
};

void ADCacheBinding::prefetch(const std::vector<std::string>& dns, const char* const* attributes) {
  const TimePoint end = lumo::Clock::getInstance().steadyNow() + PREFETCH_LIMIT;
  const std::vector<std::string> list = lumo::attributeList(attributes);
  std::set<std::string> seen;
  std::vector<Batch> batches;
  for (const std::string& dn : dns) {
    if (dn.empty() || !seen.insert(lower(dn)).second) continue;
    if (m_memory.holds(lumo::questionText(byName(dn, list), 0))) continue;
    auto name = lumo::comparableName(dn);
    // Only what is a name can be compared with one: "<GUID=...>" names an object as a base alone.
    if (!name) {
      prefetchOne(dn, list, end);
      continue;
    }
    if (batches.empty() || batches.back().names.size() == PREFETCH_BATCH) batches.emplace_back();
    batches.back().names.push_back({dn, std::move(*name)});
  }
  for (Batch& batch : batches) batch.question = questionOf(batch.names, list);
  // The server always has one more question than the one whose answer is waited for.
  for (std::size_t i = 0; i < batches.size(); ++i) {
    if (i == 0) announce(batches[i].question);
    if (i + 1 < batches.size()) announce(batches[i + 1].question);
    prefetchBatch(batches[i], end);
  }
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

void ADCacheBinding::prefetchBatch(const Batch& batch, TimePoint end) {
  const std::vector<std::string>& attributes = batch.question.attributes;
  Missing missing(batch.names);
  bool refused = false;
  try {
    for (ADObjectPtr& object : searchBefore(end, batch.question)) {
      const Wanted* const one = missing.take(*object);
      if (one != nullptr) m_memory.adopt(lumo::questionText(byName(one->dn, attributes), 0), {std::move(object)});
    }
  } catch (const LDAPException& failure) {
    if (isServerUnavailable(failure)) throw;
    LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Debug, "The directory does not take %zu names at once: %s",
             batch.names.size(), failure.what());
    refused = true;
  }
  missing.rest([&](const std::string& dn, bool none) {
    if (refused || !none) {
      prefetchOne(dn, attributes, end);
    } else {
      m_memory.adopt(lumo::questionText(byName(dn, attributes), 0), {});
    }
  });
}

void ADCacheBinding::prefetchOne(const std::string& dn, const std::vector<std::string>& attributes, TimePoint end) {
  try {
    const DirectorySearch what = byName(dn, attributes);
    m_memory.adopt(lumo::questionText(what, 0), searchBefore(end, what));
  } catch (const LDAPException& failure) {
    if (isServerUnavailable(failure)) throw;
    LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Debug, "The object '%s' cannot be read ahead: %s",
             lumo::printable(dn).c_str(), failure.what());
  }
}
