#include "basalt/directory/directory_locator.h"

#include <algorithm>
#include <charconv>

#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

constexpr char LOGGER_NAME[] = "base.directory";
constexpr std::uint16_t LDAP_PORT_NUMBER = 389;
constexpr std::uint16_t CATALOGUE_PORT_NUMBER = 3268;

std::vector<DirectoryServer> inOrder(const SrvAnswer& answer, const LocatorSources& sources) {
  std::vector<DirectoryServer> servers;
  for (const SrvRecord& record : orderSrvRecords(answer.records, sources.random)) {
    servers.push_back({record.target, record.port});
  }
  return servers;
}

// Throws unless DNS knows servers by that name.
std::vector<DirectoryServer> required(const std::string& name, const std::string& domain,
                                      const LocatorSources& sources) {
  const SrvAnswer answer = sources.srv(name);
  if (answer.status == SrvAnswer::Status::Silent) {
    LUMO_THROW(DNSUnavailableException, -1,
               "No directory server of the domain '%s' was found: the DNS query for %s failed (%s); check the "
               "nameservers in /etc/resolv.conf",
               printable(domain).c_str(), printable(name).c_str(), printable(answer.reason).c_str());
  }
  if (answer.status == SrvAnswer::Status::NoRecords) {
    LUMO_THROW(DNSUnavailableException, -1,
               "No directory server of the domain '%s' was found: DNS has no SRV records for %s; check the domain's "
               "name and the nameservers in /etc/resolv.conf",
               printable(domain).c_str(), printable(name).c_str());
  }
  return inOrder(answer, sources);
}

// A site's name as one label of a DNS name.
bool isLabel(const std::string& site) {
  return !site.empty() && site.size() <= 63 && std::all_of(site.begin(), site.end(), [](char c) {
    return static_cast<unsigned char>(c) >= ' ' && c != '.' && c != '\\' && c != '"';
  });
}

// The site's servers; none when there is no site or DNS does not know it.
std::vector<DirectoryServer> ofSite(const std::string& before, const std::string& site, const std::string& behind,
                                    const LocatorSources& sources) {
  if (!isLabel(site)) return {};
  return inOrder(sources.srv(before + site + behind), sources);
}

void append(std::vector<DirectoryServer>& servers, const std::vector<DirectoryServer>& more) {
  for (const DirectoryServer& one : more) {
    const bool there = std::any_of(servers.begin(), servers.end(), [&](const DirectoryServer& other) {
      return other.port == one.port && lower(other.host) == lower(one.host);
    });
    if (!there) servers.push_back(one);
  }
}

// "host", "host:port" or "[address]:port".
DirectoryServer given(const std::string& server, bool globalCatalog) {
  DirectoryServer one{server, globalCatalog ? CATALOGUE_PORT_NUMBER : LDAP_PORT_NUMBER};
  const std::size_t colon = server.rfind(':');
  const bool bracketed = !server.empty() && server.front() == '[';
  if (colon != std::string::npos && (bracketed ? server[colon - 1] == ']' : server.find(':') == colon)) {
    const char* end = server.data() + server.size();
    const auto [stop, error] = std::from_chars(server.data() + colon + 1, end, one.port);
    if (error != std::errc() || stop != end || one.port == 0) {
      LUMO_THROW(BadDataException, -1, "'%s' does not name a server and a port", printable(server).c_str());
    }
    one.host.resize(colon);
  }
  if (bracketed && one.host.back() == ']') one.host = one.host.substr(1, one.host.size() - 2);
  return one;
}

}  // namespace

std::vector<DirectoryServer> domainControllers(const std::string& domain, const LocatorSources& sources) {
  if (domain.empty()) {
    LUMO_THROW(DNSUnavailableException, -1, "No directory server was found: the name of the domain is empty");
  }
  return required("_ldap._tcp.dc._msdcs." + domain, domain, sources);
}

std::vector<DirectoryServer> locateServers(const DirectoryConnector::Target& target, const LocatorSources& sources) {
  if (!target.server.empty()) return {given(target.server, target.globalCatalog)};
  const auto ofDomain = domainControllers(target.domain, sources);
  std::optional<NetlogonReply> reply;
  if (target.site.empty() || target.globalCatalog) reply = sources.ping(ofDomain, target.domain);
  const std::string site = !target.site.empty() ? target.site : reply ? reply->clientSite : std::string();
  LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Debug,
           "Domain '%s' has %zu directory servers, this host's site is '%s'", printable(target.domain).c_str(),
           ofDomain.size(), printable(site).c_str());
  std::vector<DirectoryServer> servers;
  if (!target.globalCatalog) {
    append(servers, ofSite("_ldap._tcp.", site, "._sites.dc._msdcs." + target.domain, sources));
    append(servers, ofDomain);
    return servers;
  }
  std::string forest = reply ? reply->forest : sources.forest(ofDomain);
  if (forest.empty()) forest = target.domain;
  append(servers, ofSite("_gc._tcp.", site, "._sites." + forest, sources));
  append(servers, required("_gc._tcp." + forest, forest, sources));
  return servers;
}

}  // namespace lumo
