// The platform behind its door: sessions, cookies, codes, and what each endpoint makes of a request. Without sockets,
// and for one thread at a time: the simulator holds a lock around it.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lab/platform/platform_script.h"

namespace ferrolab {

using TimePoint = std::chrono::steady_clock::time_point;
using Pairs = std::vector<std::pair<std::string, std::string>>;

// The value of the first pair of that name, empty when there is none.
const std::string& valueOf(const Pairs& pairs, const char* name);

// One request, taken apart.
struct Call {
  int connection = 0;
  std::string method;
  std::string path;   // without the first slash
  std::string query;  // raw
  bool hasQuery = false;
  Pairs headers;
  std::string body;
  std::vector<std::string> cookies;  // values of ".ASPXAUTH"
  std::string host;

  // How often a header comes, and the last one's value.
  int count(const char* name, std::string& value) const;
  std::string where() const { return method + " " + path; }
};

// What is answered.
struct Answer {
  int status = 200;
  std::string body;
  std::vector<std::string> headers;
};

struct Cookie {
  std::string owner;
  bool isMachine = false;
  std::optional<TimePoint> ends;
};

// A factor as it was offered, and what has become of it.
struct Offer {
  enum State { New, Asked, Approved, Denied };
  std::string id;
  Factor factor;
  State state = New;
  int polls = 0;
  std::string code;  // version 0: what approval gave out
};

// A login in progress, in either version.
struct Login {
  enum Step { Begun, Announced, Moved, PasswordGiven };

  std::string id;
  std::string user;
  std::string host;         // at which it began
  std::string challengeId;  // of the privileged action that it is for
  std::string policy;
  std::vector<std::vector<Offer>> challenges;
  size_t current = 0;
  bool foreign = false;  // a fault gave its id to somebody else
  // Version 0: the first challenge, if it has one factor, is the required one.
  Step step = Begun;
  Offer* started = nullptr;
};

// A privileged action that waits for proof.
struct Proof {
  std::string user;
  std::string endpoint;
  size_t round = 0;
  bool given = false;
  std::string method;
  std::string payload;
  bool foreign = false;
};

struct Code {
  std::string machine;
  int usesLeft = 1;
  std::optional<TimePoint> ends;
};

class PlatformCore {
 public:
  PlatformCore(Script first, std::function<TimePoint()> clock);

  // The endpoint's answer. Records what should not have been sent.
  Answer answer(const Call& call);
  // What every request has to look like, whatever becomes of it.
  void checkHeaders(const Call& call);
  // A path, or the last part of one; the connector's page is one too.
  static bool isEndpoint(const std::string& path);

  // As at the start, with the script that was set last.
  void reset();
  void setScript(Script next);
  std::string mintCode(const std::string& machine);
  std::string siteCheck(const std::string& remoteUser);
  void expire(bool machines, bool users);
  // Everything that the user is asked out of band now is decided. How many questions those were.
  int decide(const std::string& user, Offer::State state);
  // The id of another login, record or proof of the kind that the endpoint gives out; empty when there is none.
  std::string foreignId(const std::string& own);
  void surprise(const Call& call, const std::string& words);

  std::string podHost;
  bool usesTls = true;
  std::function<TimePoint()> now;
  std::chrono::steady_clock::duration clockAhead{};
  Script script;  // with what commands and new passwords have changed
  std::vector<std::string> surprises;
  std::vector<std::string> events;
  long eventCount = 0;
  bool keepsRecord = true;

 private:
  using Strings = std::optional<Pairs>;
  struct Endpoint {
    const char* path;
    const char* methods;  // separated by a blank
    Answer (PlatformCore::*operation)(const Call&);
  };
  static const std::array<Endpoint, 12>& endpoints();

  TimePoint time() const { return now() + clockAhead; }
  std::optional<TimePoint> endOf(int seconds) const;
  std::string nextId(const char* kind);
  bool gaveOut(const std::string& id) const;
  static std::string machineName(const std::string& principal);

  // Reading of requests; each tells of what surprises it and gives nothing then.
  Strings bodyOf(const Call& call);
  Strings queryOf(const Call& call, const std::vector<std::string>& names);
  bool expectNames(const Call& call, const Pairs& body, const std::vector<std::string>& names);
  bool expectNoQuery(const Call& call);

  // Cookies.
  std::string cookieLine(const std::string& owner, bool isMachine);
  const Cookie* holder(const Call& call, bool isMachine, bool alone, Answer& refusal);

  // Logins.
  const User* knownUser(const std::string& name, Answer& refusal) const;
  Login* begin(const User& user, const std::string& policy, const std::string& host, const char* kind);
  Login* loginOf(const Call& call, const std::string& id, Answer& refusal);
  // A POST that goes on with a login of version 0, which is null where it is refused.
  struct Continued {
    Strings query, body;
    Login* login;
    Answer refusal;
  };
  Continued continued(const Call& call);
  bool redirects(const Call& call, const User& user) const;
  std::string packageOf(const Login& login, const Call& call, const char* summary) const;
  bool answers(const User& user, const Offer& offer, const std::string& answer);
  static bool isText(const Offer& offer);
  void poll(const User& user, Offer& offer);
  Answer passed(Login& login, const Call& call);

  // Endpoints.
  Answer version(const Call& call);
  Answer getAuthPolicy(const Call& call);
  Answer multiAuthLogin(const Call& call);
  Answer giveAnswer(const Call& call, Login& login, const Pairs& body);
  Answer givePassword(const Call& call, Login& login, const Pairs& body);
  Answer loggedIn(const Login& login);
  Answer moveToNextLoginPage(const Call& call);
  Answer pollRecord(const Call& call, Login& login, const Pairs& body);
  Answer startAuthentication(const Call& call);
  Answer advanceAuthentication(const Call& call);
  Answer advance(const Call& call, Login& login, const Pairs& body);
  Answer sso(const Call& call);
  Answer startImpersonate(const Call& call);
  Answer privilege(const Call& call);
  Answer secondVisit(const Call& call, const User& user, const Privilege& asked, const std::string& id);
  Answer askProof(const Call& call, const User& user, size_t round);
  Answer startChallenge(const Call& call);
  Answer logPrivEvent(const Call& call);

  Script m_first;
  long m_ids = 0;
  std::map<std::string, Cookie> m_cookies;
  std::map<std::string, Login> m_logins;
  std::map<std::string, Proof> m_proofs;
  std::map<std::string, Code> m_codes;
};

// {"success":true,"Result":...}
Answer success(const std::string& result = "{}");
// 200 with success false and these members; `result` is JSON.
Answer refused(const std::string& errorId, const std::string& message, const std::string& result = "null");
Answer status(int code, const std::string& message);

}  // namespace ferrolab
