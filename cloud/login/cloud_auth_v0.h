// The platform's oldest login: at most one required mechanism, any number of optional ones.
#pragma once

#include <string>

#include "base/include/shredder.h"
#include "cloud/include/cloud_auth.h"

// The password of a login with a second factor is kept, and sent by the step that starts that factor.
class CloudAuthV0 : public CloudAuth {
 public:
  CloudAuthV0(const std::string& url, const std::string& restVersion, const std::string& user);

  // AUTH_REQUEST_FAILED when the policy is refused; a redirect is followed once.
  int startAuthentication() override;
  int startAuthentication(const Payload* payload) override;
  // Throws lumo::CloudException "Failed to authenticate password using REST API MultiAuthLogin", the same with
  // "MoveToNextLoginPage", and "REST API for polling returns failure".
  int advanceAuthentication(const std::string& mechanismId, const int& action, const std::string& answer) override;
  int getVersion() override;

 protected:
  void updateUrls() override;
  // 1 when the member "success" of the last reply is the text "True", else 0. Throws as getJsonString.
  int parseAdvanceResult() override;
  // Appends to the challenges. Throws besides std::out_of_range for a message of "OTP", "SMS" or "PF" of one sentence.
  int parsePolicy() override;

  int multiAuthLogin(const lumo::Shredder2& secret, const std::string& nextMechanismId);
  // 1 when the mechanism has moved on; `code` is then what the platform gave, or empty.
  int pollMechanism(const std::string& mechanismId, std::string& code);
  int postAnswer(const std::string& mechanismId, const std::string& answer);

  std::string recId;
  std::string multiAuthLoginUrl;
  std::string moveToNextLoginPageUrl;
  std::string getAuthPolicyUrl;
  lumo::Shredder2 password;
  bool passwordSent = false;

 private:
  void buildUrls(const std::string& base);
  CloudAuthMechanism parseMechanism(const rapidjson::Value& element) const;
};
