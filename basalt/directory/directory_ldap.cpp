#include "basalt/directory/directory_ldap.h"

#include <chrono>
#include <random>

#include "basalt/directory/directory_ldap_connection.h"
#include "basalt/directory/directory_locator.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

constexpr char LOGGER_NAME[] = "base.directory";
constexpr std::size_t MAX_MESSAGE = 511;
// Room for "; and NNN more".
constexpr std::size_t MORE_TEXT = 20;
constexpr std::size_t MAX_REASON = 240;
// No further server is tried behind it.
constexpr std::chrono::seconds OPEN_LIMIT{30};
constexpr std::size_t MAX_ASKED_FOR_FOREST = 3;

std::uint32_t randomUpTo(std::uint32_t limit) {
  thread_local std::mt19937 generator{std::random_device{}()};
  return std::uniform_int_distribution<std::uint32_t>(0, limit)(generator);
}

// The root domain of the forest, told to everybody by the servers' root object.
std::string askForest(const std::vector<DirectoryServer>& servers) {
  for (std::size_t i = 0; i < std::min(servers.size(), MAX_ASKED_FOR_FOREST); ++i) {
    try {
      LdapConnection connection(servers[i], false, {});
      return dnsDomainOf((*connection.rootDse())["rootDomainNamingContext"].toString());
    } catch (const LDAPException& failure) {
      LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Debug, "%s does not tell the forest: %s",
               printable(servers[i].host).c_str(), failure.what());
    }
  }
  return {};
}

// Names of servers come from DNS.
std::string textOf(const DirectoryServer& server) { return printable(server.host) + ":" + std::to_string(server.port); }

// Did the server look at the identity and refuse it, as against not being there?
bool isRefusal(const LDAPException& failure) { return !isServerUnavailable(failure); }

class LdapConnector : public DirectoryConnector {
 public:
  std::unique_ptr<DirectoryConnection> open(const Target& target) override {
    return openFirst(target, locateServers(target, m_sources));
  }

  std::string site(const std::string& domain) override {
    try {
      const auto reply = m_ping.renew(domainControllers(domain, m_sources), domain);
      if (reply) return reply->clientSite;
      LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Debug, "No controller of '%s' tells the site",
               printable(domain).c_str());
    } catch (const std::exception& failure) {
      LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Debug, "The site in '%s' is not known: %s",
               printable(domain).c_str(), failure.what());
    }
    return {};
  }

 private:
  static std::unique_ptr<DirectoryConnection> openFirst(const Target& target,
                                                        const std::vector<DirectoryServer>& servers) {
    const auto end = std::chrono::steady_clock::now() + OPEN_LIMIT;
    std::vector<TriedServer> tried;
    int refusal = 0;
    for (const DirectoryServer& server : servers) {
      if (std::chrono::steady_clock::now() >= end) {
        tried.push_back({textOf(server), "not tried any more"});
        continue;
      }
      try {
        auto connection = std::make_unique<LdapConnection>(server, target.globalCatalog, LdapLimits{});
        connection->bind(target.ccacheName);
        LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Debug, "Signed in to the directory server %s",
                 textOf(server).c_str());
        return connection;
      } catch (const LDAPException& failure) {
        LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Warn, "The directory server %s cannot be used: %s",
                 textOf(server).c_str(), failure.what());
        tried.push_back({textOf(server), failure.what()});
        if (isRefusal(failure) && refusal == 0) refusal = failure.rc();
      }
    }
    const std::string domain = "the domain '" + printable(target.domain) + "'";
    if (refusal != 0) {
      const auto text = triedServersText("The directory servers of " + domain + " do not let this host in", tried);
      LUMO_THROW(LDAPException, refusal, "%s", text.c_str());
    }
    LUMO_THROW(IOException, -1, "%s", triedServersText("No directory server of " + domain + " answers", tried).c_str());
  }

  PingMemory m_ping{[](const auto& servers, const std::string& domain) { return netlogonPing(servers, domain); }};
  const LocatorSources m_sources{
      [](const std::string& name) { return lookUpSrv(name); },
      [this](const auto& servers, const std::string& domain) { return m_ping(servers, domain); }, askForest,
      randomUpTo};
};

}  // namespace

std::string triedServersText(const std::string& beginning, const std::vector<TriedServer>& tried) {
  std::string text = beginning;
  for (std::size_t i = 0; i < tried.size(); ++i) {
    const std::string one =
        (i == 0 ? ": " : "; ") + printable(tried[i].server) + ": " + printable(tried[i].reason, MAX_REASON);
    const bool last = i + 1 == tried.size();
    if (text.size() + one.size() + (last ? 0 : MORE_TEXT) > MAX_MESSAGE) {
      return text + (i == 0 ? ": " : "; and ") + std::to_string(tried.size() - i) + (i == 0 ? " servers" : " more");
    }
    text += one;
  }
  return text;
}

}  // namespace lumo

DirectoryConnector& ldapDirectoryConnector() {
  static lumo::LdapConnector connector;
  return connector;
}
