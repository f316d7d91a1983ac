// One search of the forest for connectors, as a host's agent makes it after its start.
//
// usage: search_connectors CONNECTORS PLATFORM-URL
// Fails unless so many connectors serve that platform.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "basalt/ad_agent.h"
#include "base/include/exceptions.h"
#include "cloud/include/cloudconnectorlocator.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: search_connectors CONNECTORS PLATFORM-URL\n");
    return 2;
  }
  try {
    ADAgent::start(ADAgent::Options());
    CloudConnectorLocator& locator = *CloudConnectorLocator::getInstance(argv[2]);
    locator.searchCloudConnetors(argv[2], true);
    std::vector<CloudConnectorInfo> found;
    locator.getConnectors(argv[2], found);
    if (found.size() == std::strtoul(argv[1], nullptr, 10)) return 0;
    std::fprintf(stderr, "%zu connectors\n", found.size());
  } catch (const LUMOException& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
  }
  return 1;
}
