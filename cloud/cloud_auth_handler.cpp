#include "cloud/include/cloud_auth_handler.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <new>

#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "cloud/cloud_auth_v0.h"
#include "cloud/cloud_auth_v1.h"
#include "cloud/cloud_auth_v1s.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/include/opx.h"

namespace {

constexpr int CLIENT_NOT_MADE = 1004;

using Client = std::unique_ptr<CloudAuth>;

struct ClientArguments {
  const std::string& url;
  const std::string& version;
  const std::string& user;
  const std::string& uuid;
  const std::string& iwaUrl;
  const std::string& spn;
  const int* profile;
};

struct ClientVersion {
  const char* version;
  Client (*make)(const ClientArguments&);
};
constexpr ClientVersion CLIENT_VERSIONS[] = {
    {"0",
     [](const ClientArguments& with) -> Client {
       return std::make_unique<CloudAuthV0>(with.url, with.version, with.user);
     }},
    {"1.0",
     [](const ClientArguments& with) -> Client {
       return std::make_unique<CloudAuthV1>(with.url, with.version, with.user);
     }},
};

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.object", false); }

// The platform of the connectors; the selection settles it.
std::string urlOfConnectors() {
  CloudConnectorLocator::getInstance(std::string())->getCloudConnector();
  std::string url = CloudConnectorLocator::getInstance(std::string())->cloudUrl();
  LUMO_LOG(logger(), 1, "Cloud url is: %s.", url.c_str());
  return url;
}

std::string findIwaUrl(const std::string& cloudUrl, std::string& spn) {
  std::string url = lumo::Props(false, false).getProperty(lumo::PN::CLOUD_IWA_URL_OVERRIDE);
  if (url.empty()) return CloudConnectorLocator::getInstance(cloudUrl)->getIwaUrl(spn);
  spn = GetSPNFromIwaURL(url);
  return url;
}

Client makeClient(const ClientArguments& with) {
  const auto* const known = std::find_if(std::begin(CLIENT_VERSIONS), std::end(CLIENT_VERSIONS),
                                         [&with](const ClientVersion& one) { return with.version == one.version; });
  try {
    if (known != std::end(CLIENT_VERSIONS)) return known->make(with);
    return std::make_unique<CloudAuthV1S>(with.url, with.version, with.user, with.uuid, with.iwaUrl, with.spn,
                                          with.profile);
  } catch (const std::bad_alloc&) {
    LUMO_THROW(BaseException, CLIENT_NOT_MADE, "Error in setting up communication with Morvane Identify Platform.");
  }
}

}  // namespace

CloudAuth* getHandler(const std::string& cloudUrl, const std::string& userName, const std::string& uuid,
                      const int* authProfileType) {
  const lumo::Properties& settings = lumo::Props(false, false);
  const std::string url = cloudUrl.empty() ? urlOfConnectors() : cloudUrl;
  const bool isDirect = settings.getBool(lumo::PN::CLOUD_DIRECT_CONNECTION, false);
  const CloudProxyInfo proxy = getCloudHttpProxy(url);
  const std::string version = settings.getProperty(lumo::PN::CLOUD_REST_VERSION);
  LUMO_LOG(logger(), 1, "The cloud REST API version is: %s.", version.c_str());
  std::string spn;
  const std::string iwaUrl = findIwaUrl(url, spn);
  LUMO_LOG(logger(), 1, "IWA URL is: %s. SPN = %s.", iwaUrl.c_str(), spn.c_str());
  Client client = makeClient({url, version, userName, uuid, iwaUrl, spn, authProfileType});
  if (proxy.proxyServer.empty() && !isDirect) {
    LUMO_THROW(lumo::CloudConnectorException, -1, "Cloud web proxy is not configured correctly.");
  }
  CloudBase::setProxy(proxy);
  return client.release();
}
