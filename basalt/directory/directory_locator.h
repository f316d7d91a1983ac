// Which servers of a domain or a forest to try, and in which order.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "basalt/directory/directory.h"
#include "basalt/directory/directory_ping.h"
#include "basalt/directory/directory_srv.h"

namespace lumo {

// What the locator asks the network.
struct LocatorSources {
  std::function<SrvAnswer(const std::string& name)> srv;
  std::function<std::optional<NetlogonReply>(const std::vector<DirectoryServer>&, const std::string& domain)> ping;
  // The forest's root domain, asked from the servers themselves; empty when they do not tell.
  std::function<std::string(const std::vector<DirectoryServer>&)> forest;
  RandomUpTo random;
};

// The controllers of a domain in the order in which to try them. Throws as locateServers.
std::vector<DirectoryServer> domainControllers(const std::string& domain, const LocatorSources& sources);

// The servers for a target, those of the host's site first. A given server stands alone. Throws
// DNSUnavailableException with words that say what to look at.
std::vector<DirectoryServer> locateServers(const DirectoryConnector::Target& target, const LocatorSources& sources);

}  // namespace lumo
