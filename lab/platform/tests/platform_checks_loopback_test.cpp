// Every surprise: what a client should not send is told in a sentence, and nothing else is.
#include <algorithm>

#include "lab/platform/tests/platform_client.h"

namespace ferrolab {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class PlatformChecks : public PlatformTest {
 protected:
  // Exactly this sentence, behind the request.
  void expectSurprise(const std::string& sentence) { EXPECT_THAT(takeSurprises(), ElementsAre(sentence)); }
  void replaceHeader(const std::string& name, const std::string& line) {
    const auto header = std::find_if(client.headers.begin(), client.headers.end(),
                                     [&](const auto& one) { return one.rfind(name + ":", 0) == 0; });
    ASSERT_NE(header, client.headers.end());
    if (line.empty()) {
      client.headers.erase(header);
    } else {
      *header = line;
    }
  }
};

TEST_F(PlatformChecks, EveryHeaderMissingTwiceOrWrong) {
  const auto right = client.headers;
  for (const std::string name : {"X-MORVANE-NATIVE-CLIENT", "X-MRV-SRC", "X-TZOFF", "Content-Type"}) {
    client.headers = right;
    replaceHeader(name, "");
    client.get("sysinfo/version");
    expectSurprise("GET sysinfo/version: no header " + name);
    client.headers.push_back(name + ": x");
    client.get("sysinfo/version");
    expectSurprise("GET sysinfo/version: the header " + name + " is 'x'");
    client.headers = right;
    client.headers.push_back(name + ": 1");
    client.get("sysinfo/version");
    expectSurprise("GET sysinfo/version: the header " + name + " comes 2 times");
  }
}

TEST_F(PlatformChecks, TimeZonesAreWholeNumbers) {
  for (const std::string value : {"-", "1.5", "1-"}) {
    replaceHeader("X-TZOFF", "X-TZOFF: " + value);
    client.get("sysinfo/version");
    expectSurprise("GET sysinfo/version: the header X-TZOFF is '" + value + "'");
  }
  for (const std::string value : {"0", "-840", "720"}) {
    replaceHeader("X-TZOFF", "X-TZOFF: " + value);
    client.get("sysinfo/version");
  }
}

TEST_F(PlatformChecks, WhoReportsEventsTellsNoTimeZone) {
  replaceHeader("X-TZOFF", "");
  client.cookie = machineCookie();
  EXPECT_TRUE(client.post("qrsintegration/LogPrivEvent", "{}").succeeded());
  EXPECT_EQ(platform.eventCount(), 1);
  client.get("sysinfo/version");
  expectSurprise("GET sysinfo/version: no header X-TZOFF");
}

TEST_F(PlatformChecks, EndpointsAndMethods) {
  EXPECT_EQ(client.get("security/SSO").status, 404);
  expectSurprise("GET security/SSO: there is no such endpoint");
  EXPECT_EQ(client.get("security//sso").status, 404);
  expectSurprise("GET security//sso: there is no such endpoint");
  EXPECT_EQ(client.get("security/StartAuthentication").status, 405);
  expectSurprise("GET security/StartAuthentication: the method has to be POST");
  EXPECT_EQ(client.post("security/sso", "{}").status, 405);
  expectSurprise("POST security/sso: the method has to be GET");
  client.send("sysinfo/version", "GET", "{}");
  expectSurprise("GET sysinfo/version: a GET with a body");
}

TEST_F(PlatformChecks, Parameters) {
  client.get("sysinfo/version?x");
  expectSurprise("GET sysinfo/version: parameters where none belong: 'x'");
  client.post("security/StartAuthentication?user=alice", R"({"User":"alice","Version":"1.0"})");
  expectSurprise("POST security/StartAuthentication: parameters where none belong: 'user=alice'");
  for (const std::string query : {"", "user=alice", "user=alice&elevate=undefined", "elevate=undefined&user=alice&x=1",
                                  "elevate=undefined&user=a b", "elevate=undefined&user=%61lice",
                                  "elevate=undefined&user=a%2fb", "elevate=undefined&user=alice&"}) {
    if (query.find(' ') != std::string::npos) continue;
    client.get("security/GetAuthPolicy?" + query);
    expectSurprise("GET security/GetAuthPolicy: the parameters are '" + query + "' and not those of elevate, user");
  }
  client.get("security/GetAuthPolicy?elevate=true&user=alice");
  expectSurprise("GET security/GetAuthPolicy: 'elevate' is 'true'");
  client.get("security/sso?OneTimePas=1");
  expectSurprise("GET security/sso: the parameters are 'OneTimePas=1' and not OneTimePass=CODE");
  client.get("security/sso?OneTimePass=nobodys");
  expectSurprise("GET security/sso: nobody gave out the code 'nobodys'");
}

TEST_F(PlatformChecks, Bodies) {
  const std::string at = "POST security/StartAuthentication: ";
  const std::vector<std::pair<std::string, std::string>> rows{
      {"", "the body is no JSON object"},
      {"[]", "the body is no JSON object"},
      {R"({"User":"alice","Version":"1.0"} x)", "the body is no JSON object"},
      {R"({"User": "alice","Version":"1.0"})", "the body is not compact JSON"},
      {R"({"User":"al\u0069ce","Version":"1.0"})", "the body is not compact JSON"},
      {R"({"Version":"1.0","User":"alice"})", "the body has the members Version, User and not User, Version"},
      {R"({"User":"alice"})", "the body has the members User and not User, Version"},
      {R"({"User":"alice","Version":"1.0","x":"y"})",
       "the body has the members User, Version, x and not User, Version"},
      {R"({"User":"alice","Version":1})", "the member 'Version' is no text"},
      {R"({"User":"alice","Version":"2.0"})", "the version is '2.0'"},
  };
  for (const auto& [body, sentence] : rows) {
    client.post("security/StartAuthentication", body);
    expectSurprise(at + sentence);
  }
}

TEST_F(PlatformChecks, Advance) {
  const std::string at = "POST security/AdvanceAuthentication: ";
  client.start("bob");
  client.post("security/AdvanceAuthentication", R"({"Action":"Wave","MechanismId":"","SessionId":"","TenantId":""})");
  expectSurprise(at + "the action is 'Wave'");
  client.advance(R"("Action":"Poll","Answer":"",)", "S000001.0.UP");
  expectSurprise(at +
                 "the body has the members Action, Answer, MechanismId, SessionId, TenantId and not Action, "
                 "MechanismId, SessionId, TenantId");
  client.advance(R"("Action":"Answer",)", "S000001.0.UP");
  expectSurprise(at +
                 "the body has the members Action, MechanismId, SessionId, TenantId and not Action, Answer, "
                 "MechanismId, SessionId, TenantId");
  client.answer("S999999.0.UP", "x");
  expectSurprise(at + "nobody gave out the session or record 'S999999'");
  client.post("security/AdvanceAuthentication",
              R"({"Action":"Poll","MechanismId":"x","SessionId":"S000001","TenantId":"OTHER"})");
  expectSurprise(at + "another tenant, 'OTHER'");
  client.startOob("S000001.0.UP");
  expectSurprise(at + "StartOOB of UP, which is answered by a text");
  client.poll("S000001.0.UP");
  expectSurprise(at + "Poll of UP, which is answered by a text");
  client.answer("S000001.0.UP", "bob-Pass1");
  client.poll("S000001.1.OTP");
  expectSurprise(at + "Poll of OTP, which was not started");
  Client("http://" + platform.podHost() + "/").startOob("S000001.1.OTP");
  const std::string main = platform.url().substr(7, platform.url().size() - 8);
  expectSurprise(at + "the login began at " + main + " and goes on at " + platform.podHost());
}

TEST_F(PlatformChecks, StepsOfTheOldestLogin) {
  const std::string query = "?elevate=undefined&user=bob";
  const std::string login = "security/MultiAuthLogin" + query;
  const std::string move = "security/MoveToNextLoginPage" + query;
  const std::string atLogin = "POST security/MultiAuthLogin: ";
  const std::string atMove = "POST security/MoveToNextLoginPage: ";
  client.get("security/GetAuthPolicy" + query);

  client.post(login, R"({"recId":"R000001","UP":"bob-Pass1"})");
  expectSurprise(atLogin + "a password before the two steps that announce it");
  client.post(move, R"({"nextMechId":"UP","recId":"R000001","user":"bob"})");
  expectSurprise(atMove + "the second step before the first");
  client.post(login, R"({"nextMechId":"SMS","recId":"R000001"})");
  expectSurprise(atLogin + "the first step announces 'SMS'");
  client.post(move, R"({"nextMechId":"SMS","recId":"R000001","user":"alice"})");
  EXPECT_THAT(takeSurprises(), ElementsAre(atMove + "the second step names 'SMS'",
                                           atMove + "another user in the body than in the parameters"));
  client.post(login, R"({"recId":"R000001","UP":"bob-Pass1"})");
  expectSurprise(atLogin + "a password alone where a further mechanism is due");
  client.post(login, R"({"recId":"R000001","nextMechId":"UP"})");
  expectSurprise(atLogin + "the body has the members recId, nextMechId and not nextMechId, recId");
  client.post(move, R"({"recId":"R000001","nextMechId":"UP","user":"bob"})");
  expectSurprise(atMove + "the body has the members recId, nextMechId, user and not nextMechId, recId, user");
  client.post(login, R"({"nextMechId":"PF","recId":"R000001","UP":"x"})");
  expectSurprise(atLogin + "the body has the members nextMechId, recId, UP and not nextMechId, recId, PFType, UP");
  client.post(move, R"({"nextMechId":"SMS","recId":"R000001"})");
  expectSurprise(atMove + "a poll of SMS, which was not started");
  client.post(login, R"({"SMS":"246810","recId":"R000001"})");
  expectSurprise(atLogin + "an answer to SMS, which was not started");
  const auto announce = [&] {
    client.post(login, R"({"nextMechId":"UP","recId":"R000001"})");
    client.post(move, R"({"nextMechId":"UP","recId":"R000001","user":"bob"})");
  };
  announce();
  client.post(login, R"({"nextMechId":"PF","recId":"R000001","PFType":"boat","UP":"bob-Pass1"})");
  expectSurprise(atLogin + "no mechanism 'PF' with the line 'boat' was offered");
  announce();
  client.post(login, R"({"nextMechId":"SMS","recId":"R000001","UP":"bob-Pass1"})");
  client.post(move, R"({"nextMechId":"EMAIL","recId":"R000001"})");
  expectSurprise(atMove + "a poll of EMAIL, which was not started");
  client.post("security/MultiAuthLogin?elevate=undefined&user=alice", R"({"SMS":"246810","recId":"R000001"})");
  expectSurprise(atLogin + "the record is bob's, the user alice");
  client.post(login, R"({"SMS":"246810","recId":"R7"})");
  expectSurprise(atLogin + "nobody gave out the session or record 'R7'");
  client.post("security/MoveToNextLoginPage", "{}");
  expectSurprise(atMove + "the parameters are '' and not those of elevate, user");
}

TEST_F(PlatformChecks, Cookies) {
  client.get("qrsintegration/mfalogin");
  expectSurprise("GET qrsintegration/mfalogin: no cookie .ASPXAUTH");
  const std::string machine = machineCookie();
  client.cookie = machine;
  client.get("qrsintegration/mfalogin");
  expectSurprise("GET qrsintegration/mfalogin: the cookie of a machine");
  actAs("alice");
  client.post("qrsintegration/LogPrivEvent", "{}");
  expectSurprise("POST qrsintegration/LogPrivEvent: the cookie of a user");
  client.cookie += " " + machine;
  EXPECT_EQ(client.get("qrsintegration/mfalogin").status, 200);
  expectSurprise("GET qrsintegration/mfalogin: more than one cookie .ASPXAUTH");
  // Events rest on the cookie engine once a session was renewed.
  EXPECT_EQ(client.post("qrsintegration/LogPrivEvent", "{}").status, 200);
  client.cookie = "other=1";
  client.get("qrsintegration/mfalogin");
  expectSurprise("GET qrsintegration/mfalogin: no cookie .ASPXAUTH");
}

TEST_F(PlatformChecks, ChallengesAndTheSecondVisit) {
  const std::string at = "POST qrsintegration/mfalogin: ";
  actAs("bob");
  const std::string cookie = client.cookie;
  const std::string id = client.post("qrsintegration/mfalogin", R"({"tty":"1"})").at("Result.ChallengeId");
  const std::string encoded = id.substr(0, id.find('/')) + "%2F0";
  client.post("qrsintegration/mfalogin?challengeId=" + id, R"({"tty":"1"})");
  expectSurprise(at + "the parameters are 'challengeId=" + id + "' and not those of challengeId");
  client.post("qrsintegration/mfalogin?challengeId=x", R"({"tty":"1"})");
  expectSurprise(at + "nobody gave out the challenge 'x'");
  client.post("qrsintegration/mfalogin?challengeId=" + encoded, R"({"tty":"2"})");
  expectSurprise(at + "the second visit repeats POST '{\"tty\":\"2\"}' and not POST '{\"tty\":\"1\"}'");
  client.get("qrsintegration/mfalogin?challengeId=" + encoded);
  expectSurprise("GET qrsintegration/mfalogin: the second visit repeats GET '' and not POST '{\"tty\":\"1\"}'");
  client.get("qrsintegration/ferrosuexecute?challengeId=" + encoded);
  expectSurprise("GET qrsintegration/ferrosuexecute: the challenge '" + id + "' is bob's for qrsintegration/mfalogin");
  client.post("security/startchallenge", R"({"ChallengeStateId":"x","Version":"1.0S"})");
  EXPECT_THAT(takeSurprises(), ElementsAre("POST security/startchallenge: the version is '1.0S'",
                                           "POST security/startchallenge: nobody gave out the challenge 'x'"));
  const std::string begin = R"({"ChallengeStateId":")" + id + R"(","Version":"1.0"})";
  const std::string session = client.post("security/startchallenge", begin).at("Result.SessionId");
  actAs("alice");
  client.post("security/startchallenge", begin);
  expectSurprise("POST security/startchallenge: the challenge '" + id + "' is bob's");
  client.startOob(session + ".0.OTP");
  expectSurprise("POST security/AdvanceAuthentication: the session is bob's, the cookie alice's");
  client.cookie.clear();
  client.startOob(session + ".0.OTP");
  expectSurprise("POST security/AdvanceAuthentication: no cookie .ASPXAUTH");
  client.cookie = cookie;
  EXPECT_EQ(client.startOob(session + ".0.OTP").at("Result.Summary"), "OobPending");
}

TEST_F(PlatformChecks, ImpersonationAndEvents) {
  client.cookie = machineCookie();
  client.post("security/startimpersonate", R"({"username":"bob","uuid":"1"})");
  expectSurprise("POST security/startimpersonate: the body has the members username, uuid and not uuid, username");
  client.post("security/startimpersonate", R"({"user":"bob"})");
  expectSurprise("POST security/startimpersonate: the body has the members user and not username");
  client.post("qrsintegration/LogPrivEvent", R"({"a":1})");
  expectSurprise("POST qrsintegration/LogPrivEvent: the member 'a' is no text");
  EXPECT_THAT(platform.events(), IsEmpty());
}

TEST_F(PlatformChecks, WhatUsersDoWrongIsNoSurprise) {
  client.start("alice");
  client.answer("S000001.0.UP", "wrong");
  client.answer("S000001.0.UP", "alice-Pass1");
  client.start("judy");
  client.cookie = ".ASPXAUTH=stale;";
  client.get("qrsintegration/mfalogin");
}

}  // namespace
}  // namespace ferrolab
