// The login of version 0, open to tests.
#pragma once

#include <string>

#include "cloud/login/cloud_auth_v0.h"

class V0Client : public CloudAuthV0 {
 public:
  static constexpr const char* VERSION = "0";

  explicit V0Client(const std::string& url = "https://platform.example.test/", const std::string& restVersion = VERSION,
                    const std::string& user = "alice@example.test")
      : CloudAuthV0(url, restVersion, user) {}

  using CloudAuthV0::certStore;
  using CloudAuthV0::challenges;
  using CloudAuthV0::curl;
  using CloudAuthV0::currentChallenge;
  using CloudAuthV0::document;
  using CloudAuthV0::getAuthPolicyUrl;
  using CloudAuthV0::moveToNextLoginPageUrl;
  using CloudAuthV0::multiAuthLoginUrl;
  using CloudAuthV0::parseAdvanceResult;
  using CloudAuthV0::parsePolicy;
  using CloudAuthV0::password;
  using CloudAuthV0::passwordSent;
  using CloudAuthV0::podHost;
  using CloudAuthV0::recId;
  using CloudAuthV0::securityQuestion;
  using CloudAuthV0::updateUrls;

  // As if the platform had replied so.
  int judge(const std::string& body) {
    httpCode = 200;
    responseBody = body;
    return processResult();
  }
};
