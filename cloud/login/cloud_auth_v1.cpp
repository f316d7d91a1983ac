#include "cloud/login/cloud_auth_v1.h"

#include <array>
#include <string_view>
#include <utility>

#include "cloud/login/lookup.h"
#include "cloud/rest/json_body.h"

namespace {

constexpr const char* START_PATH = "security/StartAuthentication";
constexpr const char* ADVANCE_PATH = "security/AdvanceAuthentication";
constexpr const char* NEW_PACKAGE = "NewPackage";
constexpr std::string_view ANSWER_WORD = "Answer";

constexpr std::array<std::pair<int, std::string_view>, 2> ACTION_WORDS{{
    {ACTION_POLL, "Poll"},
    {ACTION_START_OOB, "StartOOB"},
}};

constexpr std::array<std::pair<std::string_view, CloudAuthStatus>, 4> SUMMARIES{{
    {"StartNextChallenge", AUTH_NEXT_CHALLENGE},
    {"OobPending", AUTH_PENDING},
    {"LoginSuccess", AUTH_DONE},
    {"Success", AUTH_DONE},
}};

}  // namespace

CloudAuthV1::CloudAuthV1(const std::string& url, const std::string& restVersion, const std::string& user)
    : CloudAuth(url, restVersion, user), startUrl(url + START_PATH), advanceUrl(url + ADVANCE_PATH) {}

void CloudAuthV1::updateUrls() {
  const std::string base = "https://" + podHost + "/";
  startUrl = base + START_PATH;
  advanceUrl = base + ADVANCE_PATH;
}

int CloudAuthV1::getVersion() { return get(versionUrl); }

int CloudAuthV1::startAuthentication(const Payload*) { return startAuthentication(); }

int CloudAuthV1::startAuthentication() {
  JsonBody body;
  body.set("User", userName).set("Version", POLICY_FORMAT);
  const std::string& text = body.text();
  if (post(startUrl, text) == 0) LUMO_THROW(lumo::CloudException, -1, "Failed to startAuthentication");
  if (turnToPod() && post(startUrl, text) == 0) return AUTH_REQUEST_FAILED;
  return parsePolicy();
}

int CloudAuthV1::advanceAuthentication(const std::string& mechanismId, const int& action, const std::string& answer) {
  const std::string_view word = lookedUp(ACTION_WORDS, action, ANSWER_WORD);
  JsonBody body;
  body.set("Action", std::string(word));
  if (word == ANSWER_WORD) body.set("Answer", answer);
  body.set("MechanismId", mechanismId).set("SessionId", sessionId).set("TenantId", tenantId);
  if (post(advanceUrl, body.text()) == 0) return AUTH_FAILED;
  const int status = parseAdvanceResult();
  // Of a new package none is open, so that nothing is marked.
  if (status != AUTH_PENDING) markChallengeDone(mechanismId, true);
  return status;
}

int CloudAuthV1::parseAdvanceResult() {
  std::string summary;
  getJsonString(member(document, "Result"), "Summary", summary);
  if (summary == NEW_PACKAGE) return parsePolicy();
  return lookedUp(SUMMARIES, summary, AUTH_FAILED);
}
