#include "lab/platform/platform_core.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace ferrolab {

Answer success(const std::string& result) {
  return {200, JsonObject().flag("success", true).raw("Result", result).raw("Message", "null").str(), {}};
}

Answer refused(const std::string& errorId, const std::string& message, const std::string& result) {
  JsonObject body;
  body.flag("success", false).raw("Result", result).text("Message", message).text("MessageID", "_I18N_" + errorId);
  body.raw("Exception", "null")
      .text("ErrorID", errorId)
      .text("ErrorCode", "E-" + errorId)
      .raw("InnerException", "null");
  return {200, body.str(), {}};
}

Answer status(int code, const std::string& message) {
  Answer answer = refused("Http" + std::to_string(code), message);
  answer.status = code;
  return answer;
}

PlatformCore::PlatformCore(Script first, std::function<TimePoint()> clock)
    : now(std::move(clock)), script(first), m_first(std::move(first)) {}

const std::array<PlatformCore::Endpoint, 12>& PlatformCore::endpoints() {
  static const std::array<Endpoint, 12> table{{
      {"sysinfo/version", "GET", &PlatformCore::version},
      {"security/GetAuthPolicy", "GET", &PlatformCore::getAuthPolicy},
      {"security/MultiAuthLogin", "POST", &PlatformCore::multiAuthLogin},
      {"security/MoveToNextLoginPage", "POST", &PlatformCore::moveToNextLoginPage},
      {"security/StartAuthentication", "POST", &PlatformCore::startAuthentication},
      {"security/AdvanceAuthentication", "POST", &PlatformCore::advanceAuthentication},
      {"security/sso", "GET", &PlatformCore::sso},
      {"security/startimpersonate", "POST", &PlatformCore::startImpersonate},
      {"security/startchallenge", "POST", &PlatformCore::startChallenge},
      {"qrsintegration/mfalogin", "GET POST", &PlatformCore::privilege},
      {"qrsintegration/ferrosuexecute", "GET POST", &PlatformCore::privilege},
      {"qrsintegration/LogPrivEvent", "POST", &PlatformCore::logPrivEvent},
  }};
  return table;
}

bool PlatformCore::isEndpoint(const std::string& path) {
  const auto names = [&path](const std::string& whole) {
    return path == whole || path == whole.substr(whole.rfind('/') + 1);
  };
  const auto& all = endpoints();
  return names("iwa/SiteCheck") ||
         std::any_of(all.begin(), all.end(), [&](const auto& one) { return names(one.path); });
}

Answer PlatformCore::answer(const Call& call) {
  for (const Endpoint& endpoint : endpoints()) {
    if (call.path != endpoint.path) continue;
    const std::string methods = std::string(" ") + endpoint.methods + " ";
    if (methods.find(" " + call.method + " ") == std::string::npos) {
      surprise(call, "the method has to be " + std::string(endpoint.methods));
      return status(405, "Method not allowed.");
    }
    if (call.method == "GET" && !call.body.empty()) surprise(call, "a GET with a body");
    return (this->*endpoint.operation)(call);
  }
  surprise(call, "there is no such endpoint");
  return status(404, "Not found.");
}

void PlatformCore::setScript(Script next) {
  m_first = std::move(next);
  reset();
}

void PlatformCore::reset() {
  script = m_first;
  m_ids = 0;
  m_cookies.clear();
  m_logins.clear();
  m_proofs.clear();
  m_codes.clear();
  surprises.clear();
  events.clear();
  eventCount = 0;
  clockAhead = {};
}

void PlatformCore::surprise(const Call& call, const std::string& words) {
  constexpr size_t ENOUGH = 1000;
  if (surprises.size() < ENOUGH) surprises.push_back(call.where() + ": " + words);
}

std::optional<TimePoint> PlatformCore::endOf(int seconds) const {
  if (seconds == 0) return std::nullopt;
  return time() + std::chrono::seconds(seconds);
}

std::string PlatformCore::nextId(const char* kind) {
  char number[24];
  std::snprintf(number, sizeof number, "%06ld", ++m_ids);
  return std::string(kind) + number;
}

// Whether a session or record of that id was given out at any time.
bool PlatformCore::gaveOut(const std::string& id) const {
  const bool isId = id.size() > 6 && (id[0] == 'S' || id[0] == 'R') &&
                    id.find_first_not_of("0123456789", 1) == std::string::npos && id.size() < 18;
  return isId && std::stol(id.substr(1)) <= m_ids;
}

std::string PlatformCore::cookieLine(const std::string& owner, bool isMachine) {
  const std::string value = nextId(isMachine ? "MACHINE-" : "USER-");
  m_cookies[value] = {owner, isMachine, endOf(isMachine ? script.machineCookieSeconds : script.userCookieSeconds)};
  return "Set-Cookie: .ASPXAUTH=" + value + "; path=/; HttpOnly" + (usesTls ? "; secure" : "");
}

void PlatformCore::expire(bool machines, bool users) {
  for (auto& [value, cookie] : m_cookies) {
    if (cookie.isMachine ? machines : users) cookie.ends = time();
  }
}

// Whose valid cookie came along, null with the refusal. `alone`: the client sets this cookie itself and sees to it that
// no other one goes along.
const Cookie* PlatformCore::holder(const Call& call, bool isMachine, bool alone, Answer& refusal) {
  refusal = status(401, "Sign in first.");
  if (call.cookies.empty()) surprise(call, "no cookie .ASPXAUTH");
  if (alone && call.cookies.size() > 1) surprise(call, "more than one cookie .ASPXAUTH");
  bool otherKind = false;
  for (const auto& value : call.cookies) {
    const auto cookie = m_cookies.find(value);
    if (cookie == m_cookies.end() || (cookie->second.ends && *cookie->second.ends <= time())) continue;
    if (cookie->second.isMachine == isMachine) return &cookie->second;
    otherKind = true;
  }
  if (otherKind) surprise(call, std::string("the cookie of a ") + (isMachine ? "user" : "machine"));
  return nullptr;
}

// The account's name as the script has it, of a name with or without a realm.
std::string PlatformCore::machineName(const std::string& principal) {
  std::string machine = principal.substr(0, principal.find('@'));
  std::transform(machine.begin(), machine.end(), machine.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return machine;
}

std::string PlatformCore::mintCode(const std::string& machine) {
  std::string code = nextId("OTC-");
  m_codes[code] = {machineName(machine), script.codeUses, endOf(script.codeSeconds)};
  return code;
}

std::string PlatformCore::siteCheck(const std::string& remoteUser) {
  JsonObject reply;
  if (script.machines.count(machineName(remoteUser)) != 0) {
    reply.text("result", "success").text("otc", mintCode(remoteUser));
  } else {
    reply.text("result", "failure").text("message", "'" + remoteUser + "' is no machine of this tenant");
  }
  return "<html><body>" + reply.str() + "</body></html>\n";
}

int PlatformCore::decide(const std::string& user, Offer::State state) {
  int decided = 0;
  for (auto& [id, login] : m_logins) {
    if (login.user != user) continue;
    for (auto& challenge : login.challenges) {
      for (Offer& offer : challenge) {
        if (offer.state != Offer::Asked || isText(offer)) continue;
        offer.state = state;
        ++decided;
      }
    }
  }
  return decided;
}

std::string PlatformCore::foreignId(const std::string& own) {
  if (const auto proof = m_proofs.find(own); proof != m_proofs.end()) {
    for (auto& [id, other] : m_proofs) {
      if (id == own || other.given) continue;
      other.foreign = true;
      return id;
    }
    return {};
  }
  for (auto& [id, other] : m_logins) {
    if (id == own || id[0] != own[0]) continue;
    other.foreign = true;
    return id;
  }
  return {};
}

Answer PlatformCore::version(const Call& call) {
  if (!expectNoQuery(call)) return status(400, "Unexpected parameters.");
  return success(JsonObject().text("Version", script.version).str());
}

Answer PlatformCore::logPrivEvent(const Call& call) {
  Answer refusal;
  if (holder(call, true, false, refusal) == nullptr) return refusal;
  if (!expectNoQuery(call) || !bodyOf(call)) return status(400, "The event is malformed.");
  ++eventCount;
  if (keepsRecord) events.push_back(call.body);
  return success();
}

}  // namespace ferrolab
