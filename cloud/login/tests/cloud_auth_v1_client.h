// The login of version 1.0, open to tests.
#pragma once

#include <string>

#include "cloud/login/cloud_auth_v1.h"

class V1Client : public CloudAuthV1 {
 public:
  static constexpr const char* VERSION = "1.0";

  explicit V1Client(const std::string& url = "https://platform.example.test/", const std::string& restVersion = VERSION,
                    const std::string& user = "alice@example.test")
      : CloudAuthV1(url, restVersion, user) {}

  using CloudAuthV1::advanceUrl;
  using CloudAuthV1::certStore;
  using CloudAuthV1::challenges;
  using CloudAuthV1::curl;
  using CloudAuthV1::currentChallenge;
  using CloudAuthV1::document;
  using CloudAuthV1::getAnswerPrompt;
  using CloudAuthV1::getSelectText;
  using CloudAuthV1::parseAdvanceResult;
  using CloudAuthV1::parsePolicy;
  using CloudAuthV1::podHost;
  using CloudAuthV1::sessionId;
  using CloudAuthV1::startUrl;
  using CloudAuthV1::tenantId;
  using CloudAuthV1::updateUrls;

  // As if the platform had replied so.
  int judge(const std::string& body) {
    httpCode = 200;
    responseBody = body;
    return processResult();
  }
};
