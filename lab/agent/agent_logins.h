// The logins that are open at this agent: each belongs to one request at a time.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "cloud/include/cloud_auth.h"

// Where a login stands after a step. A login is over, and forgotten, once it neither has a challenge nor is pending.
struct LoginStep {
  int login = 0;
  int status = AUTH_FAILED;                     // a CloudAuthStatus
  std::optional<CloudAuthChallenge> challenge;  // to be answered
};

// Any thread. Requests for one login run one after the other, those for several side by side. What the cloud's clients
// throw comes through: it ends a login that begins, and leaves one that goes on as it was. Its own end gives up all
// that are open; no request runs then.
class AgentLogins {
 public:
  static constexpr std::size_t MOST = 50;

  // Begins one. Throws Base_Exception "There are %zu logins open already; end one." where that is MOST.
  LoginStep begin(const std::string& user, const std::string& uuid, int profile, const CloudAuth::Payload& payload);
  // One step, by CloudAuthAction. Throws Base_Exception "There is no login %d.", as end does.
  LoginStep answer(int login, const std::string& mechanism, int action, const std::string& text);
  // Gives one up and its connection back.
  void end(int login);

 private:
  struct Login {
    std::mutex mutex;                   // of what follows, and held while a request works on it
    std::unique_ptr<CloudAuth> client;  // null when the login is over
  };
  using Handle = std::shared_ptr<Login>;

  Handle find(int login);
  LoginStep reached(int login, Login& open, int status);
  void forget(int login);

  std::mutex m_mutex;  // of what follows
  std::map<int, Handle> m_open;
  int m_last = 0;
};
