// The login with a session over real exchanges: its policies, its requests.
#pragma once

#include <string>

#include "cloud/login/tests/cloud_auth_login_fixture.h"
#include "cloud/login/tests/cloud_auth_v1_client.h"

class V1Login : public LoginTest<V1Client> {
 protected:
  static constexpr const char* START_BODY = R"({"User":"alice@example.test","Version":"1.0"})";

  static std::string policyText(const std::string& more = {}, const std::string& session = "s-1") {
    return "{" + more + R"("SessionId":")" + session +
           R"(","TenantId":"t-1","Version":"1.0","Challenges":[{"Mechanisms":[{"MechanismId":"m-up","Name":"UP"},)"
           R"({"MechanismId":"m-otp","Name":"OTP"}]},{"Mechanisms":[{"MechanismId":"m-sms","Name":"SMS"}]}]})";
  }
  static testsupport::HttpReply policy(const std::string& more = {}) { return success(policyText(more)); }
  static testsupport::HttpReply summary(const std::string& word) { return success(R"({"Summary":")" + word + "\"}"); }

  static std::string start(const std::string& host = "localhost") {
    return "POST " + host + " /security/StartAuthentication " + START_BODY;
  }
  static std::string advanced(const std::string& body, const std::string& host = "localhost") {
    return "POST " + host + " /security/AdvanceAuthentication " + body;
  }
  static std::string withSession(const std::string& members) {
    return "{" + members + R"(,"SessionId":"s-1","TenantId":"t-1"})";
  }

  // The first challenge is open.
  void beginWithChallenge() {
    begin();
    script({policy()});
    ASSERT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
    ASSERT_EQ(client->nextChallenge(open), 1);
    asked();
  }
  int advance(const std::string& mechanismId, int action, const std::string& answer = {}) {
    return client->advanceAuthentication(mechanismId, action, answer);
  }
  // Which challenges are done, by what.
  std::vector<std::string> marks() const {
    std::vector<std::string> list;
    for (const CloudAuthChallenge& one : client->challenges) {
      list.push_back(one.done ? "done by " + one.selectedMechanism : "open");
    }
    return list;
  }

  CloudAuthChallenge open;
};
