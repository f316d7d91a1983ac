#include <exception>
#include <memory>

#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "base/include/wipe.h"
#include "cloud/http/cloud_object_certs.h"
#include "cloud/include/cloud_object.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/include/curl_object.h"
#include "cloud/include/opx.h"

namespace {

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.object", false); }

// Fills `certStore` only where it is asked for.
void trustPlatform(CurlObject& curl, std::string& certStore) {
  Trust trust;
  trust.verifies = verifies(lumo::PN::FERROD_CLOUD_SKIP_CERT_VERIFICATION);
  if (trust.verifies) trust.bundle = certStore = platformBundle();
  setTrust(curl, trust);
  if (!trust.verifies) return;
  if (certStore.empty()) {
    LUMO_LOG(logger(), lumo::level::Error,
             "Cloud cert verification is enabled yet no valid cert store found.Cloud connections may fail");
    return;
  }
  LUMO_LOG(logger(), lumo::level::Debug, "Will use cert store : '%s' for cloud cert verification.", certStore.c_str());
}

}  // namespace

CloudBase::~CloudBase() {
  wipe(responseBody);
  try {
    releaseCurl();
  } catch (const std::exception& failure) {
    LUMO_LOG(logger(), lumo::level::Warn, "A connection could not be given back: %s", failure.what());
  }
}

void CloudBase::getCurl(const std::string& userName, const std::string& programName) {
  if (curl != nullptr) return;
  curl = CloudCurlPool::getInstance().getCurl(userName, programName);
  if (curl == nullptr) return;
  try {
    trustPlatform(*curl, certStore);
  } catch (...) {
    // It may still trust what an earlier holder's settings said.
    releaseCurl();
    throw;
  }
}

void CloudBase::releaseCurl() { CloudCurlPool::getInstance().releaseCurl(std::exchange(curl, nullptr)); }

void CloudBase::setProxy(const CloudProxyInfo& proxy) { CloudCurlPool::getInstance().setProxy(proxy); }

void CloudBase::resetProxy() {
  const bool isDirect = lumo::Props(false, false).getBool(lumo::PN::CLOUD_DIRECT_CONNECTION, false);
  LUMO_LOG(logger(), lumo::level::Debug, "Reset cloud web proxy...");
  if (isDirect) return;
  CloudConnectorLocator::getInstance(cloudUrl)->discardCurrentCloudConnector();
  setProxy(getCloudHttpProxy(cloudUrl));
}
