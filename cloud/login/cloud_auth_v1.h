// The platform's login with a session: one mechanism answers each challenge, through a single endpoint.
#pragma once

#include <string>

#include "cloud/include/cloud_auth.h"

class CloudAuthV1 : public CloudAuth {
 public:
  CloudAuthV1(const std::string& url, const std::string& restVersion, const std::string& user);

  // Throws lumo::CloudException "Failed to startAuthentication". A redirect is followed once; AUTH_REQUEST_FAILED when
  // it leads to a refusal.
  int startAuthentication() override;
  int startAuthentication(const Payload* payload) override;
  int advanceAuthentication(const std::string& mechanismId, const int& action, const std::string& answer) override;
  int getVersion() override;

 protected:
  static constexpr const char* POLICY_FORMAT = "1.0";  // the only one that is understood

  void updateUrls() override;
  // The status that the member "Summary" of the last reply means. Throws as getJsonString and parsePolicy.
  int parseAdvanceResult() override;
  // Replaces the challenges. The session is the reply's even when this throws; a challenge that cannot be read leaves
  // those before it.
  int parsePolicy() override;

  // The texts of a mechanism for the user's eyes: the platform's own, or else what its name says. The prompt throws as
  // getJsonString for "PF" without its number.
  static std::string getSelectText(const std::string& name, const rapidjson::Value& mechanism);
  static std::string getAnswerPrompt(const std::string& name, const rapidjson::Value& mechanism);

  std::string tenantId;
  std::string sessionId;
  std::string startUrl;
  std::string advanceUrl;

 private:
  static CloudAuthMechanism parseMechanism(const rapidjson::Value& element);
  static CloudAuthChallenge parseChallenge(const rapidjson::Value& element);
};
