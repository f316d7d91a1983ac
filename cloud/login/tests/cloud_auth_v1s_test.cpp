// The newest login without a platform.
#include <gmock/gmock.h>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/login/tests/cloud_auth_v1s_client.h"

namespace {

constexpr char URL[] = "https://tenant.example.test/";

V1SClient clientFor(const int* profile) {
  return {URL, "2.0", "alice@example.test", "ID-1", "https://c.test:8443/", "HTTP/c.test@TEST", profile};
}

}  // namespace

TEST(CloudAuthV1S, BeginsWithTheUrlsOfPlatformAndConnector) {
  const int profile = PROFILE_ELEVATION;
  const V1SClient client = clientFor(&profile);
  EXPECT_EQ(client.version, "2.0");
  EXPECT_EQ(client.userName, "alice@example.test");
  EXPECT_EQ(client.uuid, "ID-1");
  EXPECT_EQ(client.iwaUrl, "https://c.test:8443/");
  EXPECT_EQ(client.spn, "HTTP/c.test@TEST");
  EXPECT_EQ(client.authProfileType, PROFILE_ELEVATION);
  EXPECT_EQ(client.versionUrl, "https://tenant.example.test/sysinfo/version");
  EXPECT_EQ(client.startUrl, "https://tenant.example.test/security/StartAuthentication");
  EXPECT_EQ(client.advanceUrl, "https://tenant.example.test/security/AdvanceAuthentication");
  EXPECT_EQ(client.startChallengeUrl, "https://tenant.example.test/security/startchallenge");
  EXPECT_EQ(client.elevationUrl, "https://tenant.example.test/qrsintegration/ferrosuexecute");
  EXPECT_EQ(client.mfaLoginUrl, "https://tenant.example.test/qrsintegration/mfalogin");
  EXPECT_EQ(client.startImpersonateUrl, "https://tenant.example.test/security/startimpersonate");
  EXPECT_EQ(client.ssoUrl, "https://tenant.example.test/security/sso");
  EXPECT_EQ(client.siteCheckUrl, "https://c.test:8443/iwa/SiteCheck");
  EXPECT_EQ(client.machineCookie, "");
  EXPECT_EQ(client.userCookie, "");
  EXPECT_EQ(client.challengeId, "");
  EXPECT_EQ(client.payload, "");
}

TEST(CloudAuthV1S, ProfileIsWhateverTheCallerSaysAndALoginWithoutAWord) {
  const int odd = -7;
  EXPECT_EQ(clientFor(&odd).authProfileType, -7);
  EXPECT_EQ(clientFor(nullptr).authProfileType, PROFILE_LOGIN);
}

TEST(CloudAuthV1S, CookiesAreKeptByTheirKind) {
  V1SClient client = clientFor(nullptr);
  EXPECT_EQ(client.getCookie(COOKIE_MACHINE), "");
  EXPECT_EQ(client.getCookie(COOKIE_USER), "");
  client.setCookie(COOKIE_MACHINE, "machine");
  client.setCookie(COOKIE_USER, "user");
  EXPECT_EQ(client.machineCookie, "machine");
  EXPECT_EQ(client.userCookie, "user");
  EXPECT_EQ(client.getCookie(COOKIE_MACHINE), "machine");
  for (const int kind : {1, 2, -1}) EXPECT_EQ(client.getCookie(kind), "user");
  client.setCookie(7, "other");
  EXPECT_EQ(client.userCookie, "other");
  EXPECT_EQ(client.machineCookie, "machine");
}

TEST(V1SWithoutAConnection, SaysWhatToDo) {
  const std::string words =
      "CloudException -1 The client holds no connection: take one with getCurl before the first call";
  const int profile = PROFILE_LOGIN;
  CloudAuthV1S client("https://platform.example.test/", "", "alice", "", "", "", &profile);
  client.setCookie(COOKIE_USER, "user");
  EXPECT_EQ(failureOf([&] { client.startAuthentication(); }), words);
  client.setCookie(COOKIE_USER, "");
  client.setCookie(COOKIE_MACHINE, "machine");
  EXPECT_EQ(failureOf([&] { client.startAuthentication(); }), words);
}
