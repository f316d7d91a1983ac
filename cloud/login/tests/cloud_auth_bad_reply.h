// Logins that meet a platform or a connector out of order: one fault at one request, and what the caller sees of it.
#pragma once

#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "cloud/login/tests/cloud_auth_platform.h"
#include "testsupport/log_capture.h"

namespace platformtest {

// One request of a login, which is to go wrong.
struct Scene {
  std::string name;
  std::string endpoint;
  int after = 0;  // requests to that endpoint within `act` that go right
  std::function<std::unique_ptr<CloudAuth>()> prepare;
  std::function<int(CloudAuth&)> act;
  std::string good;     // what comes of it when nothing goes wrong
  std::string refused;  // and when the reply does not say success
  int transferCode = -1;
};

class BadReplyTest : public PlatformTest {
 protected:
  // What comes of a fault, e.g. R"("status":500)": a status by name, or an exception with code and text.
  std::string outcomeOf(const Scene& scene, const std::string& fault) {
    std::unique_ptr<CloudAuth> login = begin(scene);
    if (!fault.empty()) platform.fault(faultText(scene, fault));
    std::string outcome = outcomeOf(scene, *login);
    end(scene, login, outcome);
    return outcome;
  }

  std::unique_ptr<CloudAuth> begin(const Scene& scene) {
    platform.reset();
    return scene.prepare();
  }
  static std::string faultText(const Scene& scene, const std::string& fault) {
    return R"({"endpoint":")" + scene.endpoint + R"(","after":)" + std::to_string(scene.after) + "," + fault + "}";
  }
  static std::string outcomeOf(const Scene& scene, CloudAuth& login) {
    try {
      return statusName(scene.act(login));
    } catch (const LUMOException& failure) {
      return testsupport::textOf(failure);
    } catch (const std::out_of_range&) {
      return "std::out_of_range";
    }
  }
  // The client goes: its connection is given back, and nowhere is a secret.
  void end(const Scene& scene, std::unique_ptr<CloudAuth>& login, const std::string& outcome) {
    login.reset();
    EXPECT_EQ(access.occupiedCount, 0U) << scene.name;
    expectNoSecret(outcome);
    expectNoSecretInNewLog();
    // A fault may have given out an id or a code of its own.
    for (const std::string& surprise : platform.surprises()) {
      EXPECT_THAT(surprise, testing::HasSubstr(": nobody gave out the ")) << scene.name;
    }
    platform.control(R"({"command":"surprises","forget":true})");
  }

  // The one that the login holds.
  CurlObject& connection() {
    for (const auto& [curl, entry] : access.connections) {
      if (entry.occupied) return *curl;
    }
    throw std::logic_error("no connection is out");
  }

  static std::string transferFailure(const Scene& scene, const std::string& text) {
    return "CurlException " + std::to_string(scene.transferCode) + " curl error occurred in curl_easy_perform: " + text;
  }
  static std::string missing(const std::string& member) {
    return "CloudException -1 Errors in parsing result from Json: '" + member + "' does NOT exist";
  }

  // The steps that come before the request in question.
  template <class Login>
  Login after(Login login, const std::string& user, const std::vector<Step>& steps) {
    requestsOf(*login, user, AUTH_NEXT_CHALLENGE, steps);
    return login;
  }
  // Answers, begins or polls a mechanism of the open challenge, or else of the next.
  static std::function<int(CloudAuth&)> act(const std::string& mechanism, int action, const std::string& text = {}) {
    return [=](CloudAuth& login) {
      CloudAuthChallenge open;
      login.nextChallenge(open);
      const auto chosen = findByEnd(open, mechanism);
      if (chosen == open.mechanisms.end()) throw std::logic_error(mechanism + " is not offered");
      return login.advanceAuthentication(chosen->mechanismId, action, text);
    };
  }
  static int start(CloudAuth& login) { return login.startAuthentication(); }

  void expectNoSecret(const std::string& text) const {
    for (const char* secret : {"-Pass1", "246810", "Rex", "USER-0", "MACHINE-0", "OTC-0", "MOVE-0"}) {
      if (text.find(secret) != std::string::npos) ADD_FAILURE() << "'" << secret << "' in: " << text.substr(0, 500);
    }
  }
  // Only what the platform replied may stand there, at level 0.
  void expectNoSecretInNewLog() {
    std::ifstream file(log.path());
    file.seekg(logSeen);
    for (std::string line; std::getline(file, line);) {
      if (line.find("] TRACE cloud.object: HTTP response: ") == std::string::npos) expectNoSecret(line);
      logSeen += static_cast<std::streamoff>(line.size() + 1);
    }
  }

  testsupport::LogCapture log{"TRACE"};
  SettingsScope directly{{"ferrod.iwa.skip.cert.verification", "true"}};

 private:
  static std::string statusName(int status) {
    static const char* const NAMES[] = {"AUTH_FAILED",           "AUTH_DONE",           "AUTH_NEXT_CHALLENGE",
                                        "AUTH_PENDING",          "AUTH_REQUEST_FAILED", "AUTH_NOT_CONFIGURED",
                                        "AUTH_NO_MACHINE_ACCESS"};
    return status >= AUTH_FAILED && status <= AUTH_NO_MACHINE_ACCESS ? NAMES[status] : std::to_string(status);
  }

  std::streamoff logSeen = 0;
};

// Every request of the three versions.
class Scenes : public BadReplyTest {
 protected:
  Scene policy0(const std::string& user = "bob") {
    return {"policy 0",           "GetAuthPolicy", 0, [=] { return version0(user); }, start, "AUTH_NEXT_CHALLENGE",
            "AUTH_REQUEST_FAILED"};
  }
  Scene announce0() { return password0("announce 0", "MultiAuthLogin", 0, PASSWORD_FAILED + "MultiAuthLogin"); }
  Scene page0() { return password0("page 0", "MoveToNextLoginPage", 0, PASSWORD_FAILED + "MoveToNextLoginPage"); }
  Scene password0() { return password0("password 0", "MultiAuthLogin", 1, "AUTH_FAILED"); }
  Scene poll0() {
    return {"poll 0",
            "MoveToNextLoginPage",
            0,
            [=] { return started0(); },
            act("OTP", ACTION_POLL),
            "AUTH_PENDING",
            "CloudException -1 REST API for polling returns failure"};
  }
  Scene answer0() {
    return {"answer 0",  "MultiAuthLogin", 0, [=] { return started0(); }, act("OTP", ACTION_ANSWER, "246810"),
            "AUTH_DONE", "AUTH_FAILED"};
  }

  Scene start1(const std::string& user = "bob") {
    return {"start 1.0",
            "StartAuthentication",
            0,
            [=] { return version1(user); },
            start,
            "AUTH_NEXT_CHALLENGE",
            "CloudException -1 Failed to startAuthentication"};
  }
  Scene pod1() {
    return {"pod 1.0",
            "StartAuthentication",
            1,
            [=] { return version1("dave"); },
            start,
            "AUTH_NEXT_CHALLENGE",
            "AUTH_REQUEST_FAILED"};
  }
  Scene answer1() {
    return {"answer 1.0",
            "AdvanceAuthentication",
            0,
            [=] { return after(version1("bob"), "bob", {}); },
            act("UP", ACTION_ANSWER, "bob-Pass1"),
            "AUTH_NEXT_CHALLENGE",
            "AUTH_FAILED"};
  }
  Scene poll1() {
    return {"poll 1.0",
            "AdvanceAuthentication",
            0,
            [=] {
              return after(version1("bob"), "bob", {answer("UP", "bob-Pass1", AUTH_NEXT_CHALLENGE), startOob("OTP")});
            },
            act("OTP", ACTION_POLL),
            "AUTH_PENDING",
            "AUTH_FAILED"};
  }
  Scene package1() {
    return {"package 1.0",
            "AdvanceAuthentication",
            0,
            [=] { return after(version1("grace"), "grace", {}); },
            act("UP", ACTION_ANSWER, "grace-Pass1"),
            "AUTH_NEXT_CHALLENGE",
            "AUTH_FAILED"};
  }

  Scene siteCheck() { return cold("SiteCheck", "SiteCheck", "alice", "", 8); }
  Scene sso() { return cold("sso", "sso", "alice", "AUTH_NO_MACHINE_ACCESS", 8); }
  Scene impersonate() { return cold("impersonate", "startimpersonate", "alice", "AUTH_NO_MACHINE_ACCESS", 8); }
  Scene visit(const std::string& user = "alice") { return cold("visit of " + user, "mfalogin", user, "AUTH_FAILED"); }
  Scene challenge(const std::string& user = "carol") {
    return cold("challenge", "startchallenge", user, "AUTH_REQUEST_FAILED");
  }
  Scene proof() { return visited("proof", "AdvanceAuthentication", "grace", "SQ", "Rex"); }
  Scene revisit() { return visited("second visit", "mfalogin", "grace", "SQ", "Rex"); }

  std::vector<Scene> ofThePlatform() {
    return {policy0(), announce0(), page0(), password0(),   poll0(), answer0(),   start1(), pod1(),   answer1(),
            poll1(),   package1(),  sso(),   impersonate(), visit(), challenge(), proof(),  revisit()};
  }

 private:
  // Their connection is open already.
  template <class Login>
  std::unique_ptr<Login> warm(std::unique_ptr<Login> login) {
    EXPECT_EQ(login->getVersion(), 1);
    return login;
  }
  std::unique_ptr<CloudAuth> version0(const std::string& user) { return warm(client<Client0>("0", user)); }
  std::unique_ptr<CloudAuth> version1(const std::string& user) { return warm(client<Client1>("1.0", user)); }
  std::unique_ptr<CloudAuth> version1S(const std::string& user) { return warm(client1S(user, PROFILE_LOGIN, "")); }

  Scene password0(const std::string& name, const std::string& endpoint, int after0, const std::string& refused) {
    return {name,
            endpoint,
            after0,
            [=] { return after(version0("alice"), "alice", {}); },
            act("UP", ACTION_ANSWER, "alice-Pass1"),
            "AUTH_DONE",
            refused};
  }
  std::unique_ptr<CloudAuth> started0() {
    return after(version0("bob"), "bob", {answer("UP", "bob-Pass1", AUTH_NEXT_CHALLENGE), startOob("OTP")});
  }
  // From the machine's sign-in on.
  Scene cold(const std::string& name, const std::string& endpoint, const std::string& user, const std::string& refused,
             int code = -1) {
    return {name,    endpoint,
            0,       [=] { return version1S(user); },
            start,   user == "alice" ? "AUTH_DONE" : "AUTH_NEXT_CHALLENGE",
            refused, code};
  }
  Scene visited(const std::string& name, const std::string& endpoint, const std::string& user,
                const std::string& mechanism, const std::string& text) {
    return {name,
            endpoint,
            0,
            [=] { return after(version1S(user), user, {}); },
            act(mechanism, ACTION_ANSWER, text),
            "AUTH_DONE",
            "AUTH_FAILED"};
  }

  const std::string PASSWORD_FAILED = "CloudException -1 Failed to authenticate password using REST API ";
};

}  // namespace platformtest
