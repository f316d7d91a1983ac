#include "cloud/login/cloud_auth_v0.h"

#include "base/include/wipe.h"
#include "cloud/login/cloud_auth_v0_phone.h"
#include "cloud/rest/json_body.h"

namespace {

// The name by which the platform knows a mechanism.
std::string sentName(const std::string& mechanismId) {
  return phoneLine(&PhoneLine::mechanismId, mechanismId) == nullptr ? mechanismId : std::string(PHONE);
}

}  // namespace

CloudAuthV0::CloudAuthV0(const std::string& url, const std::string& restVersion, const std::string& user)
    : CloudAuth(url, restVersion, user) {
  buildUrls(url);
}

void CloudAuthV0::buildUrls(const std::string& base) {
  multiAuthLoginUrl = base + "security/MultiAuthLogin";
  moveToNextLoginPageUrl = base + "security/MoveToNextLoginPage";
  getAuthPolicyUrl = base + "security/GetAuthPolicy";
}

void CloudAuthV0::updateUrls() { buildUrls("https://" + podHost + "/"); }

int CloudAuthV0::getVersion() { return get(versionUrl); }

int CloudAuthV0::startAuthentication(const Payload*) { return startAuthentication(); }

int CloudAuthV0::startAuthentication() {
  if (get(getAuthPolicyUrl, params) == 0) return AUTH_REQUEST_FAILED;
  if (turnToPod() && get(getAuthPolicyUrl, params) == 0) return AUTH_REQUEST_FAILED;
  return parsePolicy();
}

int CloudAuthV0::parseAdvanceResult() {
  std::string success;
  getJsonString(document, "success", success);
  return success == "True" ? 1 : 0;
}

int CloudAuthV0::advanceAuthentication(const std::string& mechanismId, const int& action, const std::string& answer) {
  if (mechanismId == "UP") {
    if (challenges.size() == 1) {
      return multiAuthLogin(lumo::Shredder2(answer), std::string()) != 0 ? AUTH_DONE : AUTH_FAILED;
    }
    password = lumo::Shredder2(answer);
    passwordSent = false;
    markChallengeDone("UP", true);
    return AUTH_NEXT_CHALLENGE;
  }
  // Takes the second mechanism along, which starts it.
  if (!passwordSent) {
    if (multiAuthLogin(password, mechanismId) == 0) return AUTH_FAILED;
    passwordSent = true;
  }
  if (action == ACTION_START_OOB) return AUTH_PENDING;
  if (action == ACTION_POLL) {
    std::string code;
    const WipeAtEnd wipeCode(code);
    if (pollMechanism(mechanismId, code) == 0) return AUTH_PENDING;
    return postAnswer(mechanismId, code) != 0 ? AUTH_DONE : AUTH_FAILED;
  }
  return postAnswer(mechanismId, answer) != 0 ? AUTH_DONE : AUTH_FAILED;
}

int CloudAuthV0::multiAuthLogin(const lumo::Shredder2& secret, const std::string& nextMechanismId) {
  JsonBody body;
  body.set("nextMechId", "UP").set("recId", recId);
  if (post(multiAuthLoginUrl, params, body.text()) == 0) {
    LUMO_THROW(lumo::CloudException, -1, "Failed to authenticate password using REST API MultiAuthLogin");
  }
  body.set("user", userName);
  if (post(moveToNextLoginPageUrl, params, body.text()) == 0) {
    LUMO_THROW(lumo::CloudException, -1, "Failed to authenticate password using REST API MoveToNextLoginPage");
  }
  body.remove("user");
  if (nextMechanismId.empty()) {
    body.remove("nextMechId");
  } else {
    body.set("nextMechId", sentName(nextMechanismId));
    if (sentName(nextMechanismId) == PHONE) {
      const PhoneLine* const line = phoneLine(&PhoneLine::mechanismId, nextMechanismId);
      body.set("PFType", std::string(line == nullptr ? "" : line->label));
    }
  }
  body.set("UP", secret);
  return post(multiAuthLoginUrl, params, body.text());
}

int CloudAuthV0::pollMechanism(const std::string& mechanismId, std::string& code) {
  JsonBody body;
  body.set("nextMechId", sentName(mechanismId)).set("recId", recId);
  if (post(moveToNextLoginPageUrl, params, body.text()) == 0) {
    LUMO_THROW(lumo::CloudException, -1, "REST API for polling returns failure");
  }
  const rapidjson::Value& result = member(document, "Result");
  std::string status;
  getJsonString(result, "status", status);
  if (status != "Move") return 0;
  getJsonStringOptional(result, "code", code);
  return 1;
}

int CloudAuthV0::postAnswer(const std::string& mechanismId, const std::string& answer) {
  JsonBody body;
  body.set(sentName(mechanismId), answer).set("recId", recId);
  return post(multiAuthLoginUrl, params, body.text());
}
