// Privileged actions: a client between a connector and a platform that answer by script.
#pragma once

#include <string>

#include "cloud/login/tests/cloud_auth_v1s_fixture.h"

namespace v1stest {

// A refusal of an endpoint.
inline HttpReply refusedWith(const std::string& errorId, const std::string& challengeId,
                             const std::string& reason = {}) {
  return json(R"({"success":false,"ErrorID":")" + errorId + R"(","Result":{"ChallengeId":")" + challengeId +
              R"(","Reason":")" + reason + R"("}})");
}
inline HttpReply wantsProof(const std::string& challengeId = "CH-1") {
  return refusedWith("ChallengeRequired", challengeId);
}
inline HttpReply policy(const std::string& mechanism = "M-1") {
  return json(R"({"success":true,"Result":{"SessionId":"S-1","TenantId":"T-1","Version":"1.0","Challenges":)"
              R"([{"Mechanisms":[{"MechanismId":")" +
              mechanism + R"(","Name":"UP"}]}]}})");
}
inline HttpReply summary(const std::string& word) {
  return json(R"({"success":true,"Result":{"Summary":")" + word + "\"}}");
}

class PrivilegedAction : public V1STest {
 protected:
  // A session that holds: one request is all it takes.
  void beginWithSession(int profile = PROFILE_LOGIN) {
    begin(profile);
    client->setCookie(COOKIE_USER, "user");
  }
  // A dialogue that has come to its first challenge; nothing of it is told.
  void beginDialogue(const CloudAuth::Payload* pairs = nullptr, int profile = PROFILE_LOGIN) {
    beginWithSession(profile);
    platform.script({wantsProof(), policy()});
    ASSERT_EQ(client->startAuthentication(pairs), AUTH_NEXT_CHALLENGE);
    CloudAuthChallenge challenge;
    ASSERT_EQ(client->nextChallenge(challenge), 1);
    journal.take();
    records();
  }
  int answer() { return client->advanceAuthentication("M-1", ACTION_ANSWER, "word"); }

  const CloudAuth::Payload payload = {{"command", "/bin/ls"}, {"host", "h\"1"}};
  const std::string payloadText = R"({"command":"/bin/ls","host":"h\"1"})";
  const std::string siteCheck = "connector GET /iwa/SiteCheck";
  const std::string sso = "platform GET /security/sso?OneTimePass=CODE-1";
  const std::string mfaLogin = "platform GET /qrsintegration/mfalogin [.ASPXAUTH=user;]";
  const std::string answered =
      "platform POST /security/AdvanceAuthentication [.ASPXAUTH=user;] "
      R"({"Action":"Answer","Answer":"word","MechanismId":"M-1","SessionId":"S-1","TenantId":"T-1"})";
};

inline std::string impersonation(const std::string& machine) {
  return "platform POST /security/startimpersonate [.ASPXAUTH=" + machine +
         R"(;] {"uuid":"ID-1","username":"alice@example.test"})";
}
inline std::string endpoint(const std::string& user) {
  return "platform GET /qrsintegration/mfalogin [.ASPXAUTH=" + user + ";]";
}
inline std::string challengeRequest(const std::string& id) {
  return R"(platform POST /security/startchallenge [.ASPXAUTH=user;] {"ChallengeStateId":")" + id +
         R"(","Version":"1.0"})";
}

}  // namespace v1stest
