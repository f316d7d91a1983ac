// Every request of every login meets a reply that does not come, comes damaged or says no.
#include "cloud/http/tests/curl_words.h"
#include "cloud/login/tests/cloud_auth_bad_reply.h"

namespace {

using namespace platformtest;
using testing::AnyOf;
using testing::IsEmpty;

constexpr long LIMIT_MS = 1000;  // of each exchange of a login, those before the silent one too
constexpr char NO_BRACE[] = "CloudIwaException 9 There's no valid json string in SiteCheck response. Can't find '{'.";
constexpr char CUT_BEFORE[] = R"("cut":"before","count":)";

// Libcurl tells a peer that hung up without a word by either text.
const std::string NOTHING = curltest::curlWords(CURLE_GOT_NOTHING);
const std::string RESET = curltest::curlWords(CURLE_RECV_ERROR);

std::string statusFault(int status) { return "\"status\":" + std::to_string(status); }

}  // namespace

TEST_F(Scenes, GoodRepliesAreGood) {
  std::vector<Scene> all = ofThePlatform();
  all.push_back(siteCheck());
  for (const Scene& scene : all) {
    EXPECT_EQ(outcomeOf(scene, ""), scene.good) << scene.name;
    EXPECT_THAT(platform.surprises(), IsEmpty()) << scene.name;
  }
}

TEST_F(Scenes, OtherStatusThan200IsARefusal) {
  for (const Scene& scene : ofThePlatform()) {
    for (const int status : {201, 302, 401, 403, 404, 407, 500}) {
      EXPECT_EQ(outcomeOf(scene, statusFault(status) + R"(,"body":"{\"success\":true}")"), scene.refused) << scene.name;
    }
  }
  for (const int status : {204, 302, 401, 403, 404, 407, 500}) {
    EXPECT_EQ(outcomeOf(siteCheck(), statusFault(status)),
              "CloudIwaException 9 SiteCheck HTTP code is not OK(" + std::to_string(status) + ").");
  }
}

TEST_F(Scenes, ReplyWithoutSuccessIsARefusal) {
  const std::vector<std::string> faults{
      R"("refuse":{"ErrorID":"E","ErrorCode":"C","Message":"no","MessageID":"M"})",
      R"("refuse":{"ErrorID":7,"ErrorCode":[],"Message":{},"MessageID":null})",
      R"("empty":true)",
      R"("broken":true)",
      R"("body":"null")",
      R"("body":"[]")",
      R"("body":"[{\"success\":true}]")",
      R"("body":"true")",
      R"("body":"\"success\"")",
      R"("body":"<html>{\"success\":true}</html>")",
      R"("body":"{\"success\":true} {\"success\":true}")",
      R"("remove":"success")",
      R"("set":"success","to":false)",
      R"("set":"success","to":null)",
      R"("set":"success","to":1)",
      R"("set":"success","to":"")",
      R"("set":"success","to":"true")",
      R"("set":"success","to":"True")",
      R"("set":"success","to":[true])",
  };
  for (const Scene& scene : ofThePlatform()) {
    for (const std::string& fault : faults) EXPECT_EQ(outcomeOf(scene, fault), scene.refused) << scene.name << fault;
  }
}

TEST_F(Scenes, HugeRepliesAreRead) {
  for (const Scene& scene : ofThePlatform()) EXPECT_EQ(outcomeOf(scene, R"("huge":300000)"), scene.good) << scene.name;
  EXPECT_EQ(outcomeOf(siteCheck(), R"("huge":300000)"), siteCheck().good);
}

TEST_F(Scenes, CutRepliesAreTransferFailures) {
  std::vector<Scene> all = ofThePlatform();
  all.push_back(siteCheck());
  for (const Scene& scene : all) {
    const auto nothing = AnyOf(transferFailure(scene, NOTHING), transferFailure(scene, RESET));
    EXPECT_THAT(outcomeOf(scene, std::string(CUT_BEFORE) + "3"), nothing) << scene.name;
    // Libcurl takes the head of a reply as it stands when the peer hangs up: a status, and no body.
    EXPECT_EQ(outcomeOf(scene, R"("cut":"headers")"), scene.name == "SiteCheck" ? NO_BRACE : scene.refused)
        << scene.name;
    EXPECT_EQ(outcomeOf(scene, R"("cut":"body")"), transferFailure(scene, curltest::curlWords(CURLE_PARTIAL_FILE)))
        << scene.name;
  }
}

// A kept connection may have ended meanwhile: the request is sent again on a new one, once. To the pod and after the
// connector the connection is new.
TEST_F(Scenes, ConnectionThatEndsBeforeTheReplyIsReplaced) {
  for (const Scene& scene : ofThePlatform()) {
    if (scene.name == "pod 1.0" || scene.name == "sso") continue;
    access.pool.reapCurls();  // libcurl does it five times in the life of a handle
    EXPECT_EQ(outcomeOf(scene, std::string(CUT_BEFORE) + "1"), scene.good) << scene.name;
    EXPECT_THAT(platform.surprises(), IsEmpty()) << scene.name;
  }
}

TEST_F(Scenes, TransferEndsAtItsTimeLimit) {
  std::vector<Scene> all = ofThePlatform();
  all.push_back(siteCheck());
  for (const Scene& scene : all) {
    for (const char* fault : {R"("hang":true)", R"("delay":60000)"}) {
      if (fault[1] == 'd' && scene.name != "answer 1.0") continue;
      std::unique_ptr<CloudAuth> login = begin(scene);
      connection().setOpt(CURLOPT_TIMEOUT_MS, LIMIT_MS);
      platform.fault(faultText(scene, fault));
      const std::string outcome = outcomeOf(scene, *login);
      EXPECT_EQ(outcome, transferFailure(scene, curltest::curlWords(CURLE_OPERATION_TIMEDOUT))) << scene.name;
      connection().setOpt(CURLOPT_TIMEOUT, 30);
      end(scene, login, outcome);
    }
    EXPECT_EQ(outcomeOf(scene, R"("delay":10)"), scene.good) << scene.name;
  }
}

// What the platform refused without having looked at it, it takes at the second attempt.
TEST_F(Scenes, LoginGoesOnAfterAFailure) {
  for (const Scene& scene : {policy0(), announce0(), page0(), password0(), poll0(), answer0(), start1(), answer1(),
                             poll1(), package1(), siteCheck(), sso(), impersonate(), visit(), challenge(), proof()}) {
    for (const std::string& fault :
         {statusFault(500), std::string(R"("cut":"before","count":2)"), std::string(R"("refuse":{})")}) {
      const bool isNewConnection = scene.name == "sso" || scene.endpoint == "SiteCheck";
      if (isNewConnection && fault[1] != 's') continue;
      std::unique_ptr<CloudAuth> login = begin(scene);
      platform.fault(faultText(scene, fault));
      const std::string first = outcomeOf(scene, *login);
      const std::string second = outcomeOf(scene, *login);
      EXPECT_EQ(second, scene.good) << scene.name << " after " << first;
      end(scene, login, first + second);
    }
  }
}
