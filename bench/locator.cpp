// Times processList, the sorting of what a search for connectors found: several platforms and sites, the computers in a
// directory in memory and read by the agent's own binding.
//
// usage: locator [SEED]
// A line for each number of records: the number, seconds of the processor, and the growth against the line before for
// ten times the records, separated by tabs. Linear is 10.
#include <boost/make_shared.hpp>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "basalt/ad_agent.h"
#include "bench/nobody.h"
#include "cloud/route/tests/cloudconnectorlocator_access.h"
#include "testsupport/memory_directory.h"

namespace {

constexpr std::size_t PLATFORMS = 7;
constexpr std::size_t SITES = 5;

std::string platformUrl(std::size_t number) { return "https://platform" + std::to_string(number) + ".example.test/"; }

// The connectors of so many computers, which the directory gets.
boost::shared_ptr<ADObjectList> fill(testsupport::MemoryDirectory& directory, std::size_t count, std::mt19937& random) {
  const auto found = boost::make_shared<ADObjectList>();
  for (std::size_t i = 0; i < count; ++i) {
    const std::string name = "host" + std::to_string(i);
    const std::string host = name + ".corp.example.test";
    const std::string computer = "CN=" + name + ",OU=Servers,DC=corp,DC=example,DC=test";
    directory.add(computer, {{"cn", {name}}, {"dNSHostName", {host}}, {"objectClass", {"computer"}}});
    const std::string dn = "CN=proxy," + computer;
    const auto connector = boost::make_shared<lumo::ADObject>(dn);
    connector->set(AD_DN, {dn});
    connector->set(
        AD_KEYWORDS,
        {"morvane.core.cloudurl:" + platformUrl(random() % PLATFORMS), "morvane.core.webproxy.port:8080",
         "morvane.mobile.proxyScp:true", "morvane.mobile.proxySite:Site" + std::to_string(random() % SITES),
         "morvane.mobile.proxySysId:TENANT", "morvane.mobile.proxyUri:https://" + host + ":443/",
         "morvane.core.webproxyenabled:True", "morvane.core.iwa.enabled:True", "morvane.core.iwa.hostname:" + host,
         "morvane.core.iwa.useHttps:True", "morvane.core.iwa.httpPort:80", "morvane.core.iwa.httpsPort:443"});
    found->push_back(connector);
  }
  return found;
}

double measure(std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  testsupport::MemoryDirectory directory("corp.example.test");
  directory.setSite("Site0");
  const testsupport::DirectoryInForce inForce(directory);
  ADAgent::Options options;
  options.domain = "corp.example.test";
  ADAgent::start(options);
  g_adAgent = ADAgent::GetADAgent(false, false);
  const auto found = fill(directory, count, random);
  double seconds = 0;
  {
    CloudConnectorLocatorAccess locator(platformUrl(0));
    locator.zoneCloudUrl = platformUrl(0);
    const double start = secondsSoFar();
    locator.processList(found);
    seconds = secondsSoFar() - start;
    if (locator.connectors.size() != count || locator.currentSiteTryList.empty()) {
      std::fprintf(stderr, "%zu connectors of %zu\n", locator.connectors.size(), count);
      std::exit(1);
    }
  }
  g_adAgent = nullptr;
  ADAgent::stop();
  return seconds;
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned seed = argc > 1 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)) : 1;
  NobodysTickets tickets;
  double before = 0;
  for (const std::size_t count : {1000U, 10000U, 100000U}) {
    const double seconds = measure(count, seed);
    std::printf("%zu\t%.3f", count, seconds);
    if (before > 0) std::printf("\t%.1f", seconds / before);
    std::printf("\n");
    std::fflush(stdout);
    before = seconds;
  }
  return 0;
}
