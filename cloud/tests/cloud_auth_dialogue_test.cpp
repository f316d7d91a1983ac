// The records of a login: which challenge is open, which is done, by what.
#include <gmock/gmock.h>

#include "cloud/tests/cloud_auth_client.h"
#include "cloud/tests/cloud_object_pool_access.h"

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
}

TEST_F(Dialogue, HasNoCookiesToKeep) {
  client.setCookie(COOKIE_MACHINE, "m");
  client.setCookie(COOKIE_USER, "u");
  EXPECT_THAT(client.getCookie(COOKIE_MACHINE), IsEmpty());
  EXPECT_THAT(client.getCookie(COOKIE_USER), IsEmpty());
}
