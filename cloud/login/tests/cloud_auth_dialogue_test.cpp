// The records of a login: which challenge is open, which is done, by what.
#include <gmock/gmock.h>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/login/tests/cloud_auth_client.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

CloudAuthChallenge challenge(const std::string& name, const std::vector<std::string>& mechanismIds) {
  CloudAuthChallenge made;
  made.name = name;
  for (const std::string& id : mechanismIds) {
    made.mechanisms.emplace_back();
    made.mechanisms.back().mechanismId = id;
  }
  return made;
}

// Agents keep these numbers in tables of their own.
static_assert(AUTH_FAILED == 0 && AUTH_DONE == 1 && AUTH_NEXT_CHALLENGE == 2 && AUTH_PENDING == 3 &&
              AUTH_REQUEST_FAILED == 4 && AUTH_NOT_CONFIGURED == 5 && AUTH_NO_MACHINE_ACCESS == 6);
static_assert(ACTION_ANSWER == 0 && ACTION_POLL == 1 && ACTION_START_OOB == 2);
static_assert(COOKIE_MACHINE == 0 && COOKIE_USER == 1 && PROFILE_LOGIN == 0 && PROFILE_ELEVATION == 1);
static_assert(ANSWER_TEXT == 0 && ANSWER_OOB == 1 && ANSWER_TEXT_OOB == 2 && ANSWER_REDIRECT == 3 &&
              ANSWER_ENTITY == 4 && ANSWER_ENTITY_LIST == 5 && ANSWER_UNKNOWN == 6);

class Dialogue : public testing::Test {
 protected:
  Dialogue() { client.challenges = {challenge("first", {"a", "b"}), challenge("second", {"c"})}; }

  CloudCurlPoolAccess access;
  AuthClient client;
};

}  // namespace

TEST_F(Dialogue, BeginsWithUserVersionAndUrls) {
  EXPECT_EQ(client.cloudUrl, "https://platform.example.test/");
  EXPECT_EQ(client.version, "1.0");
  EXPECT_EQ(client.versionUrl, "https://platform.example.test/sysinfo/version");
  EXPECT_EQ(client.userName, "alice@example.test");
  EXPECT_THAT(client.params, ElementsAre(Pair("elevate", "undefined"), Pair("user", "alice@example.test")));
  EXPECT_EQ(client.currentChallenge, "");
}

TEST_F(Dialogue, ANewUserNameGoesIntoTheParametersToo) {
  client.params["elevate"] = "other";
  client.setUserName("bob");
  EXPECT_EQ(client.userName, "bob");
  EXPECT_THAT(client.params, ElementsAre(Pair("elevate", "undefined"), Pair("user", "bob")));
}

TEST_F(Dialogue, ChallengesAreGivenInTheirOrderUntilTheyAreDone) {
  CloudAuthChallenge open;
  EXPECT_EQ(client.nextChallenge(open), 1);
  EXPECT_EQ(open.name, "first");
  EXPECT_EQ(open.mechanisms.size(), 2U);
  EXPECT_EQ(client.nextChallenge(open), 1);
  EXPECT_EQ(open.name, "first") << "it is not done";
  client.markChallengeDone("b", true);
  EXPECT_EQ(client.challenges[0].selectedMechanism, "b");
  EXPECT_EQ(client.nextChallenge(open), 1);
  EXPECT_EQ(open.name, "second");
  EXPECT_EQ(client.currentChallenge, "second");
  client.markChallengeDone("c", true);
  EXPECT_EQ(client.nextChallenge(open), 0);
  EXPECT_EQ(client.currentChallenge, "");
  EXPECT_EQ(open.name, "second") << "untouched";
}

TEST_F(Dialogue, ACallerHasACopyOfTheChallenge) {
  CloudAuthChallenge open;
  client.nextChallenge(open);
  open.mechanisms.clear();
  EXPECT_EQ(client.challenges[0].mechanisms.size(), 2U);
}

TEST_F(Dialogue, WithoutAnOpenChallengeNothingIsMarked) {
  client.markChallengeDone("a", true);
  for (const auto& one : client.challenges) {
    EXPECT_FALSE(one.done) << one.name;
    EXPECT_EQ(one.selectedMechanism, "") << one.name;
  }
}

TEST_F(Dialogue, AMarkCanBeTakenBack) {
  CloudAuthChallenge open;
  client.nextChallenge(open);
  client.markChallengeDone("a", true);
  client.markChallengeDone("b", false);
  EXPECT_FALSE(client.challenges[0].done);
  EXPECT_EQ(client.challenges[0].selectedMechanism, "b");
}

TEST_F(Dialogue, TheOpenChallengeIsFoundByItsName) {
  client.currentChallenge = "second";
  EXPECT_EQ(client.findCurrentChallenge(), &client.challenges[1]);
  client.currentChallenge = "third";
  EXPECT_EQ(failureOf([this] { client.findCurrentChallenge(); }),
            "CloudException -1 Failed to locate the current challenge in challenge list.");
}

TEST_F(Dialogue, AMechanismIsFoundInItsOwnChallengeAlone) {
  EXPECT_EQ(AuthClient::findMechanism("b", client.challenges[0]), &client.challenges[0].mechanisms[1]);
  EXPECT_EQ(failureOf([this] { AuthClient::findMechanism("c", client.challenges[0]); }),
            "CloudException -1 Failed to locate the mechanism 'c' in current challenge.");
  EXPECT_EQ(failureOf([this] { AuthClient::findMechanism("c\n\x1b[2J", client.challenges[0]); }),
            "CloudException -1 Failed to locate the mechanism 'c\\n\\x1b[2J' in current challenge.");
}

TEST_F(Dialogue, HasNoCookiesToKeep) {
  client.setCookie(COOKIE_MACHINE, "m");
  client.setCookie(COOKIE_USER, "u");
  EXPECT_THAT(client.getCookie(COOKIE_MACHINE), IsEmpty());
  EXPECT_THAT(client.getCookie(COOKIE_USER), IsEmpty());
}
