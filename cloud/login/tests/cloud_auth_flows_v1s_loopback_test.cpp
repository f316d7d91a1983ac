// The newest login from end to end: each user of the platform's, for a server login and for an elevation.
#include "cloud/login/tests/cloud_auth_platform.h"

namespace {

using namespace platformtest;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr char MACHINE[] = "MACHINE-000002";
constexpr char COOKIE[] = " [USER-000003]";

// Requests of one user, whose first cookie is USER-000003.
std::string impersonated(const std::string& user, const std::string& machine = MACHINE) {
  const std::string uuid = user == "alice" ? R"("uuid":"11111111-2222-3333-4444-555555555555",)" : "";
  return "POST startimpersonate [" + machine + "] {" + uuid + R"("username":")" + user + "\"}";
}
std::string challenged(const std::string& id) {
  return std::string("POST startchallenge") + COOKIE + R"( {"ChallengeStateId":")" + id + R"(","Version":"1.0"})";
}
std::string step(const std::string& action, const std::string& session, const std::string& mechanism) {
  return std::string("POST AdvanceAuthentication") + COOKIE + " {" + action + R"(,"MechanismId":")" + session + "." +
         mechanism + R"(","SessionId":")" + session + R"(","TenantId":"LAB0001"})";
}
std::string answered(const std::string& session, const std::string& mechanism, const std::string& text) {
  return step(R"("Action":"Answer","Answer":")" + text + "\"", session, mechanism);
}
std::string begun(const std::string& session, const std::string& mechanism) {
  return step(R"("Action":"StartOOB")", session, mechanism);
}
std::string polled(const std::string& session, const std::string& mechanism) {
  return step(R"("Action":"Poll")", session, mechanism);
}

class PlatformV1S : public PlatformTest {
 protected:
  std::string endpoint() const { return profile == PROFILE_ELEVATION ? "ferrosuexecute" : "mfalogin"; }
  std::string visited() const { return "GET " + endpoint() + COOKIE; }
  std::string visitedAgain(const std::string& encodedId) const {
    return "GET " + endpoint() + "?challengeId=" + encodedId + COOKIE;
  }

  // The user's cookie and the first visit go ahead of these.
  void check(const std::string& user, int started, const std::vector<Step>& steps, Texts requests) {
    requests.insert(requests.begin(), {impersonated(user), visited()});
    SCOPED_TRACE(user + " at " + endpoint() + (steps.empty() ? "" : " by " + steps[0].mechanism));
    platform.reset();
    const auto login = client1S(user, profile, machineCookie());
    EXPECT_THAT(requestsOf(*login, user, started, steps), ElementsAreArray(requests));
    EXPECT_EQ(login->getCookie(COOKIE_USER), "USER-000003");
    EXPECT_THAT(platform.surprises(), IsEmpty());
  }
  // Proof by one round; the challenge is C000004/0, the session S000005.
  void checkProof(const std::string& user, const std::vector<Step>& steps, Texts requests) {
    requests.insert(requests.begin(), challenged("C000004/0"));
    if (steps.back().result == AUTH_DONE) requests.push_back(visitedAgain("C000004%2F0"));
    check(user, AUTH_NEXT_CHALLENGE, steps, requests);
  }

  int profile = PROFILE_LOGIN;
};

class PlatformV1SProfiles : public PlatformV1S, public testing::WithParamInterface<int> {
 protected:
  PlatformV1SProfiles() { profile = GetParam(); }
};

TEST_P(PlatformV1SProfiles, UsersWithoutProof) {
  check("alice", AUTH_DONE, {}, {});
  check("dave", AUTH_DONE, {}, {});
  check("erin", AUTH_NOT_CONFIGURED, {}, {});
  check("judy", AUTH_FAILED, {}, {});
  check("ivan", AUTH_REQUEST_FAILED, {}, {challenged("C000004/0")});
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_P(PlatformV1SProfiles, ProofByACode) {
  const std::string s = "S000005";
  for (const std::string user : {"bob", "carol"}) {
    for (const std::string name : {"OTP", "SMS", "EMAIL"}) {
      const std::string id = "0." + name;
      checkProof(user, {startOob(name), answer(name, "246810", AUTH_DONE)}, {begun(s, id), answered(s, id, "246810")});
      checkProof(user, {startOob(name), answer(name, "1", AUTH_FAILED)}, {begun(s, id), answered(s, id, "1")});
    }
  }
  checkProof("carol", {answer("SQ", "Rex", AUTH_DONE)}, {answered(s, "0.SQ", "Rex")});
  checkProof("grace", {answer("SQ", "Rex", AUTH_DONE)}, {answered(s, "0.SQ", "Rex")});
  checkProof("heidi", {answer("UP", "heidi-Pass1", AUTH_DONE)}, {answered(s, "0.UP", "heidi-Pass1")});
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_P(PlatformV1SProfiles, ProofApprovedElsewhere) {
  const std::string s = "S000005";
  for (const std::string name : {"OTP", "SMS", "EMAIL", "PF_home", "PF_office", "PF_mobile"}) {
    const std::string id = "0." + name;
    checkProof("bob", {startOob(name), poll(name, AUTH_PENDING), approve(), poll(name, AUTH_DONE)},
               {begun(s, id), polled(s, id), polled(s, id)});
    checkProof("carol", {startOob(name), deny(), poll(name, AUTH_FAILED)}, {begun(s, id), polled(s, id)});
  }
  checkProof("auto", {startOob("OTP"), poll("OTP", AUTH_PENDING), poll("OTP", AUTH_DONE)},
             {begun(s, "0.OTP"), polled(s, "0.OTP"), polled(s, "0.OTP")});
  checkProof(
      "kim",
      {answer("UP", "kim-Pass1", AUTH_NEXT_CHALLENGE), startOob("PF_other"), approve(), poll("PF_other", AUTH_DONE)},
      {answered(s, "0.UP", "kim-Pass1"), begun(s, "1.PF_other"), polled(s, "1.PF_other")});
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_P(PlatformV1SProfiles, TwoRounds) {
  check("frank", AUTH_NEXT_CHALLENGE,
        {startOob("OTP"), answer("OTP", "246810", AUTH_NEXT_CHALLENGE), startOob("SMS"),
         answer("SMS", "246810", AUTH_DONE)},
        {challenged("C000004/0"), begun("S000005", "0.OTP"), answered("S000005", "0.OTP", "246810"),
         visitedAgain("C000004%2F0"), challenged("C000006/1"), begun("S000007", "0.SMS"),
         answered("S000007", "0.SMS", "246810"), visitedAgain("C000006%2F1")});
  EXPECT_EQ(access.occupiedCount, 0U);
}

INSTANTIATE_TEST_SUITE_P(Platform, PlatformV1SProfiles, testing::Values(PROFILE_LOGIN, PROFILE_ELEVATION));

TEST_F(PlatformV1S, PayloadGoesAlongBothTimes) {
  const auto login = client1S("grace", PROFILE_ELEVATION, machineCookie());
  const CloudAuth::Payload payload{{"command", "/bin/id \"-u\""}, {"host", "host1"}};
  ASSERT_EQ(login->startAuthentication(&payload), AUTH_NEXT_CHALLENGE);
  CloudAuthChallenge open;
  ASSERT_EQ(login->nextChallenge(open), 1);
  EXPECT_EQ(login->advanceAuthentication(open.mechanisms[0].mechanismId, ACTION_ANSWER, "Rex"), AUTH_DONE);
  const std::string body = R"( {"command":"/bin/id \"-u\"","host":"host1"})";
  EXPECT_THAT(requestsFrom(1), ElementsAre(impersonated("grace"), "POST ferrosuexecute" + (COOKIE + body),
                                           challenged("C000004/0"), answered("S000005", "0.SQ", "Rex"),
                                           "POST ferrosuexecute?challengeId=C000004%2F0" + (COOKIE + body)));
  EXPECT_THAT(platform.surprises(), IsEmpty());
}

TEST_F(PlatformV1S, WarmUserNeedsOneRequest) {
  const auto first = client1S("alice", profile, machineCookie());
  ASSERT_EQ(first->startAuthentication(), AUTH_DONE);
  const auto second = client1S("alice", profile, "", first->getCookie(COOKIE_USER));
  EXPECT_THAT(requestsOf(*second, "alice", AUTH_DONE, {}), ElementsAre(visited()));
  EXPECT_THAT(platform.surprises(), IsEmpty());
}

TEST_F(PlatformV1S, ExpiredUserCookieCostsOneImpersonation) {
  const std::string machine = machineCookie();
  const auto login = client1S("alice", profile, machine);
  ASSERT_EQ(login->startAuthentication(), AUTH_DONE);
  platform.expire("user");
  EXPECT_THAT(requestsOf(*login, "alice", AUTH_DONE, {}),
              ElementsAre(visited(), impersonated("alice"), "GET mfalogin [USER-000004]"));
  EXPECT_EQ(login->getCookie(COOKIE_USER), "USER-000004");
  EXPECT_THAT(platform.surprises(), IsEmpty());
}

TEST_F(PlatformV1S, ExpiredMachineCookieCostsOneSignIn) {
  const auto login = client1S("alice", profile, machineCookie());
  platform.expire("machine");
  const Texts requests = requestsOf(*login, "alice", AUTH_DONE, {});
  ASSERT_EQ(requests.size(), 5U);
  EXPECT_EQ(requests[0], impersonated("alice"));
  EXPECT_EQ(requests[1].substr(0, 13), "GET SiteCheck");
  EXPECT_EQ(requests[2].substr(0, 30), "GET sso?OneTimePass=OTC-000003");
  EXPECT_EQ(requests[3], impersonated("alice", "MACHINE-000004"));
  EXPECT_EQ(requests[4], "GET mfalogin [USER-000005]");
  EXPECT_EQ(login->getCookie(COOKIE_MACHINE), "MACHINE-000004");
  EXPECT_THAT(platform.surprises(), IsEmpty());
}

TEST_F(PlatformV1S, ComputerWithoutTheRightIsRefusedAfterANewSignIn) {
  const auto login = client1S("alice", profile, machineCookie("HOST2$"));
  const Texts refused = [&] {
    platform.fault(R"({"endpoint":"startimpersonate","after":1,"refuse":{"ErrorID":"NoRight"}})");
    return requestsOf(*login, "alice", AUTH_NO_MACHINE_ACCESS, {});
  }();
  EXPECT_EQ(refused.size(), 4U);
  EXPECT_EQ(login->getCookie(COOKIE_MACHINE), "MACHINE-000004");
  EXPECT_EQ(login->getCookie(COOKIE_USER), "");
  EXPECT_THAT(platform.surprises(), IsEmpty());
}

}  // namespace
