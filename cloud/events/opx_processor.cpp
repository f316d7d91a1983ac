// The processor itself: the one of the process, its connection, how replies are judged.
#include "cloud/include/opx_processor.h"

#include <utility>

#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "base/include/wipe.h"
#include "cloud/events/opx_handler.h"
#include "cloud/http/http_status.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/include/curl_object.h"
#include "cloud/include/opx.h"
#include "cloud/rest/json_reply.h"

namespace lumo {

namespace {

constexpr char CLASS_NAME[] = "lumo::OPXException";

// Outlives the statics of other files, as the queue's thread may at the end of the process.
OPXProcessor* processorInstance = nullptr;

}  // namespace

OPXProcessor::OPXProcessor() : CloudBase(std::string()), logger(Logger::GetThreadPrivateLogger(OPX_LOGGER)) {}

OPXProcessor::~OPXProcessor() {
  wipe(machineCookie);
  // Not the pool's to take back.
  curl = nullptr;
}

void OPXProcessor::createProcessor() {
  std::unique_ptr<OPXProcessor> made(new OPXProcessor());
  destroyProcessor();
  processorInstance = made.release();
}

void OPXProcessor::destroyProcessor() { delete std::exchange(processorInstance, nullptr); }

void OPXProcessor::checkEnabled() {
  if (!Props(false, false).getBool(PN::FERROD_CLOUD_LOG_PRIVEVENT, false)) {
    throw OPXException(__FILE__, __LINE__, "OPX is disabled in config file.", CLASS_NAME, 0);
  }
}

OPXProcessor* OPXProcessor::getInstance() {
  checkEnabled();
  if (processorInstance == nullptr) throw OPXException(__FILE__, __LINE__, "OPX is not ready.", CLASS_NAME, 1);
  return processorInstance;
}

void OPXProcessor::cloudSetup() {
  if (!ownCurl) ownCurl = std::make_unique<CurlObject>();
  curl = ownCurl.get();
  curl->headers["Content-Type"] = "application/json";
  curl->headers["X-MORVANE-NATIVE-CLIENT"] = "1";
  curl->headers["X-MRV-SRC"] = "QRS";
  if (platformUrl.empty()) {
    CloudConnectorLocator* const locator = CloudConnectorLocator::getInstance(platformUrl);
    locator->getCloudConnector();
    platformUrl = locator->zoneCloudUrl();
  }
  const bool isDirect = Props(false, false).getBool(PN::CLOUD_DIRECT_CONNECTION, false);
  webProxy = getCloudHttpProxy(platformUrl);
  if (webProxy.proxyServer.empty()) {
    LUMO_LOG(
        logger, lumo::level::Debug, "%s",
        isDirect ? "Ferrod is connecting to cloud server directly." : "Cloud web proxy is not configured correctly.");
    curl->clearProxy(false);
  } else {
    LUMO_LOG(logger, lumo::level::Debug, "Set CURL web proxy to: '%s' with auth: '%s'.", webProxy.proxyServer.c_str(),
             webProxy.proxyAuth.c_str());
    curl->setProxy(webProxy.proxyServer, webProxy.proxyAuth, webProxy.proxyUser, webProxy.proxyPassword);
  }
}

int OPXProcessor::processResult() {
  LUMO_LOG(logger, lumo::level::Debug, "HTTP code = %ld", httpCode);
  if (httpCode != HTTP_OK) return 0;
  return lumo::readReply(logger, responseBody, document);
}

}  // namespace lumo
