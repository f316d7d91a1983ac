// The client of a login at the platform: a dialogue of challenges, which the caller leads.
#pragma once

#include <rapidjson/document.h>

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cloud/include/cloud_object.h"

namespace lumo {
class Logger;
}

// What came of a step of the dialogue.
enum CloudAuthStatus : std::int32_t {
  AUTH_FAILED = 0,            // the step failed
  AUTH_DONE = 1,              // the login is complete
  AUTH_NEXT_CHALLENGE = 2,    // go on with nextChallenge
  AUTH_PENDING = 3,           // an answer out of band is awaited: poll
  AUTH_REQUEST_FAILED = 4,    // the request for the policy failed
  AUTH_NOT_CONFIGURED = 5,    // the platform has no authentication profile for this use
  AUTH_NO_MACHINE_ACCESS = 6  // this machine cannot act for the user
};

// What advanceAuthentication is to do. Any other value acts as ACTION_ANSWER.
enum CloudAuthAction : std::int32_t { ACTION_ANSWER = 0, ACTION_POLL = 1, ACTION_START_OOB = 2 };

// Whose session a cookie holds. Any other value means the user's.
enum CloudCookieKind : std::int32_t { COOKIE_MACHINE = 0, COOKIE_USER = 1 };

// For what a user has to prove who it is. Any other value means a login.
enum CloudAuthProfile : std::int32_t { PROFILE_LOGIN = 0, PROFILE_ELEVATION = 1 };

// How a mechanism is answered: `CloudAuthMechanism::answerType`.
enum CloudAnswerType : std::int32_t {
  ANSWER_TEXT = 0,         // a text
  ANSWER_OOB = 1,          // start it, then poll: the answer comes out of band
  ANSWER_TEXT_OOB = 2,     // start it, then either a text or an answer out of band
  ANSWER_REDIRECT = 3,     // by a redirect
  ANSWER_ENTITY = 4,       // one data entity
  ANSWER_ENTITY_LIST = 5,  // a list of data entities
  ANSWER_UNKNOWN = 6
};

// One way to answer a challenge. All texts are meant for the user's eyes.
struct CloudAuthMechanism {
  std::string name;          // the platform's: "UP", "OTP", "SQ", "EMAIL", "SMS", "PF", "RESET", or one not known here
  std::string mechanismId;   // what advanceAuthentication takes
  std::string selectText;    // its line in a list to choose from
  std::string answerPrompt;  // to be shown once it is chosen
  std::string message;       // a further text, often empty
  std::int32_t answerType = ANSWER_UNKNOWN;
  bool outOfBand = false;  // to be started before it is answered or polled
};

struct CloudAuthChallenge {
  std::string name;
  bool required = false;  // only stored: nextChallenge gives each challenge until it is done
  bool done = false;
  std::string selectedMechanism;  // the mechanismId by which it was done
  std::vector<CloudAuthMechanism> mechanisms;
};

// A client lives for one login and belongs to one thread at a time. The caller's order of work:
//
//   1. Make it with getHandler and borrow a connection with getCurl.
//   2. startAuthentication.
//   3. While the result is AUTH_NEXT_CHALLENGE: nextChallenge; with 0 the dialogue holds no further challenge. With 1,
//      let the user choose by `selectText` and show `answerPrompt`. A mechanism that is not `outOfBand` is answered
//      with ACTION_ANSWER. One that is, is started with ACTION_START_OOB; then, on AUTH_PENDING, polled with
//      ACTION_POLL and an empty answer until the result changes, or answered with ACTION_ANSWER by the code that the
//      user typed. Nothing here sleeps, waits or counts: pace and limit of the polling are the caller's.
//   4. AUTH_DONE ends the login; AUTH_FAILED and the values from AUTH_REQUEST_FAILED on end it too.
//   5. Delete the client, which gives the connection back.
//
// The connection stays occupied from getCurl on, and the pool may take it back after its limit
// `lumod.client.idle.timeout`: no login takes longer. Failures of the protocol are lumo::CloudException or a
// status; failures of a transfer are lumo::CurlException. Logs by "cloud.object".
class CloudAuth : public CloudBase {
 public:
  // Names and values that the platform is told along with a privileged action.
  using Payload = std::list<std::pair<std::string, std::string>>;

  // `url` is the platform's and ends in "/"; `user` is who logs in.
  CloudAuth(const std::string& url, std::string restVersion, const std::string& user);

  // 1 for status 200 and a body whose member "success" is the boolean true, else 0; the platform's words are then in
  // the log at level 1. The body of a 200 becomes the document, null when it is no JSON (or a million levels deep);
  // with another status it stays.
  int processResult() override;
  ~CloudAuth() override = default;

 protected:
  // The URLs after a redirect to `podHost`.
  virtual void updateUrls() = 0;
  // Reads the reply of a step; what it returns is the version's own.
  virtual int parseAdvanceResult() = 0;
  // Reads the challenges of a reply. Returns AUTH_NEXT_CHALLENGE; throws lumo::CloudException "Errors in parsing ...".
  virtual int parsePolicy() = 0;

 public:
  // The session to go on with, by CloudCookieKind. Only the newest version has sessions to keep: the others do nothing
  // and have none.
  virtual void setCookie(const int& kind, const std::string& value);
  virtual std::string getCookie(const int& kind);

  // Both return a CloudAuthStatus. A version without privileged actions ignores the payload, which may be null.
  virtual int startAuthentication() = 0;
  virtual int startAuthentication(const Payload* payload) = 0;
  // One step of the open challenge, by CloudAuthAction. Returns a CloudAuthStatus.
  virtual int advanceAuthentication(const std::string& mechanismId, const int& action, const std::string& answer) = 0;
  // Asks the platform for its version. 1 when it answers with success, else 0.
  virtual int getVersion() = 0;

  void setUserName(const std::string& user);
  // Opens the first challenge that is not done: 1 and a copy of it in `out`. 0 where there is none.
  int nextChallenge(CloudAuthChallenge& out);
  // The open challenge; part of this client. Throws lumo::CloudException "Failed to locate the current challenge in
  // challenge list."
  CloudAuthChallenge* findCurrentChallenge();
  // Part of `challenge`. Throws lumo::CloudException "Failed to locate the mechanism '%s' in current challenge."
  static CloudAuthMechanism* findMechanism(const std::string& mechanismId, CloudAuthChallenge& challenge);
  // Notes how the open challenge was answered; with none open nothing happens.
  void markChallengeDone(const std::string& mechanismId, bool done);

  // What processResult makes of the body of a status 200.
  static int readReply(const boost::shared_ptr<lumo::Logger>& log, const std::string& body,
                       rapidjson::Document& document);
  // The string member of that name; `key` must match to the byte, the first one of a name counts. Throws
  // lumo::CloudException "Errors in parsing result from Json: '%s' does NOT exist"; `out` then stays.
  static void getJsonString(const rapidjson::Value& object, std::string_view key, std::string& out);
  // The same, empty where there is none.
  static void getJsonStringOptional(const rapidjson::Value& object, std::string_view key, std::string& out);
  // The member of that name, part of `object`; where there is none, a null value that lives as long as the process.
  static const rapidjson::Value& member(const rapidjson::Value& object, std::string_view key);
  // Replaces `out` by what the text says, by null when it is no JSON, or deeper or longer than JsonLimits.
  static void parseJson(rapidjson::Document& out, std::string_view text);
  // Replaces `out` by compact text, members in their order, however deep the value is.
  static void jsonToString(std::string& out, const rapidjson::Value& object);

 protected:
  // Logs the headers X-MRV-* of the last reply at level 1.
  void dumpMrvHeader();
  // Takes over the pod that the last reply redirects to, and its URLs. False where it names none. Throws
  // lumo::CloudException "The platform leads the login to '%s', which is no host name" for one with user, port or path.
  bool turnToPod();

  std::string userName;
  std::string version;
  std::string versionUrl;
  std::string currentChallenge;  // its name, empty when none is open
  std::string securityQuestion;
  std::vector<CloudAuthChallenge> challenges;  // in the order of the policy
  Parameters params;
  rapidjson::Document document;  // the body of the last reply with status 200
};
