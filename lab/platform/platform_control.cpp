// The control commands, for tests in the process and at the control port alike.
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

bool forgets(const JsonValue& command) { return flagMember(command, "forget", false); }

std::chrono::steady_clock::duration secondsOf(const JsonValue& command) {
  needed(command, "seconds");
  const std::chrono::duration<double> seconds(numberMember(command, "seconds", 0));
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(seconds);
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

void PlatformSimulator::Impl::resetAll() {
  core.reset();
  faults.clear();
  requests.clear();
}

void PlatformSimulator::Impl::expire(const std::string& what) {
  if (what != "machine" && what != "user" && what != "all") {
    throw std::invalid_argument("'what' has to be machine, user or all");
  }
  core.expire(what != "user", what != "machine");
}

std::string PlatformSimulator::Impl::requestsOf(const std::string& endpoint) const {
  JsonArray array;
  for (const auto& request : requests) {
    if (endpoint.empty() || request.endpoint == endpoint) array.add(requestJson(request));
  }
  return array.str();
}

void PlatformSimulator::Impl::addCounts(JsonObject& answer) const {
  answer.number("requests", static_cast<long>(requests.size()));
  answer.number("events", core.eventCount);
  answer.number("surprises", static_cast<long>(core.surprises.size()));
  answer.number("faults", static_cast<long>(faults.size()));
}

const PlatformSimulator::Impl::Commands& PlatformSimulator::Impl::commands() {
  static const Commands all{
      {"approve",
       [](Impl& self, const Order& order) { order.answer = self.decide(order.said, Offer::Approved, order.lock); }},
      {"deny",
       [](Impl& self, const Order& order) { order.answer = self.decide(order.said, Offer::Denied, order.lock); }},
      {"fault", [](Impl& self, const Order& order) { self.faults.add(Fault::read(order.said)); }},
      {"clear-faults", [](Impl& self, const Order&) { self.faults.clear(); }},
      {"expire", [](Impl& self, const Order& order) { self.expire(neededText(order.said, "what")); }},
      {"advance-clock", [](Impl& self, const Order& order) { self.core.clockAhead += secondsOf(order.said); }},
      {"mint-code",
       [](Impl& self, const Order& order) {
         order.answer.text("otc", self.core.mintCode(neededText(order.said, "machine")));
       }},
      {"user", [](Impl& self, const Order& order) { mergeUser(self.core.script, needed(order.said, "user")); }},
      {"script",
       [](Impl& self, const Order& order) {
         self.core.setScript(readScript(needed(order.said, "script")));
         self.resetAll();
       }},
      {"reset", [](Impl& self, const Order&) { self.resetAll(); }},
      {"surprises",
       [](Impl& self, const Order& order) {
         order.answer.raw("surprises", list(self.core.surprises, false));
         if (forgets(order.said)) self.core.surprises.clear();
       }},
      {"events",
       [](Impl& self, const Order& order) {
         order.answer.raw("events", list(self.core.events, true));
         if (forgets(order.said)) self.core.events.clear();
       }},
      {"requests",
       [](Impl& self, const Order& order) {
         order.answer.raw("requests", self.requestsOf(textMember(order.said, "endpoint")));
         if (forgets(order.said)) self.requests.clear();
       }},
      {"status", [](Impl& self, const Order& order) { self.addCounts(order.answer); }},
  };
  return all;
}

std::string PlatformSimulator::Impl::run(const JsonValue& command) {
  std::unique_lock<std::mutex> lock(mutex);
  const std::string name = neededText(command, "command");
  const auto found = commands().find(name);
  if (found == commands().end()) throw std::invalid_argument("there is no command '" + name + "'");
  JsonObject answer;
  answer.flag("ok", true);
  found->second(*this, {command, answer, lock});
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
