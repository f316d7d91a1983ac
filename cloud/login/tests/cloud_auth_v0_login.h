// The oldest login over real exchanges: its policies, its requests, the states it passes.
#pragma once

#include <string>
#include <vector>

#include "cloud/login/tests/cloud_auth_login_fixture.h"
#include "cloud/login/tests/cloud_auth_v0_client.h"

class V0Login : public LoginTest<V0Client> {
 protected:
  static constexpr const char* PASSWORD = "correct \"horse\" battery";
  static constexpr const char* PASSWORD_JSON = R"("correct \"horse\" battery")";
  static constexpr const char* QUERY = "?elevate=undefined&user=alice%40example.test";

  static std::string mechanism(const std::string& name, const std::string& required, const std::string& more = {}) {
    return R"({"mechId":")" + name + R"(","required":")" + required + R"(","msg":"One. Two.")" + more + "}";
  }

  static testsupport::HttpReply policy(const std::string& mechanisms, const std::string& more = {}) {
    return success("{" + more + R"("recId":"r-1","mechs":[)" + mechanisms + "]}");
  }

  static std::string passwordAlone() { return mechanism("UP", "True"); }
  static std::string passwordAndMore() {
    return mechanism("UP", "True") + "," + mechanism("SMS", "False") + "," + mechanism("EMAIL", "False") + "," +
           mechanism("PF", "False", R"(,"fieldLabel":"office")");
  }

  static std::string getPolicy(const std::string& host = "localhost") {
    return "GET " + host + " /security/GetAuthPolicy" + QUERY;
  }
  static std::string login(const std::string& body, const std::string& host = "localhost") {
    return "POST " + host + " /security/MultiAuthLogin" + QUERY + " " + body;
  }
  static std::string moveOn(const std::string& body, const std::string& host = "localhost") {
    return "POST " + host + " /security/MoveToNextLoginPage" + QUERY + " " + body;
  }
  // The three requests that send the password, and what goes along with it.
  static std::vector<std::string> passwordSent(const std::string& along, const std::string& password = PASSWORD_JSON) {
    return {login(R"({"nextMechId":"UP","recId":"r-1"})"),
            moveOn(R"({"nextMechId":"UP","recId":"r-1","user":"alice@example.test"})"),
            login("{" + along + R"("UP":)" + password + "}")};
  }

  void begin(const std::string& mechanisms) {
    LoginTest::begin();
    script({policy(mechanisms)});
    ASSERT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
    asked();
  }
  void beginWithPasswordHeld(const std::string& mechanisms = passwordAndMore()) {
    begin(mechanisms);
    CloudAuthChallenge open;
    client->nextChallenge(open);
    ASSERT_EQ(advance("UP", ACTION_ANSWER, PASSWORD), AUTH_NEXT_CHALLENGE);
  }
  // Sent along with the telephone, which is then ringing.
  void beginWithPasswordSent() {
    beginWithPasswordHeld();
    script({success(), success(), success()});
    ASSERT_EQ(advance("PF_OFFICE", ACTION_START_OOB), AUTH_PENDING);
    asked();
  }
  int advance(const std::string& mechanismId, int action, const std::string& answer = {}) {
    return client->advanceAuthentication(mechanismId, action, answer);
  }
  std::string advanceFailure(const std::string& mechanismId, int action, const std::string& answer = {}) {
    return failureOf([&] { advance(mechanismId, action, answer); });
  }
};
