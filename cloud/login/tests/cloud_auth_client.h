// A login client without a dialogue of its own: what all versions share.
#pragma once

#include <string>
#include <utility>

#include "cloud/include/cloud_auth.h"

class AuthClient : public CloudAuth {
 public:
  explicit AuthClient(const std::string& url = "https://platform.example.test/")
      : CloudAuth(url, "1.0", "alice@example.test") {}

  int startAuthentication() override { return AUTH_FAILED; }
  int startAuthentication(const Payload*) override { return AUTH_FAILED; }
  int advanceAuthentication(const std::string&, const int&, const std::string&) override { return AUTH_FAILED; }
  int getVersion() override { return get(versionUrl); }

  using CloudAuth::challenges;
  using CloudAuth::cloudUrl;
  using CloudAuth::currentChallenge;
  using CloudAuth::document;
  using CloudAuth::params;
  using CloudAuth::userName;
  using CloudAuth::version;
  using CloudAuth::versionUrl;

  int judge(long status, const std::string& body) {
    httpCode = status;
    responseBody = body;
    return processResult();
  }

 protected:
  void updateUrls() override {}
  int parseAdvanceResult() override { return AUTH_FAILED; }
  int parsePolicy() override { return AUTH_NEXT_CHALLENGE; }
};
