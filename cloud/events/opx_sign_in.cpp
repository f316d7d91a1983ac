// The processor's sign-in as this machine: a one-time code of the connector, a session of the platform for it.
#include <utility>

#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "base/include/wipe.h"
#include "cloud/http/cloud_object_certs.h"
#include "cloud/http/http_status.h"
#include "cloud/include/cloud_exceptions.h"
#include "cloud/include/curl_object.h"
#include "cloud/include/opx_processor.h"
#include "cloud/rest/json_reply.h"
#include "cloud/rest/machine_sign_in.h"

namespace lumo {

void OPXProcessor::initProc(const std::string& url) {
  dropEvents();
  platformUrl = url;
  guarded([this] {
    cloudSetup();
    cloudIWA();
    cloudSSO();
  });
  LUMO_LOG(logger, lumo::level::Debug, "OPXProcessor: initProc completes");
}

void OPXProcessor::guarded(const std::function<void()>& work) {
  try {
    work();
  } catch (const CloudIwaException& failure) {
    LUMO_LOG(logger, lumo::level::Debug, "Got IWA exception: %s", failure.what());
  } catch (const CurlException& failure) {
    LUMO_LOG(logger, lumo::level::Debug, "Got CURL exception: %s", failure.what());
  } catch (const LUMOException& failure) {
    LUMO_LOG(logger, lumo::level::Debug, "Got exception: %s", failure.what());
  }
}

bool OPXProcessor::readSiteCheck() {
  if (httpCode != HTTP_OK) {
    LUMO_LOG(logger, lumo::level::Debug, "siteCheck: httpCode not OK : %ld", httpCode);
    return false;
  }
  const EmbeddedObject object = findEmbeddedObject(responseBody);
  if (object.missing != '\0') {
    LUMO_LOG(logger, lumo::level::Debug,
             "siteCheck: no valid json string in SiteCheck response. Can't find '{' or '}'.");
    return false;
  }
  rapidjson::Document reply;
  lumo::parseJson(reply, object.text);
  std::string result;
  lumo::getJsonString(reply, SITE_CHECK_RESULT, result);
  if (result != SITE_CHECK_SUCCESS) {
    LUMO_LOG(logger, lumo::level::Debug, "siteCheck: result not success: (%s)", result.c_str());
    return false;
  }
  document = std::move(reply);
  return true;
}

void OPXProcessor::trustPlatform() {
  const bool isVerified = verifies(PN::FERROD_CLOUD_SKIP_CERT_VERIFICATION);
  if (isVerified && certStore.empty()) certStore = findCertBundle();
  setTrust(*curl, {isVerified, certStore, {}});
}

void OPXProcessor::cloudIWA() {
  // Neither a code that an earlier sign-in left nor one beside a refusal may go out over the connection as it is
  // meanwhile.
  document.SetNull();
  ConnectorVisit visit(heldCurl());
  std::string spn;
  const std::string url = findIwaUrl(platformUrl, spn) + SITE_CHECK_PATH;
  keep(visit.ask(url, spn));
  LUMO_LOG(logger, lumo::level::Debug, "siteCheck: URL = %s, SPN = %s, httpCode = %ld", url.c_str(), spn.c_str(),
           httpCode);
  if (!readSiteCheck()) return;
  LUMO_LOG(logger, lumo::level::Debug, "Set CURL web proxy to: '%s' with auth: '%s'.", webProxy.proxyServer.c_str(),
           webProxy.proxyAuth.c_str());
  visit.putBack(webProxy);
  trustPlatform();
  LUMO_LOG(logger, lumo::level::Debug, "siteCheck: complete successfully");
}

void OPXProcessor::cloudSSO() {
  std::string code;
  const WipeAtEnd wipeCode(code);
  lumo::getJsonString(document, SITE_CHECK_CODE, code);
  const CodeUrl url(platformUrl + SSO_PATH, code);
  const int result = getMasked(url.whole(), url.shown());
  LUMO_LOG(logger, lumo::level::Debug, "sso: result = %d, httpCode = %ld", result, httpCode);
  if (result == 0) return;
  wipe(machineCookie);
  machineCookie = curl->cookie(CurlObject::SESSION_COOKIE, platformUrl);
}

}  // namespace lumo
