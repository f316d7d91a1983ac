// The machine's session, and with it the user's.
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"
#include "base/include/wipe.h"
#include "cloud/http/cloud_object_certs.h"
#include "cloud/http/http_status.h"
#include "cloud/include/curl_object.h"
#include "cloud/login/cloud_auth_v1s.h"
#include "cloud/rest/json_body.h"
#include "cloud/rest/machine_sign_in.h"

namespace {

// Result codes of exceptions.
constexpr int TRANSFER_FAILED = 8;
constexpr int SIGN_IN_FAILED = 9;

constexpr char NO_CODE[] =
    "Morvane Identity Platform failed to authenticate this computer through the Morvane Connector. Please verify that "
    "'Web Server (IWA)' is an enabled service for the Morvane Connector in the Admin Portal. If 'Web Server (IWA)' is "
    "already enabled, please contact Morvane support for help.";
constexpr char NO_CONNECTOR[] =
    "Morvane Identity Platform failed to authenticate this computer through the Morvane Connector. Please verify "
    "network connectivity and that 'Web Server (IWA)' is an enabled service for the Morvane Connector in the Admin "
    "Portal. If there is no network connectivity issues and 'Web Server (IWA)' is already enabled, please contact "
    "Morvane support for help.";
constexpr char NO_MACHINE_SESSION[] =
    "Morvane Identity Platform failed to authenticate the UNIX server. Please contact Morvane support for help.";

constexpr char NO_OPENING_BRACE[] = "There's no valid json string in SiteCheck response. Can't find '{'.";
constexpr char NO_CLOSING_BRACE[] = "There's no valid json string in SiteCheck response. Can't find '}'.";

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.object", false); }

[[noreturn]] void passOn(const lumo::CurlException& failure) {
  throw lumo::CurlException(failure.file().c_str(), failure.line(), failure.what(), failure.className(),
                            TRANSFER_FAILED);
}

}  // namespace

int CloudAuthV1S::siteCheck(std::string& otc, std::string& errorMessage) {
  ConnectorVisit visit(heldCurl());
  keep(visit.ask(siteCheckUrl, spn));
  const CloudProxyInfo proxy = CloudCurlPool::getInstance().getProxy();
  LUMO_LOG(logger(), lumo::level::Debug, "Set CURL web proxy to: '%s' with auth: '%s'.", proxy.proxyServer.c_str(),
           proxy.proxyAuth.c_str());
  visit.putBack(proxy);
  LUMO_LOG(logger(), lumo::level::Debug, "siteCheck: URL = %s, SPN = %s, httpCode = %ld", siteCheckUrl.c_str(),
           spn.c_str(), httpCode);
  setTrust(*curl, {verifies(lumo::PN::FERROD_CLOUD_SKIP_CERT_VERIFICATION), certStore, {}});
  return readCode(otc, errorMessage);
}

int CloudAuthV1S::readCode(std::string& otc, std::string& errorMessage) {
  if (httpCode != HTTP_OK) {
    errorMessage = VS("SiteCheck HTTP code is not OK(%ld).", httpCode);
    return 0;
  }
  const EmbeddedObject answer = findEmbeddedObject(responseBody);
  if (answer.missing != '\0') {
    errorMessage = answer.missing == '{' ? NO_OPENING_BRACE : NO_CLOSING_BRACE;
    return 0;
  }
  parseJson(document, answer.text);
  std::string result;
  getJsonString(document, SITE_CHECK_RESULT, result);
  if (result != SITE_CHECK_SUCCESS) {
    errorMessage = VS("SiteCheck result is not 'success'(%s).", lumo::printable(result).c_str());
    return 0;
  }
  LUMO_LOG(logger(), lumo::level::Debug, "siteCheck: complete successfully");
  getJsonString(document, SITE_CHECK_CODE, otc);
  return 1;
}

int CloudAuthV1S::sso(const std::string& otc) {
  const CodeUrl url(ssoUrl, otc);
  const int result = getMasked(url.whole(), url.shown());
  LUMO_LOG(logger(), lumo::level::Debug, "sso: result = %d, httpCode = %ld", result, httpCode);
  if (result == 0) return 0;
  wipe(machineCookie);
  machineCookie = curl->cookie(CurlObject::SESSION_COOKIE, ssoUrl);
  LUMO_LOG(logger(), lumo::level::Debug, "sso: cookieExist = %d", machineCookie.empty() ? 0 : 1);
  return 1;
}

int CloudAuthV1S::startImpersonate() {
  JsonBody body;
  if (!uuid.empty()) body.set("uuid", uuid);
  body.set("username", userName);
  int result = 0;
  try {
    useSession(heldCurl(), machineCookie);
    result = post(startImpersonateUrl, body.text());
  } catch (const lumo::CurlException& failure) {
    passOn(failure);
  }
  if (result != 0) {
    wipe(userCookie);
    userCookie = curl->cookie(CurlObject::SESSION_COOKIE, startImpersonateUrl);
  }
  LUMO_LOG(logger(), lumo::level::Debug, "startImpersonate: result = %d, httpCode = %ld, cookieExist = %d", result,
           httpCode, userCookie.empty() ? 0 : 1);
  return result;
}

int CloudAuthV1S::askConnector(std::string& otc, std::string& errorMessage) {
  try {
    return siteCheck(otc, errorMessage);
  } catch (const lumo::CloudIwaException&) {
    throw;
  } catch (const lumo::CurlException& failure) {
    LUMO_LOG(logger(), lumo::level::Fatal, NO_CONNECTOR);
    passOn(failure);
  } catch (const LUMOException& failure) {
    LUMO_LOG(logger(), lumo::level::Fatal, NO_CODE);
    LUMO_THROW(lumo::CloudIwaException, SIGN_IN_FAILED, "Internal error. Error message: %s", failure.what());
  }
}

int CloudAuthV1S::getMachineAuthToken() {
  std::string otc;
  const WipeAtEnd wipeCode(otc);
  std::string errorMessage;
  if (askConnector(otc, errorMessage) == 0) {
    LUMO_LOG(logger(), lumo::level::Fatal, NO_CODE);
    LUMO_THROW(lumo::CloudIwaException, SIGN_IN_FAILED, "%s", errorMessage.c_str());
  }
  try {
    if (sso(otc) != 0) return 1;
  } catch (const lumo::CurlException& failure) {
    passOn(failure);
  }
  LUMO_LOG(logger(), lumo::level::Fatal, NO_MACHINE_SESSION);
  return 0;
}
