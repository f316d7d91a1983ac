#include "cloud/route/opx_proxy.h"

#include <arpa/inet.h>

#include <utility>

#include "basalt/kerberos/protected_credential.h"
#include "basalt/settings/fips.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/include/opx.h"
#include "cloud/route/opx_lock.h"

lumo::Mutex opxLock;

namespace {

constexpr char DEFAULT_PORT[] = "8080";

CloudProxyInfo cloudHttpProxy;  // under opxLock

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.opx.processor", false); }

bool isNumeric(const std::string& host) {
  in_addr ignored{};
  return inet_aton(host.c_str(), &ignored) != 0;
}

void logCredentialFailure(const char* why) {
  LUMO_LOG(logger(), lumo::level::Error, "Failed to get proxy credential, %sUse of Http Proxy Server might fail!", why);
}

void fillCredential(CloudProxyInfo& proxy) {
  try {
    lumo::ProtectedCredential credential(lumo::PROXY_CREDENTIAL);
    credential.loadFromFile(true);
    if (!credential.isLoaded()) {
      logCredentialFailure("none is stored. ");
      return;
    }
    proxy.proxyUser = credential.getUser();
    if (proxy.proxyUser == MACHINE_MARKER) {
      LUMO_LOG(logger(), lumo::level::Debug, "Force authtype to 'negotiate' when using machine credential.");
      proxy.proxyAuth = "negotiate";
    } else {
      credential.getSecret(proxy.proxyPassword);
    }
  } catch (const LUMOException& failure) {
    logCredentialFailure(failure.what());
  }
}

void fillAuthentication(CloudProxyInfo& proxy, bool hostIsName) {
  proxy.proxyAuth = lower(lumo::Props(false, false).getProperty(lumo::PN::CLOUD_PROXY_AUTH_TYPE, "AnyAuth"));
  if (lumo::FIPSHelper::bars(proxy.proxyAuth) && lumo::FIPSHelper::isStarted()) {
    LUMO_LOG(logger(), lumo::level::Error, "Auth Type '%s' is not allowed when FIPS mode is enabled.",
             proxy.proxyAuth.c_str());
    proxy.proxyUsable = false;
  }
  fillCredential(proxy);
  if (!hostIsName && (proxy.proxyAuth == "negotiate" || proxy.proxyAuth == "anyauth")) {
    LUMO_LOG(logger(), lumo::level::Error,
             "FQDN hostname should be specified when using 'negotiate' or 'anyauth' in proxy authentication, "
             "authentication to proxy might fail.");
  }
}

CloudProxyInfo readConfiguration() {
  CloudProxyInfo proxy;
  const lumo::Properties& settings = lumo::Props(false, false);
  const std::string server = settings.getProperty(lumo::PN::CLOUD_PROXY_SERVER);
  const std::string::size_type colon = server.find(':');
  const std::string host = server.substr(0, colon);
  if (host.empty()) return proxy;
  std::string port = colon == std::string::npos ? std::string() : server.substr(colon + 1);
  if (port.empty()) port = DEFAULT_PORT;
  proxy.proxyServer.append(host).append(":").append(port);
  if (settings.getBool(lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, false)) fillAuthentication(proxy, !isNumeric(host));
  return proxy;
}

CloudProxyInfo configuredProxy() {
  const lumo::Lock lock(opxLock);
  return cloudHttpProxy;
}

}  // namespace

void UpdateCloudHttpProxy() {
  const lumo::Lock lock(opxLock);
  cloudHttpProxy = readConfiguration();
  LUMO_LOG(logger(), lumo::level::Debug, "The http proxy setting from config is proxy: '%s', auth: '%s'.",
           cloudHttpProxy.proxyServer.c_str(), cloudHttpProxy.proxyAuth.c_str());
}

std::optional<CloudProxyInfo> configuredHttpProxy() {
  if (lumo::Props(false, false).getBool(lumo::PN::CLOUD_DIRECT_CONNECTION, false)) return CloudProxyInfo();
  CloudProxyInfo proxy = configuredProxy();
  // One that may not be used is no proxy at all: the connector takes its place.
  if (!proxy.proxyUsable || proxy.proxyServer.empty()) return std::nullopt;
  return proxy;
}

CloudProxyInfo getCloudHttpProxy(const std::string& url) {
  if (auto proxy = configuredHttpProxy()) return *std::move(proxy);
  // opxLock is free here: the locator's own lock comes before it.
  CloudProxyInfo connector;
  connector.proxyServer = CloudConnectorLocator::getInstance(url)->getCloudConnector();
  return connector;
}
