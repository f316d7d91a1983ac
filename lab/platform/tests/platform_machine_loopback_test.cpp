// The machine's sign-in, acting for users, proof for privileged actions, privilege events.
#include "lab/platform/tests/platform_client.h"

namespace ferrolab {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char LOGIN[] = "qrsintegration/mfalogin";
constexpr char ELEVATION[] = "qrsintegration/ferrosuexecute";

using TimePoint = std::chrono::steady_clock::time_point;

TimePoint start() { return TimePoint(std::chrono::hours(1)); }

PlatformOptions withClock(TimePoint* time) {
  PlatformOptions options;
  options.now = [time] { return *time; };
  return options;
}

class PlatformMachine : public PlatformTest {
 protected:
  Reply begin(const std::string& id) {
    return client.post("security/startchallenge", R"({"ChallengeStateId":")" + id + R"(","Version":"1.0"})");
  }
  static std::string again(const std::string& endpoint, const std::string& id) {
    return endpoint + "?challengeId=" + id.substr(0, id.find('/')) + "%2F" + id.substr(id.find('/') + 1);
  }
};

TEST_F(PlatformMachine, ACodeSignsInOnce) {
  const std::string code = platform.mintCode("host1$@CORP.FERRO.TEST");
  const Reply first = client.get("security/sso?OneTimePass=" + code);
  EXPECT_EQ(first.at("Result.User"), "HOST1$");
  EXPECT_EQ(first.cookie(), "MACHINE-000002");
  EXPECT_THAT(first.headers, testing::HasSubstr("Set-Cookie: .ASPXAUTH=MACHINE-000002; path=/; HttpOnly\r\n"));
  const Reply second = client.get("security/sso?OneTimePass=" + code);
  EXPECT_EQ(second.at("ErrorID"), "UsedCode");
  EXPECT_EQ(second.cookie(), "");
}

TEST_F(PlatformMachine, TheConnectorsPageHasTextAroundItsObject) {
  EXPECT_EQ(platform.siteCheckReply("HOST1$@CORP.FERRO.TEST"),
            "<html><body>{\"result\":\"success\",\"otc\":\"OTC-000001\"}</body></html>\n");
  EXPECT_EQ(platform.siteCheckReply("alice@CORP.FERRO.TEST"),
            "<html><body>{\"result\":\"failure\",\"message\":\"'alice@CORP.FERRO.TEST' is no machine of this tenant\"}"
            "</body></html>\n");
  EXPECT_TRUE(client.get("security/sso?OneTimePass=OTC-000001").succeeded());
  EXPECT_THAT(platform.calls(), ElementsAre("GET iwa/SiteCheck", "GET iwa/SiteCheck", "GET security/sso"));
}

TEST_F(PlatformMachine, AMachineActsForUsers) {
  client.cookie = machineCookie();
  EXPECT_EQ(client.post("security/startimpersonate", R"({"username":"bob"})").cookie(), "USER-000003");
  const std::string right = R"({"uuid":"11111111-2222-3333-4444-555555555555","username":"alice"})";
  EXPECT_EQ(client.post("security/startimpersonate", right).cookie(), "USER-000004");
  EXPECT_EQ(client.post("security/startimpersonate", R"({"uuid":"1","username":"alice"})").at("ErrorID"),
            "UnknownUser");
  EXPECT_EQ(client.post("security/startimpersonate", R"({"username":"x"})").at("ErrorID"), "UnknownUser");
  client.cookie = machineCookie("HOST2$");
  EXPECT_EQ(client.post("security/startimpersonate", R"({"username":"bob"})").at("ErrorID"), "NoRight");
}

TEST_F(PlatformMachine, WithoutAGoodCookieNothingIsDone) {
  client.cookie = ".ASPXAUTH=;";
  EXPECT_EQ(client.post("security/startimpersonate", R"({"username":"bob"})").status, 401);
  client.cookie = ".ASPXAUTH=stale;";
  for (const char* endpoint : {LOGIN, ELEVATION}) EXPECT_EQ(client.get(endpoint).status, 401);
  EXPECT_EQ(client.post("security/startchallenge", R"({"ChallengeStateId":"x","Version":"1.0"})").status, 401);
  EXPECT_EQ(client.post("qrsintegration/LogPrivEvent", "{}").status, 401);
  EXPECT_THAT(platform.events(), IsEmpty());
}

TEST_F(PlatformMachine, CookiesAreMadeToExpire) {
  const std::string machine = machineCookie();
  actAs("alice");
  const std::string user = client.cookie;
  platform.expire("machine");
  EXPECT_EQ(client.get(LOGIN).status, 200);
  client.cookie = machine;
  EXPECT_EQ(client.post("qrsintegration/LogPrivEvent", "{}").status, 401);
  platform.expire("user");
  client.cookie = user;
  EXPECT_EQ(client.get(LOGIN).status, 401);
  actAs("alice");
  EXPECT_EQ(client.get(LOGIN).status, 200);
  platform.expire("all");
  EXPECT_EQ(client.get(LOGIN).status, 401);
}

TEST_F(PlatformMachine, TheUsersStandingDecides) {
  actAs("alice");
  for (const char* endpoint : {LOGIN, ELEVATION}) {
    EXPECT_TRUE(client.get(endpoint).succeeded());
    EXPECT_TRUE(client.post(endpoint, R"({"tty":"1"})").succeeded());
  }
  actAs("erin");
  EXPECT_EQ(client.get(LOGIN).at("Result"), R"({"Reason":"NotConfigured"})");
  actAs("judy");
  EXPECT_EQ(client.get(ELEVATION).at("ErrorID"), "AccessDenied");
  EXPECT_EQ(client.get(ELEVATION).at("Result"), R"({"Reason":"Denied"})");
}

TEST_F(PlatformMachine, ProofIsAskedGivenAndRemembered) {
  actAs("bob");
  const Reply refusal = client.post(LOGIN, R"({"tty":"1"})");
  EXPECT_EQ(refusal.at("ErrorID"), "ChallengeRequired");
  const std::string id = refusal.at("Result.ChallengeId");
  EXPECT_EQ(id, "C000004/0");
  EXPECT_EQ(begin(id).at("Result.Challenges.0.Mechanisms.0.Name"), "OTP");
  client.startOob("S000005.0.SMS");
  const Reply done = client.answer("S000005.0.SMS", "246810");
  EXPECT_EQ(done.at("Result.Summary"), "Success");
  EXPECT_EQ(done.cookie(), "");
  EXPECT_TRUE(client.post(again(LOGIN, id), R"({"tty":"1"})").succeeded());
}

TEST_F(PlatformMachine, WithoutProofTheSecondVisitAsksAgain) {
  actAs("bob");
  const Reply second = client.get(again(LOGIN, client.get(LOGIN).at("Result.ChallengeId")));
  EXPECT_EQ(second.at("Result.ChallengeId"), "C000005/0");
}

TEST_F(PlatformMachine, TwoRoundsAskTwice) {
  actAs("frank");
  const std::string first = client.get(ELEVATION).at("Result.ChallengeId");
  std::string session = begin(first).at("Result.SessionId");
  client.startOob(session + ".0.OTP");
  client.answer(session + ".0.OTP", "246810");
  const std::string second = client.get(again(ELEVATION, first)).at("Result.ChallengeId");
  EXPECT_EQ(second.substr(second.find('/')), "/1");
  session = begin(second).at("Result.SessionId");
  client.startOob(session + ".0.SMS");
  client.answer(session + ".0.SMS", "246810");
  EXPECT_TRUE(client.get(again(ELEVATION, second)).succeeded());
}

TEST_F(PlatformMachine, WhoHasNothingToAnswerWithIsRefusedTheChallenge) {
  actAs("ivan");
  EXPECT_EQ(begin(client.get(LOGIN).at("Result.ChallengeId")).at("ErrorID"), "NoFactors");
}

TEST_F(PlatformMachine, EventsAreKeptInOrder) {
  client.cookie = machineCookie();
  for (const char* event : {"{}", R"({"username":"bob","Reason":"x","Reason":"y"})"}) {
    EXPECT_TRUE(client.post("qrsintegration/LogPrivEvent", event).succeeded());
  }
  EXPECT_THAT(platform.events(), ElementsAre("{}", R"({"username":"bob","Reason":"x","Reason":"y"})"));
}

TEST(PlatformClock, CookiesAndCodesEndByIt) {
  TimePoint time = start();
  PlatformOptions options = withClock(&time);
  options.script = R"({"machineCookieSeconds":60,"userCookieSeconds":30,"codeSeconds":10,"codeUses":2,
    "policies":{"p":{"challenges":[["UP"]]}},"users":[{"name":"u","login":"p"}],"machines":{"m$":{}}})";
  PlatformSimulator platform(options);
  Client client(platform.url());
  const std::string code = platform.mintCode("m$");
  time += std::chrono::seconds(9);
  const std::string machine = ".ASPXAUTH=" + client.get("security/sso?OneTimePass=" + code).cookie() + ";";
  time += std::chrono::seconds(1);
  EXPECT_EQ(client.get("security/sso?OneTimePass=" + code).at("ErrorID"), "ExpiredCode");
  client.cookie = machine;
  const std::string user =
      ".ASPXAUTH=" + client.post("security/startimpersonate", R"({"username":"u"})").cookie() + ";";
  time += std::chrono::seconds(29);
  client.cookie = user;
  EXPECT_EQ(client.get(LOGIN).status, 200);
  EXPECT_EQ(platform.control(R"({"command":"advance-clock","seconds":1})"), R"({"ok":true})");
  EXPECT_EQ(client.get(LOGIN).status, 401);
  client.cookie = machine;
  EXPECT_EQ(client.post("qrsintegration/LogPrivEvent", "{}").status, 200);
  time += std::chrono::seconds(60);
  EXPECT_EQ(client.post("qrsintegration/LogPrivEvent", "{}").status, 401);
  EXPECT_THAT(platform.surprises(), IsEmpty());
}

}  // namespace
}  // namespace ferrolab
