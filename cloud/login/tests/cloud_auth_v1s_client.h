// The newest login, open to tests.
#pragma once

#include <string>

#include "cloud/login/cloud_auth_v1s.h"

class V1SClient : public CloudAuthV1S {
 public:
  using CloudAuthV1S::CloudAuthV1S;

  using CloudAuthV1S::advanceUrl;
  using CloudAuthV1S::authProfileType;
  using CloudAuthV1S::certStore;
  using CloudAuthV1S::challengeId;
  using CloudAuthV1S::challenges;
  using CloudAuthV1S::curl;
  using CloudAuthV1S::document;
  using CloudAuthV1S::elevationUrl;
  using CloudAuthV1S::iwaUrl;
  using CloudAuthV1S::machineCookie;
  using CloudAuthV1S::mfaLoginUrl;
  using CloudAuthV1S::payload;
  using CloudAuthV1S::sessionId;
  using CloudAuthV1S::siteCheck;
  using CloudAuthV1S::siteCheckUrl;
  using CloudAuthV1S::spn;
  using CloudAuthV1S::sso;
  using CloudAuthV1S::ssoUrl;
  using CloudAuthV1S::startChallenge;
  using CloudAuthV1S::startChallengeUrl;
  using CloudAuthV1S::startImpersonate;
  using CloudAuthV1S::startImpersonateUrl;
  using CloudAuthV1S::startMfa;
  using CloudAuthV1S::startUrl;
  using CloudAuthV1S::userCookie;
  using CloudAuthV1S::userName;
  using CloudAuthV1S::uuid;
  using CloudAuthV1S::version;
  using CloudAuthV1S::versionUrl;
};
