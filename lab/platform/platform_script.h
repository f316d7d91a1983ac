// The tenant that the simulator plays: its users, their policies, the machines. Read from a script in JSON.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "lab/platform/platform_json.h"

namespace ferrolab {

// One way of proving who one is; `line` is "home", "office", "mobile" or "other" for "PF", else empty.
struct Factor {
  std::string name;
  std::string line;
};

struct Policy {
  std::vector<std::vector<Factor>> challenges;
  std::string next;         // the policy of a new package, which its end leads to
  bool prompts = true;      // replies hold the platform's own texts
  bool answerTypes = true;  // and "AnswerType"
};

// What a user's privileged action asks for.
struct Privilege {
  enum Access { Free, Proof, NotConfigured, Denied };
  Access access = Free;
  std::vector<std::string> rounds;  // policies, one after the other
};

struct User {
  enum Redirect { Never, Once, Always };  // Always: the pod names itself again

  std::string name;
  std::string uuid;
  std::string password;
  std::string question;
  std::string answer;
  std::string code;  // what OTP, SMS and EMAIL are answered with
  std::string mail;
  std::string mobile;
  std::map<std::string, std::string> phones;  // line -> number
  std::string login;                          // policy
  Privilege serverLogin;
  Privilege elevation;
  Redirect redirect = Never;
  bool disabled = false;
  int approveAfterPolls = 0;   // 0: only by command
  bool codeOnApproval = true;  // version 0: "Move" comes with a "code"

  bool has(const Factor& factor) const;
};

struct Machine {
  bool mayAct = true;
};

struct Script {
  std::string tenant;
  std::string version;
  int machineCookieSeconds = 0;  // 0: for ever
  int userCookieSeconds = 0;
  int codeSeconds = 0;
  int codeUses = 1;
  std::map<std::string, Policy> policies;
  std::map<std::string, User> users;
  std::map<std::string, Machine> machines;  // names in upper case
};

// All throw std::invalid_argument with what is wrong and where.
Script readScript(const JsonValue& json);
// Changes the members that are there; adds the user where there is none of that name.
void mergeUser(Script& script, const JsonValue& json);

}  // namespace ferrolab
