#include "cloud/include/cloud_auth_handler.h"

#include <array>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/include/opx.h"
#include "cloud/login/cloud_auth_v0.h"
#include "cloud/login/cloud_auth_v1.h"
#include "cloud/login/cloud_auth_v1s.h"
#include "cloud/login/lookup.h"
#include "cloud/rest/machine_sign_in.h"

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

using MakeClient = Client (*)(const ClientArguments&);

Client makeVersion0(const ClientArguments& with) {
  return std::make_unique<CloudAuthV0>(with.url, with.version, with.user);
}

Client makeVersion1(const ClientArguments& with) {
  return std::make_unique<CloudAuthV1>(with.url, with.version, with.user);
}

Client makeNewest(const ClientArguments& with) {
  return std::make_unique<CloudAuthV1S>(with.url, with.version, with.user, with.uuid, with.iwaUrl, with.spn,
                                        with.profile);
}

constexpr std::array<std::pair<std::string_view, MakeClient>, 2> VERSIONS{{
    {"0", &makeVersion0},
    {"1.0", &makeVersion1},
}};

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.object", false); }

// The platform of the connectors; the selection settles it.
std::string urlOfConnectors() {
  CloudConnectorLocator::getInstance(std::string())->getCloudConnector();
  std::string url = CloudConnectorLocator::getInstance(std::string())->cloudUrl();
  LUMO_LOG(logger(), lumo::level::Debug, "Cloud url is: %s.", url.c_str());
  return url;
}

Client makeClient(const ClientArguments& with) {
  try {
    return lookedUp(VERSIONS, with.version, MakeClient{&makeNewest})(with);
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
  LUMO_LOG(logger(), lumo::level::Debug, "The cloud REST API version is: %s.", version.c_str());
  std::string spn;
  const std::string iwaUrl = findIwaUrl(url, spn);
  LUMO_LOG(logger(), lumo::level::Debug, "IWA URL is: %s. SPN = %s.", iwaUrl.c_str(), spn.c_str());
  Client client = makeClient({url, version, userName, uuid, iwaUrl, spn, authProfileType});
  if (proxy.proxyServer.empty() && !isDirect) {
    LUMO_THROW(lumo::CloudConnectorException, -1, "Cloud web proxy is not configured correctly.");
  }
  CloudBase::setProxy(proxy);
  return client.release();
}
