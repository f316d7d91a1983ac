// Every fault, as a client meets it.
#include <future>

#include "lab/platform/tests/platform_client.h"
#include "testsupport/temp_folder.h"

namespace ferrolab {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char PACKAGE[] =
    R"({"success":true,"Result":{"SessionId":"S000001","TenantId":"LAB0001","Version":"1.0","Challenges":)"
    R"([{"Mechanisms":[{"Name":"UP","MechanismId":"S000001.0.UP"}]}]},"Message":null})";

class PlatformFaults : public PlatformTest {
 protected:
  // What carol's start is answered with under the fault; it goes as usual the second time.
  Reply meet(const std::string& fault) {
    reset();
    platform.fault(R"({"endpoint":"StartAuthentication",)" + fault + "}");
    const Reply met = client.start("carol");
    EXPECT_TRUE(client.start("carol").succeeded()) << fault;
    return met;
  }
  void expectRefused(const std::string& fault, const std::string& words) {
    try {
      platform.fault(fault);
      FAIL() << fault;
    } catch (const std::invalid_argument& failure) {
      EXPECT_EQ(failure.what(), words);
    }
  }
};

TEST_F(PlatformFaults, Status) {
  const Reply met = meet(R"("status":503)");
  EXPECT_EQ(met.status, 503);
  EXPECT_EQ(met.body, "");
  EXPECT_THAT(met.headers, HasSubstr("HTTP/1.1 503 Service Unavailable\r\n"));
  EXPECT_EQ(meet(R"("status":401,"body":"{\"success\":true}")").body, R"({"success":true})");
}

TEST_F(PlatformFaults, Refusal) {
  EXPECT_EQ(meet(R"("refuse":{"ErrorID":"X","Message":"m","ErrorCode":7,"Reason":"NotConfigured"})").body,
            R"({"success":false,"ErrorID":"X","Message":"m","ErrorCode":7,"Result":{"Reason":"NotConfigured"}})");
}

TEST_F(PlatformFaults, AConnectionCutBeforeTheReply) {
  EXPECT_EQ(meet(R"("cut":"before")").code, CURLE_GOT_NOTHING);
  EXPECT_EQ(platform.requests().front().status, 0);
}

TEST_F(PlatformFaults, AConnectionCutWithinHeadersAndWithinTheBody) {
  EXPECT_EQ(meet(R"("cut":"headers")").code, CURLE_OK);  // to libcurl this is a reply without a body
  const Reply met = meet(R"("cut":"body")");
  EXPECT_EQ(met.code, CURLE_PARTIAL_FILE);
  EXPECT_EQ(met.body, std::string(PACKAGE).substr(0, sizeof PACKAGE / 2));
  EXPECT_EQ(client.answer("S000001.0.UP", "carol-Pass1").at("Result.Summary"), "LoginSuccess");
}

TEST_F(PlatformFaults, Silence) {
  client.limit = 100;
  platform.fault(R"({"endpoint":"version","hang":true})");
  EXPECT_EQ(client.get("sysinfo/version").code, CURLE_OPERATION_TIMEDOUT);
  client.limit = 10000;
  EXPECT_TRUE(client.get("sysinfo/version").succeeded());
}

TEST_F(PlatformFaults, Delay) {
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(meet(R"("delay":50)").body, PACKAGE);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(50));
}

TEST_F(PlatformFaults, ADelayEndsWithTheSimulator) {
  auto own = std::make_unique<PlatformSimulator>(PlatformOptions());
  own->fault(R"({"endpoint":"version","delay":600000})");
  const auto asking = std::async(std::launch::async, [url = own->url()] { return Client(url).get("sysinfo/version"); });
  while (own->requests().empty()) std::this_thread::yield();
  own.reset();
}

TEST_F(PlatformFaults, AnotherBody) {
  EXPECT_EQ(meet(R"("body":"<html>")").body, "<html>");
  EXPECT_EQ(meet(R"("empty":true)").body, "");
  EXPECT_EQ(meet(R"("broken":true)").body, std::string(PACKAGE).substr(0, sizeof PACKAGE / 2));
  const Reply huge = meet(R"("huge":3000000)");
  EXPECT_EQ(huge.body.size(), sizeof PACKAGE - 1 + 3000000 + sizeof R"(,"padding":"")" - 1);
  EXPECT_EQ(huge.at("Result.SessionId"), "S000001");
}

TEST_F(PlatformFaults, AMemberMissingOrOfAnotherType) {
  EXPECT_EQ(meet(R"("remove":"Result.SessionId")").at("Result.SessionId"), "");
  EXPECT_EQ(meet(R"("remove":"Result.Challenges.0")").at("Result.Challenges"), "[]");
  EXPECT_EQ(meet(R"("set":"Result.Version","to":7)").at("Result.Version"), "7");
  EXPECT_EQ(meet(R"("set":"success","to":"True")").at("success"), "True");
  EXPECT_EQ(meet(R"("set":"Result.Challenges.0.Mechanisms.0.PromptMechChosen","to":"Go.")")
                .at("Result.Challenges.0.Mechanisms.0.PromptMechChosen"),
            "Go.");
}

TEST_F(PlatformFaults, WhatCannotBeChangedIsASurprise) {
  meet(R"("remove":"Result.Nothing")");
  EXPECT_THAT(takeSurprises(),
              ElementsAre("POST security/StartAuthentication: the fault could not remove Result.Nothing"));
  meet(R"("set":"Nothing.At.All","to":1)");
  EXPECT_THAT(takeSurprises(),
              ElementsAre("POST security/StartAuthentication: the fault could not set Nothing.At.All"));
  meet(R"("foreign":true)");
  EXPECT_THAT(takeSurprises(), ElementsAre("POST security/StartAuthentication: the fault could not give a foreign id"));
}

TEST_F(PlatformFaults, TheIdOfAnotherLogin) {
  client.start("bob");
  platform.fault(R"({"endpoint":"StartAuthentication","foreign":true})");
  EXPECT_EQ(client.start("carol").at("Result.SessionId"), "S000001");
  EXPECT_EQ(client.advance(R"("Action":"Answer","Answer":"x",)", "S000001.0.SQ").at("ErrorID"), "UnknownMechanism");
  client.get("security/GetAuthPolicy?elevate=undefined&user=bob");
  platform.fault(R"({"endpoint":"GetAuthPolicy","foreign":true})");
  EXPECT_EQ(client.get("security/GetAuthPolicy?elevate=undefined&user=alice").at("Result.recId"), "R000003");
  EXPECT_EQ(
      client.post("security/MultiAuthLogin?elevate=undefined&user=alice", R"({"nextMechId":"UP","recId":"R000003"})")
          .status,
      200);
  actAs("bob");
  const std::string challenge = client.get("qrsintegration/mfalogin").at("Result.ChallengeId");
  actAs("frank");
  platform.fault(R"({"endpoint":"mfalogin","foreign":true})");
  EXPECT_EQ(client.get("qrsintegration/mfalogin").at("Result.ChallengeId"), challenge);
  EXPECT_EQ(client.post("security/startchallenge", R"({"ChallengeStateId":")" + challenge + R"(","Version":"1.0"})")
                .at("ErrorID"),
            "UnknownChallenge");
}

TEST_F(PlatformFaults, WithoutTheCookieAndWithOneHeaderMore) {
  const std::string path = "security/sso?OneTimePass=" + platform.mintCode("HOST1$");
  platform.fault(R"({"endpoint":"sso","no-cookie":true})");
  const Reply reply = client.get(path);
  EXPECT_TRUE(reply.succeeded());
  EXPECT_EQ(reply.cookie(), "");
  EXPECT_THAT(meet(R"("header":"X-MRV-Trace: 7")").headers, HasSubstr("\r\nX-MRV-Trace: 7\r\n"));
}

TEST_F(PlatformFaults, CountAndBeginning) {
  platform.fault(R"({"endpoint":"sysinfo/version","status":500,"count":2,"after":1})");
  platform.fault(R"({"endpoint":"*","status":404,"count":0})");
  std::vector<long> seen;
  for (int i = 0; i < 4; ++i) seen.push_back(client.get("sysinfo/version").status);
  EXPECT_THAT(seen, ElementsAre(404, 500, 500, 404));
  platform.control(R"({"command":"clear-faults"})");
  EXPECT_EQ(client.get("sysinfo/version").status, 200);
}

TEST_F(PlatformFaults, TheConnectorsPageHasThemToo) {
  platform.fault(R"({"endpoint":"SiteCheck","body":"}{"})");
  EXPECT_EQ(platform.siteCheckReply("HOST1$"), "}{");
  platform.fault(R"({"endpoint":"SiteCheck","status":500})");
  EXPECT_THAT(platform.siteCheckHttp("HOST1$").bytes, HasSubstr("HTTP/1.1 500 "));
}

TEST_F(PlatformFaults, WhatIsMisspeltIsRefused) {
  expectRefused(R"({"endpoint":"sso"})", "the fault does not say what to do");
  expectRefused(R"({"status":500})", "a fault needs an 'endpoint'");
  expectRefused(R"({"endpoint":"sos","status":500})", "there is no endpoint 'sos'");
  expectRefused(R"({"endpoint":"sso","statuss":500})", "a fault has no member 'statuss'");
  expectRefused(R"({"endpoint":"sso","hang":true,"empty":true})", "a fault is either 'hang' or 'empty'");
  expectRefused(R"({"endpoint":"sso","cut":"x"})", "'cut' has to be before, headers or body");
  expectRefused(R"({"endpoint":"sso","set":"x"})", "'set' and 'to' go together");
  expectRefused(R"({"endpoint":"sso","hang":false})", "'hang' has to be true");
  expectRefused(R"({"endpoint":"sso","status":"x"})", "'status' has to be a number, not below 0");
  expectRefused(R"({"endpoint":"sso","refuse":1})", "'refuse' has to be an object");
  expectRefused("{", "the fault, line 1: Missing a name for object member.");
}

TEST(PlatformTls, ServesAndCutsUnderTls) {
  const testsupport::TempFolder folder;
  const auto certificate = testsupport::makeCertificate(folder.path(), "platform", {});
  PlatformOptions options;
  options.certificate = &certificate;
  PlatformSimulator platform(options);
  EXPECT_THAT(platform.url(), testing::StartsWith("https://localhost:"));
  Client client(platform.url(), certificate.certificateFile);
  EXPECT_THAT(client.get("security/sso?OneTimePass=" + platform.mintCode("HOST1$")).headers,
              HasSubstr("path=/; HttpOnly; secure\r\n"));
  EXPECT_EQ(platform.connections(), 1);
  platform.fault(R"({"endpoint":"version","cut":"body"})");
  EXPECT_EQ(client.get("sysinfo/version").code, CURLE_PARTIAL_FILE);
  Client pod("https://" + platform.podHost() + "/", certificate.certificateFile);
  EXPECT_TRUE(pod.start("dave").succeeded());
  EXPECT_EQ(platform.requests().back().connection, 1'000'000);
  EXPECT_EQ(platform.requests().back().host, platform.podHost());
}

}  // namespace
}  // namespace ferrolab
