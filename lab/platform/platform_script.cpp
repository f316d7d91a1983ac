#include "lab/platform/platform_script.h"

#include <cctype>
#include <functional>
#include <stdexcept>

namespace ferrolab {
namespace {

[[noreturn]] void refuse(const std::string& words) { throw std::invalid_argument(words); }

using Names = std::vector<const char*>;

// A misspelt member would change nothing, and the test would go on with something else than it says.
void allowMembers(const JsonValue& object, const Names& names, const std::string& what) {
  if (!object.IsObject()) refuse(what + " has to be an object");
  for (const auto& entry : object.GetObject()) {
    bool known = false;
    for (const char* name : names) known = known || stringOf(entry.name) == name;
    if (!known) refuse(what + " has an unknown member '" + stringOf(entry.name) + "'");
  }
}

const JsonValue& objectMember(const JsonValue& object, const char* name) {
  const JsonValue* value = member(object, name);
  if (value == nullptr || !value->IsObject()) refuse(std::string("'") + name + "' has to be an object");
  return *value;
}

std::string textOf(const JsonValue& value, const std::string& what) {
  if (!value.IsString()) refuse(what + " has to be a text");
  return stringOf(value);
}

const Names& factorNames() {
  static const Names names{"UP", "OTP", "SMS", "EMAIL", "PF", "SQ", "RESET"};
  return names;
}

bool isLine(const std::string& line) {
  return line == "home" || line == "office" || line == "mobile" || line == "other";
}

Factor readFactor(const std::string& text) {
  const size_t colon = text.find(':');
  Factor factor{text.substr(0, colon), colon == std::string::npos ? "" : text.substr(colon + 1)};
  for (const char* name : factorNames()) {
    const bool lineFits = factor.line.empty() || (factor.name == "PF" && isLine(factor.line));
    if (factor.name == name && lineFits) return factor;
  }
  refuse("'" + text + "' is no factor");
}

Policy readPolicy(const JsonValue& json, const std::string& what) {
  allowMembers(json, {"challenges", "next", "prompts", "answerTypes"}, what);
  Policy policy;
  policy.next = textMember(json, "next");
  policy.prompts = flagMember(json, "prompts", true);
  policy.answerTypes = flagMember(json, "answerTypes", true);
  const JsonValue* challenges = member(json, "challenges");
  if (challenges == nullptr || !challenges->IsArray()) refuse(what + ": 'challenges' has to be a list of lists");
  for (const auto& list : challenges->GetArray()) {
    if (!list.IsArray()) refuse(what + ": 'challenges' has to be a list of lists");
    policy.challenges.emplace_back();
    for (const auto& name : list.GetArray()) {
      const Factor factor = readFactor(textOf(name, what + ": a factor"));
      if (factor.name == "PF" && factor.line.empty()) {
        for (const char* line : {"home", "office", "mobile"}) policy.challenges.back().push_back({"PF", line});
      } else {
        policy.challenges.back().push_back(factor);
      }
    }
  }
  return policy;
}

Privilege readPrivilege(const JsonValue& json, const std::string& what) {
  static const std::map<std::string, Privilege::Access> words{
      {"free", Privilege::Free}, {"not-configured", Privilege::NotConfigured}, {"denied", Privilege::Denied}};
  Privilege privilege;
  if (json.IsString()) {
    const auto word = words.find(stringOf(json));
    if (word == words.end()) refuse(what + " has to be free, not-configured, denied or a list of policies");
    privilege.access = word->second;
    return privilege;
  }
  if (!json.IsArray() || json.Empty()) refuse(what + " has to be free, not-configured, denied or a list of policies");
  privilege.access = Privilege::Proof;
  for (const auto& name : json.GetArray()) privilege.rounds.push_back(textOf(name, what));
  return privilege;
}

User::Redirect readRedirect(const std::string& word) {
  static const std::map<std::string, User::Redirect> words{
      {"never", User::Never}, {"once", User::Once}, {"always", User::Always}};
  const auto found = words.find(word);
  if (found == words.end()) refuse("'redirect' has to be never, once or always");
  return found->second;
}

using Reader = std::function<void(User&, const JsonValue&, const std::string&)>;

Reader textInto(std::string User::*field) {
  return [field](User& user, const JsonValue& json, const std::string& what) { user.*field = textOf(json, what); };
}

void readPhones(User& user, const JsonValue& json, const std::string& what) {
  allowMembers(json, {"home", "office", "mobile", "other"}, what);
  user.phones.clear();
  for (const auto& line : json.GetObject()) user.phones[stringOf(line.name)] = textOf(line.value, what);
}

const std::map<std::string, Reader>& userMembers() {
  static const std::map<std::string, Reader> members{
      {"name", textInto(&User::name)},
      {"uuid", textInto(&User::uuid)},
      {"password", textInto(&User::password)},
      {"question", textInto(&User::question)},
      {"answer", textInto(&User::answer)},
      {"code", textInto(&User::code)},
      {"mail", textInto(&User::mail)},
      {"mobile", textInto(&User::mobile)},
      {"login", textInto(&User::login)},
      {"phones", readPhones},
      {"serverLogin", [](User& u, const JsonValue& v, const std::string& w) { u.serverLogin = readPrivilege(v, w); }},
      {"elevation", [](User& u, const JsonValue& v, const std::string& w) { u.elevation = readPrivilege(v, w); }},
      {"redirect", [](User& u, const JsonValue& v, const std::string& w) { u.redirect = readRedirect(textOf(v, w)); }},
      {"disabled",
       [](User& user, const JsonValue& value, const std::string& what) {
         if (!value.IsBool()) refuse(what + " has to be true or false");
         user.disabled = value.GetBool();
       }},
      {"codeOnApproval",
       [](User& user, const JsonValue& value, const std::string& what) {
         if (!value.IsBool()) refuse(what + " has to be true or false");
         user.codeOnApproval = value.GetBool();
       }},
      {"approveAfterPolls",
       [](User& user, const JsonValue& value, const std::string& what) {
         if (!value.IsInt() || value.GetInt() < 0) refuse(what + " has to be a whole number, not below 0");
         user.approveAfterPolls = value.GetInt();
       }},
  };
  return members;
}

void requirePolicy(const Script& script, const std::string& name, const std::string& who) {
  if (script.policies.count(name) == 0) refuse(who + " names the policy '" + name + "', which is not there");
}

void checkUser(const Script& script, const User& user) {
  const std::string who = "user '" + user.name + "'";
  requirePolicy(script, user.login, who);
  for (const auto* privilege : {&user.serverLogin, &user.elevation}) {
    for (const auto& name : privilege->rounds) requirePolicy(script, name, who);
  }
}

}  // namespace

bool User::has(const Factor& factor) const {
  if (factor.name == "SMS") return !mobile.empty();
  if (factor.name == "EMAIL") return !mail.empty();
  if (factor.name == "PF") return phones.count(factor.line) != 0;
  if (factor.name == "SQ") return !question.empty();
  return true;
}

void mergeUser(Script& script, const JsonValue& json) {
  const std::string name = json.IsObject() ? textMember(json, "name") : "";
  if (name.empty()) refuse("a user has to be an object with a 'name'");
  const auto known = script.users.find(name);
  User user = known == script.users.end() ? User() : known->second;
  for (const auto& entry : json.GetObject()) {
    const auto reader = userMembers().find(stringOf(entry.name));
    const std::string what = "user '" + name + "': '" + stringOf(entry.name) + "'";
    if (reader == userMembers().end()) refuse(what + " is unknown");
    reader->second(user, entry.value, what);
  }
  checkUser(script, user);
  script.users[name] = user;
}

Script readScript(const JsonValue& json) {
  allowMembers(json,
               {"tenant", "version", "machineCookieSeconds", "userCookieSeconds", "codeSeconds", "codeUses", "policies",
                "users", "machines"},
               "the script");
  Script script;
  script.tenant = textMember(json, "tenant", "LAB0001");
  script.version = textMember(json, "version", "1");
  script.machineCookieSeconds = static_cast<int>(numberMember(json, "machineCookieSeconds", 0));
  script.userCookieSeconds = static_cast<int>(numberMember(json, "userCookieSeconds", 0));
  script.codeSeconds = static_cast<int>(numberMember(json, "codeSeconds", 0));
  script.codeUses = static_cast<int>(numberMember(json, "codeUses", 1));
  for (const auto& entry : objectMember(json, "policies").GetObject()) {
    const std::string name = stringOf(entry.name);
    script.policies[name] = readPolicy(entry.value, "policy '" + name + "'");
  }
  for (const auto& [name, policy] : script.policies) {
    if (!policy.next.empty()) requirePolicy(script, policy.next, "policy '" + name + "'");
  }
  const JsonValue* users = member(json, "users");
  if (users == nullptr || !users->IsArray()) refuse("'users' has to be a list");
  for (const auto& user : users->GetArray()) mergeUser(script, user);
  for (const auto& entry : objectMember(json, "machines").GetObject()) {
    std::string name = stringOf(entry.name);
    for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    allowMembers(entry.value, {"mayAct"}, "machine '" + name + "'");
    script.machines[name].mayAct = flagMember(entry.value, "mayAct", true);
  }
  return script;
}

}  // namespace ferrolab
