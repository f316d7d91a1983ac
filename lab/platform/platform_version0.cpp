// The oldest login: GetAuthPolicy, MultiAuthLogin, MoveToNextLoginPage.
#include "lab/platform/platform_core.h"

namespace ferrolab {
namespace {

using Names = std::vector<std::string>;

// The first challenge, when it has one factor.
bool hasRequired(const Login& login) { return login.challenges.front().size() == 1; }
bool hasOptional(const Login& login) { return login.challenges.size() > 1 || !hasRequired(login); }
bool requiresPassword(const Login& login) {
  return hasRequired(login) && login.challenges.front().front().factor.name == "UP";
}

const char* messageOf(const std::string& name) {
  if (name == "OTP") return "A request was sent to your device. Approve it or enter its code.";
  if (name == "SMS") return "A text message was sent. Enter its code or click its link.";
  if (name == "PF") return "We call your telephone. Follow what the call says.";
  return "";
}

std::string mechJson(const Policy& policy, const Offer& offer, bool required) {
  JsonObject json;
  json.text("mechId", offer.factor.name).text("required", required ? "True" : "False");
  if (!offer.factor.line.empty()) json.text("fieldLabel", offer.factor.line);
  if (policy.prompts)
    json.text("fieldText", "Use " + offer.factor.name + (offer.factor.line.empty() ? "" : " " + offer.factor.line));
  if (const std::string message = messageOf(offer.factor.name); !message.empty()) json.text("msg", message);
  return json.str();
}

// A client names no line but these three.
std::string lineName(const std::string& line) { return line == "other" ? "" : line; }

Offer* find(Login& login, const std::string& name, const std::string& line) {
  for (auto& offers : login.challenges) {
    for (Offer& offer : offers) {
      if (offer.factor.name == name && lineName(offer.factor.line) == line) return &offer;
    }
  }
  return nullptr;
}

Answer malformed() { return status(400, "Malformed."); }

}  // namespace

Answer PlatformCore::getAuthPolicy(const Call& call) {
  const Strings query = queryOf(call, {"elevate", "user"});
  if (!query) return malformed();
  if (valueOf(*query, "elevate") != "undefined") surprise(call, "'elevate' is '" + valueOf(*query, "elevate") + "'");
  Answer refusal;
  const User* user = knownUser(valueOf(*query, "user"), refusal);
  if (user == nullptr) return refusal;
  if (redirects(call, *user)) return success(JsonObject().text("PodFqdn", podHost).str());
  const Login* login = begin(*user, user->login, call.host, "R");
  if (login == nullptr) return refused("NoFactors", "The user has nothing to answer a challenge with.");
  const Policy& policy = script.policies.at(login->policy);
  JsonArray mechs;
  for (const auto& offers : login->challenges) {
    const bool required = hasRequired(*login) && &offers == &login->challenges.front();
    for (const Offer& offer : offers) mechs.add(mechJson(policy, offer, required));
  }
  JsonObject result;
  if (user->redirect == User::Always) result.text("PodFqdn", podHost);
  result.text("recId", login->id);
  if (!user->question.empty()) result.text("securityquestion", user->question);
  return success(result.raw("mechs", mechs.str()).str());
}

PlatformCore::Continued PlatformCore::continued(const Call& call) {
  Continued found{queryOf(call, {"elevate", "user"}), bodyOf(call), nullptr, malformed()};
  if (!found.query || !found.body) return found;
  found.login = loginOf(call, valueOf(*found.body, "recId"), found.refusal);
  const std::string& user = valueOf(*found.query, "user");
  if (found.login != nullptr && user != found.login->user && !found.login->foreign) {
    surprise(call, "the record is " + found.login->user + "'s, the user " + user);
  }
  return found;
}

Answer PlatformCore::multiAuthLogin(const Call& call) {
  const auto [query, body, login, refusal] = continued(call);
  if (login == nullptr) return refusal;
  if (body->back().first == "UP") return givePassword(call, *login, *body);
  if (body->size() == 2 && body->back().first == "recId" && body->front().first != "nextMechId") {
    return giveAnswer(call, *login, *body);
  }
  if (!expectNames(call, *body, {"nextMechId", "recId"})) return malformed();
  if (body->front().second != "UP") surprise(call, "the first step announces '" + body->front().second + "'");
  login->step = Login::Announced;
  return success();
}

// The password, and with it the start of the mechanism that comes next.
Answer PlatformCore::givePassword(const Call& call, Login& login, const Pairs& body) {
  const std::string& next = valueOf(body, "nextMechId");
  const bool hasNext = body.front().first == "nextMechId";
  const Names names = !hasNext       ? Names{"recId", "UP"}
                      : next == "PF" ? Names{"nextMechId", "recId", "PFType", "UP"}
                                     : Names{"nextMechId", "recId", "UP"};
  if (!expectNames(call, body, names)) return malformed();
  if (login.step != Login::Moved) {
    surprise(call, "a password before the two steps that announce it");
    return refused("OutOfOrder", "The password is not due.");
  }
  login.step = Login::Begun;
  const User& user = script.users.at(login.user);
  const std::string& password = valueOf(body, "UP");
  if (requiresPassword(login) ? password.empty() || password != user.password : !password.empty()) {
    return refused("WrongPassword", "The password is wrong.");
  }
  if (!hasNext) {
    if (hasOptional(login)) {
      surprise(call, "a password alone where a further mechanism is due");
      return refused("OutOfOrder", "A further mechanism is due.");
    }
    return loggedIn(login);
  }
  Offer* offer = find(login, next, valueOf(body, "PFType"));
  if (offer == nullptr) {
    surprise(call, "no mechanism '" + next + "' with the line '" + valueOf(body, "PFType") + "' was offered");
    return refused("UnknownMechanism", "The mechanism was not offered.");
  }
  offer->state = Offer::Asked;
  login.started = offer;
  login.step = Login::PasswordGiven;
  return success();
}

Answer PlatformCore::loggedIn(const Login& login) {
  Answer answer = success();
  answer.headers.push_back(cookieLine(login.user, false));
  m_logins.erase(login.id);
  return answer;
}

Answer PlatformCore::giveAnswer(const Call& call, Login& login, const Pairs& body) {
  const auto& [name, answer] = body.front();
  if (login.step != Login::PasswordGiven || login.started->factor.name != name) {
    surprise(call, "an answer to " + name + ", which was not started");
    return refused("NotStarted", "The mechanism was not started.");
  }
  const User& user = script.users.at(login.user);
  const Offer& offer = *login.started;
  const bool approved = offer.state == Offer::Approved && answer == offer.code;
  if (!approved && !answers(user, offer, answer)) return refused("WrongAnswer", "The answer is wrong.");
  return loggedIn(login);
}

Answer PlatformCore::moveToNextLoginPage(const Call& call) {
  const auto [query, body, login, refusal] = continued(call);
  if (login == nullptr) return refusal;
  if (body->size() == 2) {
    return expectNames(call, *body, {"nextMechId", "recId"}) ? pollRecord(call, *login, *body) : malformed();
  }
  if (!expectNames(call, *body, {"nextMechId", "recId", "user"})) return malformed();
  if (body->front().second != "UP") surprise(call, "the second step names '" + body->front().second + "'");
  if (body->back().second != valueOf(*query, "user")) surprise(call, "another user in the body than in the parameters");
  if (login->step != Login::Announced) {
    surprise(call, "the second step before the first");
    return refused("OutOfOrder", "The page is not due.");
  }
  login->step = Login::Moved;
  return success();
}

Answer PlatformCore::pollRecord(const Call& call, Login& login, const Pairs& body) {
  const std::string& name = body.front().second;
  if (login.step != Login::PasswordGiven || login.started->factor.name != name) {
    surprise(call, "a poll of " + name + ", which was not started");
    return refused("NotStarted", "The mechanism was not started.");
  }
  const User& user = script.users.at(login.user);
  Offer& offer = *login.started;
  if (!isText(offer)) poll(user, offer);
  if (offer.state == Offer::Denied) {
    m_logins.erase(login.id);
    return refused("Denied", "The request was denied.");
  }
  JsonObject result;
  if (offer.state != Offer::Approved) return success(result.text("status", "Pending").str());
  result.text("status", "Move");
  if (user.codeOnApproval) {
    if (offer.code.empty()) offer.code = nextId("MOVE-");
    result.text("code", offer.code);
  }
  return success(result.str());
}

}  // namespace ferrolab
