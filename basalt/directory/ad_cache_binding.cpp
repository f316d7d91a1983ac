#include "basalt/directory/ad_cache_binding.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "basalt/directory/ad_cache_binding_question.h"
#include "basalt/process/clock.h"
#include "base/include/exceptions.h"
#include "base/include/kerb_wrap.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace {

constexpr char LOGGER_NAME[] = "base.directory";

SearchScope scopeOf(int scope) {
  switch (scope) {
    case 0:
      return SearchScope::Base;
    case 1:
      return SearchScope::OneLevel;
    default:
      return SearchScope::Subtree;
  }
}

std::string spanText(std::chrono::milliseconds span) {
  return span < std::chrono::seconds(1) ? std::to_string(span.count()) + " milliseconds"
                                        : std::to_string(span.count() / 1000) + " seconds";
}

// Log messages and callers name an object by it.
void addGuid(std::vector<std::string>& attributes) {
  if (attributes.empty()) return;  // all
  const std::string guid = lower(AD_OBJECT_GUID);
  if (std::none_of(attributes.begin(), attributes.end(), [&](const auto& name) { return lower(name) == guid; })) {
    attributes.emplace_back(AD_OBJECT_GUID);
  }
}

}  // namespace

namespace lumo {

std::vector<std::string> attributeList(const char* const* attributes) {
  std::vector<std::string> list;
  for (; attributes != nullptr && *attributes != nullptr; ++attributes) list.emplace_back(*attributes);
  return list;
}

std::string questionText(const DirectorySearch& what, int sizeLimit) {
  std::string text =
      lower(what.base) + '\n' + std::to_string(static_cast<int>(what.scope)) + '\n' + std::to_string(sizeLimit) + '\n';
  for (const std::string& name : what.attributes) text += lower(name) + ',';
  return text + '\n' + what.filter;
}

}  // namespace lumo

ADCacheBinding::ADCacheBinding(DirectoryConnector::Target target, std::function<std::string()> ccache,
                               std::chrono::milliseconds connectLimit)
    : m_target(std::move(target)), m_ccache(std::move(ccache)), m_connectLimit(connectLimit) {}

ADCacheBinding::~ADCacheBinding() = default;

boost::shared_ptr<ADObjectList> ADCacheBinding::recall(const std::string& filter, const std::string& base,
                                                       const char* const* attributes, int scope, int sizeLimit) {
  const DirectorySearch what{base, scopeOf(scope), filter, lumo::attributeList(attributes)};
  auto known = m_memory.read(lumo::questionText(what, sizeLimit));
  return known ? boost::shared_ptr<ADObjectList>(new ADObjectList(std::move(*known))) : nullptr;
}

boost::shared_ptr<ADObjectList> ADCacheBinding::search(const std::string& filter, const std::string& base,
                                                       const char* const* attributes, int scope, int sizeLimit,
                                                       int cacheOps, bool, bool) {
  const DirectorySearch what{base, scopeOf(scope), filter, lumo::attributeList(attributes)};
  const std::string question = lumo::questionText(what, sizeLimit);
  const bool fromMemory = (cacheOps & CACHE_READ) != 0 && (cacheOps & CACHE_RENEW) == 0;
  const auto handle = [](ADObjectList list) {
    return boost::shared_ptr<ADObjectList>(new ADObjectList(std::move(list)));
  };
  if (fromMemory) {
    if (auto known = m_memory.read(question)) return handle(std::move(*known));
  }
  const lumo::Lock lock(m_mutex);
  if (fromMemory) {
    // Whoever was waited for may have asked the same.
    if (auto known = m_memory.read(question)) return handle(std::move(*known));
  }
  ADObjectList found = search(what);
  if (sizeLimit > 0 && found.size() > static_cast<std::size_t>(sizeLimit)) {
    found.resize(static_cast<std::size_t>(sizeLimit));
  }
  remember(question, found, cacheOps);
  return handle(std::move(found));
}

void ADCacheBinding::remember(const std::string& question, const ADObjectList& answer, int cacheOps) {
  const bool wanted = (cacheOps & CACHE_STORE) != 0 && (!answer.empty() || (cacheOps & CACHE_MISSES) != 0);
  if (wanted) {
    m_memory.store(question, answer);
  } else {
    m_memory.forget(question);  // an older answer is a wrong one by now
  }
}

std::vector<ADObjectPtr> ADCacheBinding::search(const DirectorySearch& what) {
  DirectorySearch whole = what;
  addGuid(whole.attributes);
  const lumo::Lock lock(m_mutex);
  for (bool fresh = requireConnection();;) {
    try {
      return m_connection->search(whole);
    } catch (const LDAPException& failure) {
      if (!isConnectionLost(failure) && !isServerUnavailable(failure)) throw;
      if (fresh || !isConnectionLost(failure)) {
        lose({false, failure.rc(), failure.what()});
      }
      LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Debug,
               "The connection to the directory of '%s' was lost (%s), connecting again",
               lumo::printable(m_target.domain).c_str(), failure.what());
    }
    m_connection.reset();
    fresh = connect();
  }
}

void ADCacheBinding::announce(const DirectorySearch& what) {
  DirectorySearch whole = what;
  addGuid(whole.attributes);
  const lumo::Lock lock(m_mutex);
  if (m_connection) m_connection->announce(whole);
}

ADObjectPtr ADCacheBinding::fetch(const std::string& dn, const std::vector<std::string>& attributes) {
  if (dn.empty()) return nullptr;
  const auto found = search({dn, SearchScope::Base, lumo::ANY_OBJECT, attributes});
  return found.empty() ? nullptr : found.front();
}

bool ADCacheBinding::isHealthy() {
  try {
    const lumo::Lock lock(m_mutex);
    requireConnection();
    return true;
  } catch (const std::exception& failure) {
    LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Debug, "The directory of '%s' is not there: %s",
             lumo::printable(m_target.domain).c_str(), failure.what());
    return false;
  }
}

bool ADCacheBinding::requireConnection() {
  if (m_connection) return false;
  if (m_failure && lumo::Clock::getInstance().steadyNow() < m_failedAt + RETRY_PAUSE) raise(*m_failure);
  return connect();
}

bool ADCacheBinding::connect() {
  const auto end = std::chrono::steady_clock::now() + m_connectLimit;
  const bool leftBehind = m_opening.valid();
  bool fresh = !leftBehind || m_opening.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
  Opened opened = awaitOpening(end);
  // What an earlier search left behind may have failed long ago: it says nothing about now.
  if (leftBehind && opened.failure) {
    opened = awaitOpening(end);
    fresh = true;
  }
  if (opened.failure) lose(std::move(*opened.failure));
  m_connection = std::move(opened.connection);
  m_failure.reset();
  ++m_connections;
  return fresh;
}

ADCacheBinding::Opened ADCacheBinding::awaitOpening(std::chrono::steady_clock::time_point end) {
  if (!m_opening.valid()) beginOpening();
  if (m_opening.wait_until(end) != std::future_status::ready) {
    lose({false, serverUnavailable("").rc(),
          lumo::exceptionMessage("No directory server of the domain '%s' was reached within %s",
                                 lumo::printable(m_target.domain).c_str(), spanText(m_connectLimit).c_str())});
  }
  return m_opening.get();
}

void ADCacheBinding::beginOpening() {
  try {
    m_opening = std::async(std::launch::async, [target = m_target, ccache = m_ccache] { return open(target, ccache); });
  } catch (const std::system_error& failure) {
    lose({false, serverUnavailable("").rc(),
          lumo::exceptionMessage("Cannot start the thread that connects to the domain '%s': %s",
                                 lumo::printable(m_target.domain).c_str(), failure.what())});
  }
}

// No exception leaves the thread: what it says goes over as a value.
ADCacheBinding::Opened ADCacheBinding::open(DirectoryConnector::Target target,
                                            const std::function<std::string()>& ccache) {
  try {
    try {
      target.ccacheName = ccache();
    } catch (const LUMOException& failure) {
      return {nullptr, Failure{true, failure.rc(), failure.what()}};
    }
    return {DirectoryConnector::getInstance().open(target), std::nullopt};
  } catch (const KerberosException& failure) {
    return {nullptr, Failure{true, failure.rc(), failure.what()}};
  } catch (const LDAPException& failure) {
    return {nullptr, Failure{false, failure.rc(), failure.what()}};
  } catch (const std::exception& failure) {
    return {nullptr, Failure{false, serverUnavailable("").rc(), failure.what()}};
  }
}

void ADCacheBinding::lose(Failure failure) {
  m_connection.reset();
  m_failedAt = lumo::Clock::getInstance().steadyNow();
  m_failure = std::move(failure);
  raise(*m_failure);
}

void ADCacheBinding::raise(const Failure& failure) {
  if (failure.kerberos) throw KerberosException(failure.rc, failure.text.c_str(), __FILE__, __LINE__);
  throw LDAPException(__FILE__, __LINE__, failure.text.c_str(), "LDAPException", failure.rc);
}
