// The login with a session: StartAuthentication, AdvanceAuthentication; and what the other flows share with it.
#include <algorithm>

#include "lab/platform/platform_core.h"

namespace ferrolab {
namespace {

struct Texts {
  const char* name;
  const char* select;
  const char* chosen;
  const char* answerType;
};

constexpr Texts TEXTS[] = {
    {"UP", "Password", "Enter your password:", "Text"},
    {"OTP", "Mobile Authenticator", "Approve the request on your device or enter the code.", "StartTextOob"},
    {"SMS", "Text message", "We sent you a text message; enter its code!", "StartTextOob"},
    {"EMAIL", "Email", "We sent you an email, click its link", "StartOob"},
    {"PF", "Phone call", "We call you; answer and press #?", "StartOob"},
    {"SQ", "Security question", "Answer your security question", "Text"},
    {"RESET", "New password", "Choose a new password", "Text"},
};

const Texts& textsOf(const std::string& name) {
  for (const Texts& texts : TEXTS) {
    if (name == texts.name) return texts;
  }
  return TEXTS[0];
}

std::string lastFour(const std::string& number) {
  return number.substr(number.size() - std::min<size_t>(4, number.size()));
}

std::string mechanismJson(const User& user, const Policy& policy, const Offer& offer) {
  const Texts& texts = textsOf(offer.factor.name);
  JsonObject json;
  if (policy.answerTypes) json.text("AnswerType", texts.answerType);
  json.text("Name", offer.factor.name).text("MechanismId", offer.id);
  if (policy.prompts) json.text("PromptSelectMech", texts.select).text("PromptMechChosen", texts.chosen);
  if (offer.factor.name == "EMAIL") json.text("PartialAddress", user.mail.substr(user.mail.find('@') + 1));
  if (offer.factor.name == "SMS") json.text("PartialDeviceAddress", lastFour(user.mobile));
  if (offer.factor.name == "PF") json.text("PartialPhoneNumber", lastFour(user.phones.at(offer.factor.line)));
  if (offer.factor.name == "SQ") json.text("Question", user.question);
  return json.str();
}

std::string summary(const char* word) { return JsonObject().text("Summary", word).str(); }

}  // namespace

const User* PlatformCore::knownUser(const std::string& name, Answer& refusal) const {
  const auto user = script.users.find(name);
  if (user == script.users.end()) {
    refusal = refused("UnknownUser", "The user is unknown.");
    return nullptr;
  }
  if (user->second.disabled) {
    refusal = refused("UserDisabled", "The user is disabled.");
    return nullptr;
  }
  return &user->second;
}

// Null when the user has nothing that one of the challenges asks for.
Login* PlatformCore::begin(const User& user, const std::string& policy, const std::string& host, const char* kind) {
  Login login;
  login.id = nextId(kind);
  login.user = user.name;
  login.host = host;
  login.policy = policy;
  for (const auto& factors : script.policies.at(policy).challenges) {
    std::vector<Offer> offers;
    for (const Factor& factor : factors) {
      if (!user.has(factor)) continue;
      Offer offer;
      offer.id = login.id + "." + std::to_string(login.challenges.size()) + "." + factor.name;
      if (!factor.line.empty()) offer.id += "_" + factor.line;
      offer.factor = factor;
      offers.push_back(offer);
    }
    if (offers.empty()) return nullptr;
    login.challenges.push_back(std::move(offers));
  }
  Login& kept = m_logins[login.id];
  kept = std::move(login);
  return &kept;
}

bool PlatformCore::redirects(const Call& call, const User& user) const {
  return user.redirect != User::Never && call.host != podHost;
}

Login* PlatformCore::loginOf(const Call& call, const std::string& id, Answer& refusal) {
  const auto found = m_logins.find(id);
  if (found == m_logins.end()) {
    refusal = refused("UnknownSession", "The session is unknown or over.");
    if (!gaveOut(id)) surprise(call, "nobody gave out the session or record '" + id + "'");
    return nullptr;
  }
  Login& login = found->second;
  if (login.host != call.host && !login.foreign) {
    surprise(call, "the login began at " + login.host + " and goes on at " + call.host);
  }
  return &login;
}

std::string PlatformCore::packageOf(const Login& login, const Call& call, const char* word) const {
  const User& user = script.users.at(login.user);
  const Policy& policy = script.policies.at(login.policy);
  JsonArray challenges;
  for (const auto& offers : login.challenges) {
    JsonArray mechanisms;
    for (const Offer& offer : offers) mechanisms.add(mechanismJson(user, policy, offer));
    challenges.add(JsonObject().raw("Mechanisms", mechanisms.str()).str());
  }
  JsonObject result;
  if (word != nullptr) result.text("Summary", word);
  if (user.redirect == User::Always && call.host == podHost) result.text("PodFqdn", podHost);
  result.text("SessionId", login.id).text("TenantId", script.tenant).text("Version", "1.0");
  return result.raw("Challenges", challenges.str()).str();
}

Answer PlatformCore::startAuthentication(const Call& call) {
  const Strings body = bodyOf(call);
  if (!expectNoQuery(call) || !body || !expectNames(call, *body, {"User", "Version"})) return status(400, "Malformed.");
  if (valueOf(*body, "Version") != "1.0") surprise(call, "the version is '" + valueOf(*body, "Version") + "'");
  Answer refusal;
  const User* user = knownUser(valueOf(*body, "User"), refusal);
  if (user == nullptr) return refusal;
  if (redirects(call, *user)) return success(JsonObject().text("PodFqdn", podHost).str());
  const Login* login = begin(*user, user->login, call.host, "S");
  if (login == nullptr) return refused("NoFactors", "The user has nothing to answer a challenge with.");
  return success(packageOf(*login, call, nullptr));
}

Answer PlatformCore::advanceAuthentication(const Call& call) {
  const Strings body = bodyOf(call);
  if (!expectNoQuery(call) || !body) return status(400, "Malformed.");
  const std::string& action = valueOf(*body, "Action");
  if (action != "Answer" && action != "Poll" && action != "StartOOB") {
    surprise(call, "the action is '" + action + "'");
    return status(400, "Malformed.");
  }
  std::vector<std::string> names{"Action", "MechanismId", "SessionId", "TenantId"};
  if (action == "Answer") names.insert(names.begin() + 1, "Answer");
  if (!expectNames(call, *body, names)) return status(400, "Malformed.");
  if (valueOf(*body, "TenantId") != script.tenant)
    surprise(call, "another tenant, '" + valueOf(*body, "TenantId") + "'");
  Answer refusal;
  Login* login = loginOf(call, valueOf(*body, "SessionId"), refusal);
  if (login == nullptr) return refusal;
  if (!login->challengeId.empty()) {
    const Cookie* cookie = holder(call, false, true, refusal);
    if (cookie == nullptr) return refusal;
    if (cookie->owner != login->user) {
      if (!login->foreign) surprise(call, "the session is " + login->user + "'s, the cookie " + cookie->owner + "'s");
      return status(401, "Not your session.");
    }
  }
  return advance(call, *login, *body);
}

bool PlatformCore::isText(const Offer& offer) {
  return offer.factor.name == "UP" || offer.factor.name == "SQ" || offer.factor.name == "RESET";
}

// Whether the answer is the right one. A new password is taken over.
bool PlatformCore::answers(const User& user, const Offer& offer, const std::string& answer) {
  if (offer.factor.name == "UP") return !answer.empty() && answer == user.password;
  if (offer.factor.name == "SQ") return !answer.empty() && answer == user.answer;
  if (offer.factor.name == "RESET") {
    if (answer.empty()) return false;
    script.users.at(user.name).password = answer;
    return true;
  }
  return offer.factor.name != "PF" && !user.code.empty() && answer == user.code;
}

void PlatformCore::poll(const User& user, Offer& offer) {
  ++offer.polls;
  if (offer.state == Offer::Asked && user.approveAfterPolls > 0 && offer.polls >= user.approveAfterPolls) {
    offer.state = Offer::Approved;
  }
}

// The challenge is answered: the next one, a new package, or the end.
Answer PlatformCore::passed(Login& login, const Call& call) {
  if (++login.current < login.challenges.size()) return success(summary("StartNextChallenge"));
  const Login over = std::move(m_logins.extract(login.id).mapped());
  if (const std::string& next = script.policies.at(over.policy).next; !next.empty()) {
    Login* more = begin(script.users.at(over.user), next, call.host, "S");
    if (more == nullptr) return refused("NoFactors", "The user has nothing to answer a challenge with.");
    more->challengeId = over.challengeId;
    return success(packageOf(*more, call, "NewPackage"));
  }
  if (!over.challengeId.empty()) {
    if (const auto proof = m_proofs.find(over.challengeId); proof != m_proofs.end()) proof->second.given = true;
    return success(summary("Success"));
  }
  Answer answer = success(summary("LoginSuccess"));
  answer.headers.push_back(cookieLine(over.user, false));
  return answer;
}

Answer PlatformCore::advance(const Call& call, Login& login, const Pairs& body) {
  const std::string& action = valueOf(body, "Action");
  auto& offers = login.challenges[login.current];
  const auto offer = std::find_if(offers.begin(), offers.end(),
                                  [&](const Offer& one) { return one.id == valueOf(body, "MechanismId"); });
  if (offer == offers.end()) return refused("UnknownMechanism", "The mechanism is none of this challenge's.");
  const User& user = script.users.at(login.user);
  if (action == "StartOOB") {
    if (isText(*offer)) {
      surprise(call, "StartOOB of " + offer->factor.name + ", which is answered by a text");
      return refused("NotOutOfBand", "The mechanism is answered by a text.");
    }
    offer->state = Offer::Asked;
    return success(summary("OobPending"));
  }
  if (offer->state == Offer::New && !isText(*offer)) {
    if (action == "Poll") surprise(call, "Poll of " + offer->factor.name + ", which was not started");
    return refused("NotStarted", "The mechanism was not started.");
  }
  if (action == "Answer") {
    if (answers(user, *offer, valueOf(body, "Answer"))) return passed(login, call);
  } else if (isText(*offer)) {
    surprise(call, "Poll of " + offer->factor.name + ", which is answered by a text");
    return refused("NotOutOfBand", "The mechanism is answered by a text.");
  } else {
    poll(user, *offer);
    if (offer->state == Offer::Approved) return passed(login, call);
    if (offer->state == Offer::Asked) return success(summary("OobPending"));
  }
  m_logins.erase(login.id);
  return success(summary("Failure"));
}

}  // namespace ferrolab
