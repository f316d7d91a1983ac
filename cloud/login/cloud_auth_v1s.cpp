#include "cloud/login/cloud_auth_v1s.h"

#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "base/include/wipe.h"
#include "cloud/http/http_status.h"
#include "cloud/rest/json_body.h"
#include "cloud/rest/machine_sign_in.h"

namespace {

// What an administrator reads when a profile is to blame: that it is not there, and that it cannot be used.
struct ProfileTexts {
  const char* notConfigured;
  const char* unusable;
};
constexpr ProfileTexts ELEVATION_TEXTS = {
    "Morvane MFA Service failed because there was an error in locating the authentication profile for privilege "
    "elevation command execution (ferrosu). Verify that you have specified an authentication profile for Ferro Suite "
    "Authentication from the Settings tab. If you have selected an authentication profile for the 'Privilege Elevation "
    "Profile' setting, contact Morvane Support for help.",
    "Morvane MFA Service cannot authenticate user '%s' because there was an error in locating the authentication "
    "profile for privilege elevation command execution (ferrosu). Contact Morvane Support for help."};
constexpr ProfileTexts LOGIN_TEXTS = {
    "Morvane MFA Service failed because there was an error in locating the authentication profile for server login. "
    "Verify that you have specified an authentication profile for Ferro Suite Authentication from the Settings tab. If "
    "you have selected an authentication profile for the 'Server Authentication Profile' setting, contact Morvane "
    "Support for help in resolving this issue.",
    "Morvane MFA Service cannot authenticate user '%s' because there was an error in locating the authentication "
    "profile for server login. Contact Morvane Support for help."};

constexpr char NO_RIGHT[] =
    "Morvane MFA Service cannot provide service to this computer because the 'Computer Right and Privilege Elevation' "
    "administrative right was not granted to this computer. Add the 'Computer Right and Privilege Elevation' "
    "administrative right to the current role or assign the computer to another role that has this right. If the "
    "problem persists after the right is granted, contact Morvane Support for help.";
constexpr char NO_CHALLENGES[] =
    "Morvane Identity Platform failed to authenticate user '%s'. To resolve this issue, verify that user accounts are "
    "configured with appropriate information to respond to the authentication challenges, such as an email address, "
    "phone number, or security question. If the account information is configured correctly, contact Morvane Support "
    "for help in resolving this issue.";

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.object", false); }

}  // namespace

CloudAuthV1S::CloudAuthV1S(const std::string& url, const std::string& restVersion, const std::string& user,
                           const std::string& id, const std::string& iwa, const std::string& servicePrincipal,
                           const int* profile)
    : CloudAuthV1(url, restVersion, user),
      iwaUrl(iwa),
      spn(servicePrincipal),
      authProfileType(profile == nullptr ? PROFILE_LOGIN : *profile),
      startChallengeUrl(url + "security/startchallenge"),
      elevationUrl(url + "qrsintegration/ferrosuexecute"),
      mfaLoginUrl(url + "qrsintegration/mfalogin"),
      startImpersonateUrl(url + "security/startimpersonate"),
      ssoUrl(url + SSO_PATH),
      siteCheckUrl(iwa + SITE_CHECK_PATH),
      uuid(id) {
  advanceUrl = url + "security/AdvanceAuthentication";
}

CloudAuthV1S::~CloudAuthV1S() {
  for (std::string* secret : {&machineCookie, &userCookie, &payload}) wipe(*secret);
}

void CloudAuthV1S::setCookie(const int& kind, const std::string& value) {
  std::string& cookie = kind == COOKIE_MACHINE ? machineCookie : userCookie;
  wipe(cookie);
  cookie = value;
}

std::string CloudAuthV1S::getCookie(const int& kind) { return kind == COOKIE_MACHINE ? machineCookie : userCookie; }

int CloudAuthV1S::getVersion() { return get(versionUrl); }

int CloudAuthV1S::startAuthentication() { return startAuthentication(nullptr); }

int CloudAuthV1S::startAuthentication(const Payload* newPayload) {
  // A cookie that the platform refuses gives way to a new one, once: the second pass begins without any.
  for (;;) {
    const bool isNew = userCookie.empty();
    if (isNew && !makeUserCookie()) return AUTH_NO_MACHINE_ACCESS;
    int status = 0;
    std::string errorId;
    std::string reason;
    if (startMfa(status, errorId, reason, false, newPayload) != 0) {
      LUMO_LOG(logger(), lumo::level::Debug, "startAuthentication: after starting endpoint, no need to authenticate.");
      return AUTH_DONE;
    }
    if (status == HTTP_OK) return decide(errorId, reason);
    if (status != HTTP_UNAUTHORIZED) return AUTH_FAILED;
    if (isNew) {
      LUMO_LOG(logger(), lumo::level::Debug,
               "startAuthentication: user cookie is updated but still got HTTP Unauthorized.");
      return AUTH_FAILED;
    }
    wipe(userCookie);
  }
}

bool CloudAuthV1S::makeUserCookie() {
  if (!machineCookie.empty()) {
    if (startImpersonate() != 0) return true;
    wipe(machineCookie);
  }
  if (getMachineAuthToken() == 0) return false;
  if (startImpersonate() != 0) return true;
  LUMO_LOG(logger(), lumo::level::Fatal, NO_RIGHT);
  return false;
}

int CloudAuthV1S::decide(const std::string& errorId, const std::string& reason) {
  LUMO_LOG(logger(), lumo::level::Debug,
           "startAuthentication: after starting endpoint, errorId = %s, challengeId = %s, reason = %s.",
           errorId.c_str(), challengeId.c_str(), reason.c_str());
  if (wantsProof(errorId)) return startChallenge();
  const ProfileTexts& texts = authProfileType == PROFILE_ELEVATION ? ELEVATION_TEXTS : LOGIN_TEXTS;
  if (reason == "NotConfigured") {
    LUMO_LOG(logger(), lumo::level::Fatal, "%s", texts.notConfigured);
    return AUTH_NOT_CONFIGURED;
  }
  LUMO_LOG(logger(), lumo::level::Warn, texts.unusable, userName.c_str());
  return AUTH_FAILED;
}

bool CloudAuthV1S::wantsProof(const std::string& errorId) const {
  return errorId == "ChallengeRequired" && !challengeId.empty();
}

int CloudAuthV1S::visitEndpoint(bool withChallenge, bool sendsPayload) {
  const std::string& url = authProfileType == PROFILE_ELEVATION ? elevationUrl : mfaLoginUrl;
  if (!withChallenge) return sendsPayload ? post(url, payload) : get(url);
  const Parameters challenge = {{"challengeId", challengeId}};
  return sendsPayload ? post(url, challenge, payload) : get(url, challenge);
}

int CloudAuthV1S::startMfa(int& status, std::string& errorId, std::string& reason, const bool& withChallenge,
                           const Payload* newPayload) {
  const bool maySend = lumo::Props(false, false).getBool(lumo::PN::FERROD_CLOUD_MFA_PAYLOADS, true);
  useSession(heldCurl(), userCookie);
  // Without a new one the second visit repeats what the first one sent.
  if (newPayload != nullptr && !newPayload->empty()) {
    wipe(payload);
    payload = jsonOf(*newPayload);
  }
  if (visitEndpoint(withChallenge, maySend && !payload.empty()) != 0) return 1;
  status = static_cast<int>(getHttpCode());
  LUMO_LOG(logger(), lumo::level::Debug, "startMfa: authProfileType = %d, success = %d, httpCode = %d", authProfileType,
           0, status);
  if (status != HTTP_OK) return 0;
  const rapidjson::Value& result = member(document, "Result");
  getJsonStringOptional(document, "ErrorID", errorId);
  getJsonStringOptional(result, "ChallengeId", challengeId);
  getJsonStringOptional(result, "Reason", reason);
  LUMO_LOG(logger(), lumo::level::Debug, "startMfa: errorId = %s, challengeId = %s, reason = %s", errorId.c_str(),
           challengeId.c_str(), reason.c_str());
  return 0;
}

int CloudAuthV1S::startChallenge() {
  useSession(heldCurl(), userCookie);
  JsonBody body;
  body.set("ChallengeStateId", challengeId).set("Version", "1.0");
  const int result = post(startChallengeUrl, body.text());
  LUMO_LOG(logger(), lumo::level::Debug, "startChallenge: result = %d, httpCode = %ld", result, httpCode);
  if (result != 0) return parsePolicy();
  LUMO_LOG(logger(), lumo::level::Warn, NO_CHALLENGES, userName.c_str());
  return AUTH_REQUEST_FAILED;
}

int CloudAuthV1S::advanceAuthentication(const std::string& mechanismId, const int& action, const std::string& answer) {
  // The connection may have been given back and taken anew since the start, without the session.
  useSession(heldCurl(), userCookie);
  const int result = CloudAuthV1::advanceAuthentication(mechanismId, action, answer);
  if (result != AUTH_DONE) return result;
  int status = 0;
  std::string errorId;
  std::string reason;
  if (startMfa(status, errorId, reason, true, nullptr) != 0) return AUTH_DONE;
  if (status == HTTP_OK && wantsProof(errorId)) {
    LUMO_LOG(logger(), lumo::level::Debug, "advanceAuthentication: need to authenticate again.");
    return startChallenge();
  }
  LUMO_LOG(logger(), lumo::level::Debug,
           "advanceAuthentication: revisit the endpoint(ferrosuexecute/mfalogin) failed; httpCode = %d, errorId = %s, "
           "reason = %s.",
           status, errorId.c_str(), reason.c_str());
  return AUTH_FAILED;
}
