// The oldest login from end to end: each user of the platform's, each way to answer.
#include "cloud/login/tests/cloud_auth_platform.h"

namespace {

using namespace platformtest;
using testing::ElementsAreArray;
using testing::IsEmpty;

std::string withUser(const std::string& request, const std::string& user, const std::string& body = {}) {
  return request + "?elevate=undefined&user=" + user + (body.empty() ? "" : " {" + body + "}");
}
std::string policyOf(const std::string& user) { return withUser("GET GetAuthPolicy", user); }

// Requests of one user's login.
struct Requests {
  std::string user;
  std::string record = "R000001";

  std::string login(const std::string& body) const { return withUser("POST MultiAuthLogin", user, body); }
  std::string move(const std::string& body) const { return withUser("POST MoveToNextLoginPage", user, body); }
  std::string recId() const { return R"("recId":")" + record + "\""; }

  // The three that send the password, and what starts with it.
  Texts password(const std::string& text, const std::string& next = {}, const std::string& phone = {}) const {
    const std::string up = R"("nextMechId":"UP",)" + recId();
    std::string last = next.empty() ? "" : R"("nextMechId":")" + next + "\",";
    last += recId();
    if (next == "PF") last += R"(,"PFType":")" + phone + "\"";
    return {login(up), move(up + R"(,"user":")" + user + "\""), login(last + R"(,"UP":")" + text + "\"")};
  }
  std::string polled(const std::string& name) const { return move(R"("nextMechId":")" + name + "\"," + recId()); }
  std::string answered(const std::string& name, const std::string& text) const {
    return login("\"" + name + R"(":")" + text + "\"," + recId());
  }
};

class PlatformV0 : public PlatformTest {
 protected:
  void check(const std::string& user, const std::vector<Step>& steps, const Texts& requests) {
    SCOPED_TRACE(user + " by " + steps.back().mechanism);
    platform.reset();
    const auto login = client<Client0>("0", user);
    EXPECT_THAT(requestsOf(*login, user, AUTH_NEXT_CHALLENGE, steps), ElementsAreArray(requests));
    EXPECT_THAT(platform.surprises(), IsEmpty());
  }
  // The password is held until the second mechanism is used: that mechanism and the name it is sent by.
  void checkSecond(const std::string& user, const std::string& name, const std::string& phone,
                   const std::vector<Step>& steps, const Texts& requests) {
    std::vector<Step> all{answer("UP", user + "-Pass1", AUTH_NEXT_CHALLENGE)};
    all.insert(all.end(), steps.begin(), steps.end());
    Texts whole = Requests{user}.password(user + "-Pass1", name, phone);
    whole.insert(whole.begin(), policyOf(user));
    whole.insert(whole.end(), requests.begin(), requests.end());
    check(user, all, whole);
  }
};

TEST_F(PlatformV0, PasswordAlone) {
  for (const std::string user : {"alice", "carol", "grace"}) {
    for (const bool right : {true, false}) {
      const std::string password = right ? user + "-Pass1" : "wrong";
      Texts requests = Requests{user}.password(password);
      requests.insert(requests.begin(), policyOf(user));
      check(user, {answer("UP", password, right ? AUTH_DONE : AUTH_FAILED)}, requests);
    }
  }
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(PlatformV0, SecondFactorByItsCode) {
  const Requests bob{"bob"};
  for (const std::string name : {"OTP", "SMS", "EMAIL"}) {
    checkSecond("bob", name, "", {answer(name, "246810", AUTH_DONE)}, {bob.answered(name, "246810")});
    checkSecond("bob", name, "", {startOob(name), answer(name, "1", AUTH_FAILED), answer(name, "246810", AUTH_DONE)},
                {bob.answered(name, "1"), bob.answered(name, "246810")});
  }
  checkSecond("bob", "SQ", "", {answer("SQ", "Rex", AUTH_DONE)}, {bob.answered("SQ", "Rex")});
  checkSecond("bob", "SQ", "", {answer("SQ", "Fido", AUTH_FAILED)}, {bob.answered("SQ", "Fido")});
  checkSecond("heidi", "RESET", "", {answer("RESET", R"(heidi "2")", AUTH_DONE)},
              {Requests{"heidi"}.answered("RESET", R"(heidi \"2\")")});
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(PlatformV0, SecondFactorApprovedElsewhere) {
  struct Way {
    std::string user, mechanism, name, phone;
  };
  const std::vector<Way> ways{{"bob", "OTP", "OTP", ""},
                              {"bob", "SMS", "SMS", ""},
                              {"bob", "EMAIL", "EMAIL", ""},
                              {"bob", "PF_HOME", "PF", "home"},
                              {"bob", "PF_OFFICE", "PF", "office"},
                              {"bob", "PF_MOBILE", "PF", "mobile"},
                              {"kim", "PF", "PF", ""}};
  for (const auto& [user, mechanism, name, phone] : ways) {
    const Requests is{user};
    checkSecond(user, name, phone,
                {startOob(mechanism), poll(mechanism, AUTH_PENDING), approve(), poll(mechanism, AUTH_DONE)},
                {is.polled(name), is.polled(name), is.answered(name, "MOVE-000002")});
  }
  const Requests automatic{"auto"};
  checkSecond("auto", "OTP", "", {startOob("OTP"), poll("OTP", AUTH_PENDING), poll("OTP", AUTH_DONE)},
              {automatic.polled("OTP"), automatic.polled("OTP"), automatic.answered("OTP", "MOVE-000002")});
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(PlatformV0, OnlyASecondFactor) {
  const Requests frank{"frank"};
  Texts requests = frank.password("", "OTP");
  requests.insert(requests.begin(), policyOf("frank"));
  requests.push_back(frank.answered("OTP", "246810"));
  check("frank", {answer("OTP", "246810", AUTH_DONE)}, requests);
}

TEST_F(PlatformV0, RedirectIsFollowedOnce) {
  for (const std::string user : {"dave", "erin"}) {
    const bool more = user == "erin";
    const Requests is{user};
    Texts requests{policyOf(user), "pod " + policyOf(user)};
    for (const auto& one : is.password(user + "-Pass1", more ? "OTP" : "")) requests.push_back("pod " + one);
    std::vector<Step> steps{answer("UP", user + "-Pass1", more ? AUTH_NEXT_CHALLENGE : AUTH_DONE)};
    if (more) {
      requests.push_back("pod " + is.answered("OTP", "246810"));
      steps.push_back(answer("OTP", "246810", AUTH_DONE));
    }
    check(user, steps, requests);
  }
}

TEST_F(PlatformV0, RefusedUsers) {
  for (const char* user : {"ivan", "judy", "nobody"}) {
    platform.reset();
    const auto login = client<Client0>("0", user);
    EXPECT_EQ(login->startAuthentication(), AUTH_REQUEST_FAILED);
    EXPECT_THAT(requestsFrom(0), testing::ElementsAre(policyOf(user)));
    EXPECT_THAT(platform.surprises(), IsEmpty());
  }
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(PlatformV0, DeniedAnswerEndsTheLogin) {
  const auto login = client<Client0>("0", "bob");
  int status = login->startAuthentication();
  CloudAuthChallenge open;
  for (const Step& step : {answer("UP", "bob-Pass1", AUTH_NEXT_CHALLENGE), startOob("OTP"), deny()}) {
    take(*login, "bob", status, open, step);
  }
  EXPECT_EQ(failureOf([&] { login->advanceAuthentication("OTP", ACTION_POLL, ""); }),
            "CloudException -1 REST API for polling returns failure");
  EXPECT_THAT(platform.surprises(), IsEmpty());
}

}  // namespace
