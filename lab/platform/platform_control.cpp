// The control commands, for tests in the process and at the control port alike.
#include <map>
#include <stdexcept>

#include "lab/platform/platform_impl.h"

namespace ferrolab {
namespace {

std::string list(const std::vector<std::string>& texts, bool areJson) {
  JsonArray array;
  for (const auto& text : texts) array.add(areJson ? text : quoted(text));
  return array.str();
}

std::string requestJson(const PlatformRequest& request) {
  JsonObject json;
  json.number("connection", request.connection).text("host", request.host).text("method", request.method);
  json.text("endpoint", request.endpoint).text("query", request.query).text("body", request.body);
  return json.text("cookie", request.cookie).number("status", request.status).str();
}

const JsonValue& needed(const JsonValue& command, const char* name) {
  const JsonValue* value = member(command, name);
  if (value == nullptr) throw std::invalid_argument(std::string("the command needs '") + name + "'");
  return *value;
}

std::string neededText(const JsonValue& command, const char* name) {
  needed(command, name);
  return textMember(command, name);
}

}  // namespace

JsonObject PlatformSimulator::Impl::decide(const JsonValue& command, Offer::State state,
                                           std::unique_lock<std::mutex>& lock) {
  const std::string user = neededText(command, "user");
  const auto wait = std::chrono::duration<double>(numberMember(command, "wait", 0));
  if (core.script.users.count(user) == 0) throw std::invalid_argument("there is no user '" + user + "'");
  int decided = 0;
  const auto asked = [&] { return ends || (decided = core.decide(user, state)) > 0; };
  changed.wait_for(lock, std::chrono::duration_cast<std::chrono::milliseconds>(wait), asked);
  if (decided == 0) throw std::invalid_argument("'" + user + "' is asked nothing");
  return JsonObject().flag("ok", true).number("decided", decided);
}

std::string PlatformSimulator::Impl::run(const JsonValue& command) {
  std::unique_lock<std::mutex> lock(mutex);
  const std::string name = neededText(command, "command");
  JsonObject answer;
  answer.flag("ok", true);
  const auto resetAll = [this] {
    core.reset();
    faults.clear();
    requests.clear();
  };
  const std::map<std::string, std::function<void()>> commands{
      {"approve", [&] { answer = decide(command, Offer::Approved, lock); }},
      {"deny", [&] { answer = decide(command, Offer::Denied, lock); }},
      {"fault", [&] { faults.add(Fault::read(command)); }},
      {"clear-faults", [&] { faults.clear(); }},
      {"expire",
       [&] {
         const std::string what = neededText(command, "what");
         if (what != "machine" && what != "user" && what != "all") {
           throw std::invalid_argument("'what' has to be machine, user or all");
         }
         core.expire(what != "user", what != "machine");
       }},
      {"advance-clock",
       [&] {
         needed(command, "seconds");
         core.clockAhead += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
             std::chrono::duration<double>(numberMember(command, "seconds", 0)));
       }},
      {"mint-code", [&] { answer.text("otc", core.mintCode(neededText(command, "machine"))); }},
      {"user", [&] { mergeUser(core.script, needed(command, "user")); }},
      {"script",
       [&] {
         core.setScript(readScript(needed(command, "script")));
         resetAll();
       }},
      {"reset", resetAll},
      {"surprises",
       [&] {
         answer.raw("surprises", list(core.surprises, false));
         if (flagMember(command, "forget", false)) core.surprises.clear();
       }},
      {"events",
       [&] {
         answer.raw("events", list(core.events, true));
         if (flagMember(command, "forget", false)) core.events.clear();
       }},
      {"requests",
       [&] {
         const std::string endpoint = textMember(command, "endpoint");
         JsonArray array;
         for (const auto& request : requests) {
           if (endpoint.empty() || request.endpoint == endpoint) array.add(requestJson(request));
         }
         answer.raw("requests", array.str());
         if (flagMember(command, "forget", false)) requests.clear();
       }},
      {"status",
       [&] {
         answer.number("requests", static_cast<long>(requests.size()));
         answer.number("events", core.eventCount);
         answer.number("surprises", static_cast<long>(core.surprises.size()));
         answer.number("faults", static_cast<long>(faults.size()));
       }},
  };
  const auto found = commands.find(name);
  if (found == commands.end()) throw std::invalid_argument("there is no command '" + name + "'");
  found->second();
  return answer.str();
}

std::string PlatformSimulator::control(const std::string& command) {
  try {
    return m_impl->run(parsed(command, "the command"));
  } catch (const std::invalid_argument& failure) {
    return JsonObject().flag("ok", false).text("error", failure.what()).str();
  }
}

void PlatformSimulator::fault(const std::string& json) {
  const rapidjson::Document document = parsed(json, "the fault");
  const Fault fault = Fault::read(document);
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  m_impl->faults.add(fault);
}

void PlatformSimulator::user(const std::string& json) {
  m_impl->run(parsed(JsonObject().text("command", "user").raw("user", json).str(), "the user"));
}

void PlatformSimulator::approve(const std::string& name, std::chrono::milliseconds wait) {
  const double seconds = std::chrono::duration<double>(wait).count();
  m_impl->run(
      parsed(JsonObject().text("command", "approve").text("user", name).raw("wait", std::to_string(seconds)).str(),
             "approve"));
}

void PlatformSimulator::deny(const std::string& name, std::chrono::milliseconds wait) {
  const double seconds = std::chrono::duration<double>(wait).count();
  m_impl->run(parsed(JsonObject().text("command", "deny").text("user", name).raw("wait", std::to_string(seconds)).str(),
                     "deny"));
}

void PlatformSimulator::expire(const std::string& what) {
  m_impl->run(parsed(JsonObject().text("command", "expire").text("what", what).str(), "expire"));
}

std::string PlatformSimulator::mintCode(const std::string& machine) {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->core.mintCode(machine);
}

std::string PlatformSimulator::siteCheckReply(const std::string& machine) {
  const std::string bytes = siteCheckHttp(machine).bytes;
  return bytes.substr(bytes.find("\r\n\r\n") + 4);
}

testsupport::HttpReply PlatformSimulator::siteCheckHttp(const std::string& machine) {
  return m_impl->siteCheck(machine);
}

void PlatformSimulator::reset() { m_impl->run(parsed(R"({"command":"reset"})", "reset")); }

}  // namespace ferrolab
