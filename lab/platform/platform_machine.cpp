// The machine's sign-in, the user's cookie, and the proof that a privileged action asks for.
#include <algorithm>

#include "lab/platform/platform_core.h"

namespace ferrolab {

Answer PlatformCore::sso(const Call& call) {
  constexpr char NAME[] = "OneTimePass=";
  if (call.query.rfind(NAME, 0) != 0 || call.query.find('&') != std::string::npos) {
    surprise(call, "the parameters are '" + call.query + "' and not " + NAME + "CODE");
    return status(400, "Malformed.");
  }
  const auto code = m_codes.find(call.query.substr(sizeof NAME - 1));
  if (code == m_codes.end()) {
    surprise(call, "nobody gave out the code '" + call.query.substr(sizeof NAME - 1) + "'");
    return refused("UnknownCode", "The code is unknown.");
  }
  if (code->second.ends && *code->second.ends <= time()) return refused("ExpiredCode", "The code has expired.");
  if (code->second.usesLeft-- <= 0) return refused("UsedCode", "The code was used before.");
  Answer answer = success(JsonObject().text("User", code->second.machine).text("TenantId", script.tenant).str());
  answer.headers.push_back(cookieLine(code->second.machine, true));
  return answer;
}

Answer PlatformCore::startImpersonate(const Call& call) {
  Answer refusal;
  const Cookie* machine = holder(call, true, true, refusal);
  if (machine == nullptr) return refusal;
  const Strings body = bodyOf(call);
  if (!expectNoQuery(call) || !body) return status(400, "Malformed.");
  const bool hasUuid = body->size() == 2;
  const std::vector<std::string> names{"uuid", "username"};
  if (!expectNames(call, *body, {hasUuid ? names.begin() : names.begin() + 1, names.end()})) {
    return status(400, "Malformed.");
  }
  const auto known = script.machines.find(machine->owner);
  if (known == script.machines.end() || !known->second.mayAct) {
    return refused("NoRight", "The computer may not act for users.");
  }
  // Of somebody disabled the privileged endpoints tell.
  const auto user = script.users.find(valueOf(*body, "username"));
  if (user == script.users.end()) return refused("UnknownUser", "The user is unknown.");
  if (hasUuid && !user->second.uuid.empty() && valueOf(*body, "uuid") != user->second.uuid) {
    return refused("UnknownUser", "The user has another uuid.");
  }
  Answer answer = success(JsonObject().text("User", user->first).str());
  answer.headers.push_back(cookieLine(user->first, false));
  return answer;
}

// mfalogin and ferrosuexecute.
Answer PlatformCore::privilege(const Call& call) {
  Answer refusal;
  const Cookie* cookie = holder(call, false, true, refusal);
  if (cookie == nullptr) return refusal;
  if (call.method == "POST" && !bodyOf(call)) return status(400, "Malformed.");
  const User& user = script.users.at(cookie->owner);
  const Privilege& asked = call.path == "qrsintegration/mfalogin" ? user.serverLogin : user.elevation;
  if (call.hasQuery) {
    const Strings query = queryOf(call, {"challengeId"});
    if (!query) return status(400, "Malformed.");
    return secondVisit(call, user, asked, query->front().second);
  }
  switch (asked.access) {
    case Privilege::Free:
      return success();
    case Privilege::Proof:
      return askProof(call, user, 0);
    case Privilege::NotConfigured:
      return refused("ProfileMissing", "There is no profile.", JsonObject().text("Reason", "NotConfigured").str());
    case Privilege::Denied:
      break;
  }
  return refused("AccessDenied", "The action is denied.", JsonObject().text("Reason", "Denied").str());
}

Answer PlatformCore::askProof(const Call& call, const User& user, size_t round) {
  // A character that has to be encoded in parameters.
  const std::string id = nextId("C") + "/" + std::to_string(round);
  Proof& proof = m_proofs[id];
  proof.user = user.name;
  proof.endpoint = call.path;
  proof.round = round;
  proof.method = call.method;
  proof.payload = call.body;
  return refused("ChallengeRequired", "Proof is needed.", JsonObject().text("ChallengeId", id).str());
}

Answer PlatformCore::secondVisit(const Call& call, const User& user, const Privilege& asked, const std::string& id) {
  const auto found = m_proofs.find(id);
  if (found == m_proofs.end()) {
    surprise(call, "nobody gave out the challenge '" + id + "'");
    return refused("UnknownChallenge", "The challenge is unknown.");
  }
  const Proof& proof = found->second;
  if (proof.user != user.name || proof.endpoint != call.path) {
    if (!proof.foreign) surprise(call, "the challenge '" + id + "' is " + proof.user + "'s for " + proof.endpoint);
    return refused("UnknownChallenge", "The challenge is another one's.");
  }
  if (proof.method != call.method || proof.payload != call.body) {
    surprise(call, "the second visit repeats " + call.method + " '" + call.body + "' and not " + proof.method + " '" +
                       proof.payload + "'");
  }
  if (!proof.given) return askProof(call, user, proof.round);
  const size_t next = proof.round + 1;
  m_proofs.erase(found);
  return next < asked.rounds.size() ? askProof(call, user, next) : success();
}

Answer PlatformCore::startChallenge(const Call& call) {
  Answer refusal;
  const Cookie* cookie = holder(call, false, true, refusal);
  if (cookie == nullptr) return refusal;
  const Strings body = bodyOf(call);
  if (!expectNoQuery(call) || !body || !expectNames(call, *body, {"ChallengeStateId", "Version"})) {
    return status(400, "Malformed.");
  }
  if (valueOf(*body, "Version") != "1.0") surprise(call, "the version is '" + valueOf(*body, "Version") + "'");
  const std::string& id = valueOf(*body, "ChallengeStateId");
  const auto found = m_proofs.find(id);
  if (found == m_proofs.end()) {
    surprise(call, "nobody gave out the challenge '" + id + "'");
    return refused("UnknownChallenge", "The challenge is unknown.");
  }
  const Proof& proof = found->second;
  if (proof.user != cookie->owner) {
    if (!proof.foreign) surprise(call, "the challenge '" + id + "' is " + proof.user + "'s");
    return refused("UnknownChallenge", "The challenge is another one's.");
  }
  const User& user = script.users.at(proof.user);
  const Privilege& asked = proof.endpoint == "qrsintegration/mfalogin" ? user.serverLogin : user.elevation;
  if (proof.round >= asked.rounds.size()) return refused("UnknownChallenge", "The challenge is no longer asked for.");
  Login* login = begin(user, asked.rounds[proof.round], call.host, "S");
  if (login == nullptr) return refused("NoFactors", "The user has nothing to answer the challenge with.");
  login->challengeId = id;
  return success(packageOf(*login, call, nullptr));
}

}  // namespace ferrolab
