#include "basalt/ad_agent.h"

#include <atomic>
#include <memory>
#include <utility>

#include "basalt/directory/ad_cache_binding_question.h"
#include "basalt/directory/canonical_spn.h"
#include "basalt/kerberos/kerberos_credentials.h"
#include "basalt/kerberos/kerberos_machine_cache.h"
#include "basalt/process/clock.h"
#include "basalt/settings/settings_store.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace {

std::atomic<ADAgent*> g_agent{nullptr};

// Of start and stop alone.
lumo::Mutex& lifeMutex() {
  static lumo::Mutex mutex;
  return mutex;
}

boost::shared_ptr<lumo::Logger> logger() { return getLogger("base.directory", false); }

ADAgent::Options completed(ADAgent::Options options) {
  if (options.domain.empty()) options.domain = lumo::loadSetting(SETTING_DOMAIN_NAME, false, false);
  if (options.domain.empty()) {
    LUMO_THROW(lumo::BadDataException, -1,
               "This host belongs to no domain: neither the settings nor the keytab name one; join it, or give a "
               "domain");
  }
  return options;
}

std::function<std::string()> machineCache(const ADAgent::Options& options) {
  if (options.keytab.empty() && options.ccache.empty()) return &ADHelper::GetMachineCredCache;
  const auto orElse = [](const std::string& path, const char* usual) { return path.empty() ? usual : path; };
  return [keytab = orElse(options.keytab, lumo::path::MACHINE_KEYTAB),
          ccache = orElse(options.ccache, lumo::path::MACHINE_CCACHE)] {
    return lumo::machineCredentialCache(keytab, ccache);
  };
}

// One bracketed term; terms side by side are joined so that all must match.
std::string wholeFilter(const std::string& filter) {
  int depth = 0;
  for (std::size_t i = 0; i < filter.size(); ++i) {
    if (filter[i] == '(') ++depth;
    if (filter[i] == ')' && --depth == 0) return i + 1 == filter.size() ? filter : "(&" + filter + ")";
  }
  return filter;  // no filter: the server says so
}

}  // namespace

void ADAgent::start(const Options& options) {
  const lumo::Lock lock(lifeMutex());
  if (g_agent.load() != nullptr) LUMO_THROW(lumo::BadDataException, -1, "This process has an agent already");
  std::unique_ptr<ADAgent> agent(new ADAgent(completed(options)));
  const bool domain = agent->m_domain.isHealthy();
  const bool catalogue = agent->m_catalogue.isHealthy();
  const std::string site = domain || catalogue ? agent->siteName() : std::string();
  LUMO_LOG(logger(), lumo::level::Info,
           "The agent of the domain '%s' has started: site '%s', controller %s, catalogue %s",
           lumo::printable(agent->m_domain.domain()).c_str(), lumo::printable(site).c_str(),
           domain ? "reached" : "not reached", catalogue ? "reached" : "not reached");
  g_agent.store(agent.release());
}

void ADAgent::stop() {
  const lumo::Lock lock(lifeMutex());
  delete g_agent.exchange(nullptr);
}

ADAgent* ADAgent::GetADAgent(bool, bool) { return g_agent.load(); }

ADAgent::ADAgent(const Options& options)
    : m_domain({options.domain, false, options.server, {}, {}}, machineCache(options)),
      m_catalogue({options.domain, true, options.catalogue, {}, {}}, machineCache(options)) {}

ADAgent::~ADAgent() = default;

bool ADAgent::isConnected() { return m_domain.isHealthy(); }

std::string ADAgent::siteName() {
  const unsigned connections = m_domain.connections();
  const lumo::Lock lock(m_siteMutex);
  const auto now = lumo::Clock::getInstance().steadyNow();
  if (m_siteAsked && connections == m_siteConnections && now < m_siteDue) return m_site;
  const std::string told = DirectoryConnector::getInstance().site(m_domain.domain());
  if (!told.empty()) {
    const lumo::Lock nameLock(m_siteNameMutex);
    m_site = told;
  }
  m_siteAsked = true;
  m_siteConnections = connections;
  m_siteDue = now + (told.empty() ? std::chrono::seconds(SITE_RETRY) : std::chrono::seconds(SITE_LIFE));
  return m_site;
}

std::string ADAgent::lastSiteName() {
  const lumo::Lock lock(m_siteNameMutex);
  return m_site;
}

template <class Ask>
auto ADAgent::inCatalogueOrDomain(const Ask& ask) {
  try {
    return ask(m_catalogue);
  } catch (const LDAPException& failure) {
    if (!isServerUnavailable(failure)) throw;
    LUMO_LOG(logger(), lumo::level::Debug, "The catalogue cannot be reached, asking the domain '%s': %s",
             lumo::printable(m_domain.domain()).c_str(), failure.what());
  }
  return ask(m_domain);
}

std::optional<ADObjectPtr> ADAgent::recall(const std::string& dn, const char* const* attributes) {
  if (dn.empty()) return nullptr;
  if (const auto known = m_catalogue.recall(lumo::ANY_OBJECT, dn, attributes, 0, 0)) {
    return known->empty() ? nullptr : known->front();
  }
  // A controller knows its own domain only: that it has no such object says little.
  const auto known = m_domain.recall(lumo::ANY_OBJECT, dn, attributes, 0, 0);
  if (known && !known->empty()) return known->front();
  return std::nullopt;
}

ADObjectPtr ADAgent::find(const std::string& dn, const char* const* attributes, int cacheOps) {
  if (dn.empty()) return nullptr;
  if ((cacheOps & CACHE_READ) != 0 && (cacheOps & CACHE_RENEW) == 0) {
    if (auto known = recall(dn, attributes)) return std::move(*known);
  }
  const auto found = inCatalogueOrDomain([&](ADCacheBinding& binding) {
    return binding.search(lumo::ANY_OBJECT, dn, attributes, 0, 0, cacheOps, false, false);
  });
  return found->empty() ? nullptr : found->front();
}

void ADAgent::prefetch(const std::vector<std::string>& dns, const char* const* attributes) {
  inCatalogueOrDomain([&](ADCacheBinding& binding) { binding.prefetch(dns, attributes); });
}

boost::shared_ptr<ADObjectList> ADAgent::searchGCorDC(const std::string& filter, const std::string& base,
                                                      const char* const* gcAttributes, const char* const* dcAttributes,
                                                      int cacheOps) {
  const std::string whole = wholeFilter(filter);
  return inCatalogueOrDomain([&](ADCacheBinding& binding) {
    const char* const* const attributes = &binding == &m_catalogue ? gcAttributes : dcAttributes;
    return binding.search(whole, base, attributes, 2, 0, cacheOps, false, false);
  });
}

std::string ADAgent::canonicalServiceName(const std::string& spn) {
  if (auto known = m_serviceNames.read(spn)) return std::move(*known);
  const lumo::Lock lock(m_serviceNameMutex);
  // Whoever was waited for may have asked for the same.
  if (auto known = m_serviceNames.read(spn)) return std::move(*known);
  std::string canonical = askServiceName(spn);
  m_serviceNames.store(spn, canonical);
  return canonical;
}

std::string ADAgent::askServiceName(const std::string& spn) {
  try {
    return lumo::canonicalServiceName(spn, m_domain, m_catalogue, &GetAgentDomainBind);
  } catch (const LUMOException& failure) {
    LUMO_LOG(logger(), lumo::level::Warn, "The service name %s cannot be looked up: %s", lumo::printable(spn).c_str(),
             failure.what());
    return {};
  }
}

ADBind* GetAgentDomainBind(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*)) {
  *deleter = nullptr;
  if (lower(domain) == lower(binding.domain())) return &binding;
  return OpenDomainBind(domain, binding, deleter);
}

ADBind* OpenDomainBind(const std::string& domain, ADBind& binding, void (**deleter)(ADBind*)) {
  *deleter = nullptr;
  std::unique_ptr<ADBinding> further;
  if (const auto* const own = dynamic_cast<ADBinding*>(&binding)) {
    further = std::make_unique<ADBinding>(domain, *own);
  } else if (const auto* const agents = dynamic_cast<ADCacheBinding*>(&binding)) {
    further = std::make_unique<ADBinding>(domain, agents->ccacheName(), false, "", "", nullptr);
  } else {
    LUMO_THROW(lumo::BadDataException, 2,
               "Failed to downcast ADBind to ADBinding, incorrect binding type was supplied!");
  }
  further->connect("", "", 0);
  *deleter = [](ADBind* opened) {
    if (opened != nullptr) static_cast<ADBinding*>(opened)->release();
  };
  return further.release();
}
