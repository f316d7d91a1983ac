// The platform's newest login: this machine signs in by Kerberos, acts for the user and asks for proof where the
// platform wants some.
#pragma once

#include <cstdint>
#include <string>

#include "cloud/login/cloud_auth_v1.h"

class CloudAuthV1S : public CloudAuthV1 {
 public:
  // `id` is handed to the impersonation and may be empty; `iwa` is the connector's URL, ends in "/" and may be empty;
  // `servicePrincipal` is its name; `profile` a CloudAuthProfile, PROFILE_LOGIN when null.
  CloudAuthV1S(const std::string& url, const std::string& restVersion, const std::string& user, const std::string& id,
               const std::string& iwa, const std::string& servicePrincipal, const int* profile);
  ~CloudAuthV1S() override;

  void setCookie(const int& kind, const std::string& value) override;
  std::string getCookie(const int& kind) override;
  int startAuthentication() override;
  // AUTH_DONE: the action may go ahead without proof. AUTH_NEXT_CHALLENGE: lead the dialogue. Throws what
  // getMachineAuthToken, the impersonation and the transfers throw.
  int startAuthentication(const Payload* payload) override;
  int advanceAuthentication(const std::string& mechanismId, const int& action, const std::string& answer) override;
  int getVersion() override;

  // Signs the machine in: 1 when that is done, 0 when the platform refuses the connector's code. Throws
  // lumo::CloudIwaException (result code 9) when the connector gives none, CurlException (8) when a transfer fails.
  int getMachineAuthToken();

 protected:
  // The one-time code of the connector: 1 and `otc`, or 0 and `errorMessage`. The connection goes straight to the
  // connector for this one exchange, and serves the platform again afterwards unless the transfer throws.
  int siteCheck(std::string& otc, std::string& errorMessage);
  // The machine's cookie for the code. 1 also when the platform sets none.
  int sso(const std::string& otc);
  // The user's cookie for the machine's.
  int startImpersonate();
  // Asks whether the action may go ahead: 1 for yes; the outputs then stay as they are.
  int startMfa(int& status, std::string& errorId, std::string& reason, const bool& withChallenge,
               const Payload* newPayload);
  int startChallenge();

  std::string machineCookie;
  std::string userCookie;
  std::string iwaUrl;
  std::string spn;
  std::int32_t authProfileType;
  std::string challengeId;
  std::string startChallengeUrl;
  std::string elevationUrl;
  std::string mfaLoginUrl;
  std::string startImpersonateUrl;
  std::string ssoUrl;
  std::string siteCheckUrl;
  std::string payload;  // JSON text
  std::string uuid;

 private:
  // What the connector's last answer holds: 1 and `otc`, or 0 and `errorMessage`. Throws as getJsonString.
  int readCode(std::string& otc, std::string& errorMessage);
  // siteCheck with the failures that getMachineAuthToken promises.
  int askConnector(std::string& otc, std::string& errorMessage);
  // A cookie of the user's by that of the machine, which is made anew when the platform refuses it. False, and the log
  // says why, when the machine cannot act for the user.
  bool makeUserCookie();
  // What a refusal with status 200 comes to.
  int decide(const std::string& errorId, const std::string& reason);
  bool wantsProof(const std::string& errorId) const;
  int visitEndpoint(bool withChallenge, bool sendsPayload);
};
