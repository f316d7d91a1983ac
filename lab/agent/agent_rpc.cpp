#include "lab/agent/agent_rpc.h"

#include <malloc.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <future>
#include <utility>

#include "basalt/ad_agent.h"
#include "basalt/process/clock.h"
#include "basalt/run_queue.h"
#include "basalt/settings/fips.h"
#include "base/include/exceptions.h"
#include "base/include/wipe.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/include/opx_processor.h"
#include "quill/rpc_message.h"

namespace {

using rapidjson::StringBuffer;
using rapidjson::Value;
using Writer = rapidjson::Writer<StringBuffer>;
using Pairs = std::list<std::pair<std::string, std::string>>;

// The params of one request, read in a copy that is wiped; what is missing or of another kind refuses it.
class Params {
 public:
  Params(std::string method, const std::string& text) : m_method(std::move(method)), m_text(text) {
    constexpr unsigned READ = rapidjson::kParseIterativeFlag;
    if (m_document.ParseInsitu<READ>(m_text.data()).HasParseError() || !m_document.IsObject()) refuse("an object");
  }
  ~Params() { wipe(m_text); }
  Params(const Params&) = delete;
  Params& operator=(const Params&) = delete;

  std::string text(const char* name) const { return textOf(member(name), name); }
  int number(const char* name) const {
    const Value& value = member(name);
    if (!value.IsInt()) refuse(name);
    return value.GetInt();
  }
  // The value that belongs to the text.
  int choice(const char* name, const std::map<std::string, int>& choices) const {
    const auto found = choices.find(text(name));
    if (found == choices.end()) refuse(name);
    return found->second;
  }
  Pairs pairs(const char* name) const {
    const Value& value = member(name);
    if (!value.IsArray()) refuse(name);
    Pairs pairs;
    for (const Value& pair : value.GetArray()) {
      if (!pair.IsArray() || pair.Size() != 2) refuse(name);
      pairs.emplace_back(textOf(pair[0], name), textOf(pair[1], name));
    }
    return pairs;
  }

 private:
  const Value& member(const char* name) const {
    const auto found = m_document.FindMember(name);
    if (found == m_document.MemberEnd()) refuse(name);
    return found->value;
  }
  std::string textOf(const Value& value, const char* name) const {
    if (!value.IsString()) refuse(name);
    return {value.GetString(), value.GetStringLength()};
  }
  [[noreturn]] void refuse(const char* what) const {
    LUMO_THROW(lumo::RpcRefusedException, lumo::rpc::InvalidParams, "Wrong parameters for %s: %s", m_method.c_str(),
               what);
  }

  std::string m_method;
  std::string m_text;
  rapidjson::Document m_document;
};

void write(Writer& writer, const std::string& text) {
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}
void write(Writer& writer, const char* name, const std::string& text) {
  writer.Key(name);
  write(writer, text);
}

std::string jsonOf(const LoginStep& step) {
  StringBuffer buffer;
  Writer writer(buffer);
  writer.StartObject();
  writer.Key("login");
  writer.Int(step.login);
  writer.Key("status");
  writer.Int(step.status);
  writer.Key("challenge");
  if (step.challenge) {
    writer.StartObject();
    writer.Key("mechanisms");
    writer.StartArray();
    for (const CloudAuthMechanism& mechanism : step.challenge->mechanisms) {
      writer.StartObject();
      write(writer, "id", mechanism.mechanismId);
      write(writer, "name", mechanism.name);
      write(writer, "selectText", mechanism.selectText);
      writer.Key("answerType");
      writer.Int(mechanism.answerType);
      writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
  } else {
    writer.Null();
  }
  writer.EndObject();
  return buffer.GetString();
}

constexpr char DONE[] = "true";

std::string logPrivEvent(const Params& params) {
  lumo::OPXProcessor::checkEnabled();
  lumo::OPXProcessor::handleLogPrivEvent(params.pairs("event"));
  return DONE;
}

std::string login(AgentLogins& logins, const Params& params) {
  const int profile = params.choice("profile", {{"login", PROFILE_LOGIN}, {"elevation", PROFILE_ELEVATION}});
  return jsonOf(logins.begin(params.text("user"), params.text("uuid"), profile, params.pairs("payload")));
}

std::string answer(AgentLogins& logins, const Params& params) {
  const int action =
      params.choice("action", {{"answer", ACTION_ANSWER}, {"start", ACTION_START_OOB}, {"poll", ACTION_POLL}});
  std::string text = params.text("text");
  const WipeAtEnd wiped(text);
  return jsonOf(logins.answer(params.number("login"), params.text("mechanism"), action, text));
}

// Tells when its queue has come to it.
class Reached : public lumo::QueueAble {
 public:
  void run() override { m_reached.set_value(); }
  // By the clock of what was queued before: time() may be behind it by a tick.
  long getTimeout() const override { return std::chrono::system_clock::to_time_t(lumo::Clock::getInstance().now()); }
  std::future<void> reached() { return m_reached.get_future(); }

 private:
  std::promise<void> m_reached;
};

// Behind all that is due in the queues, each of which has one thread.
std::string settle() {
  for (const char* name : {lumo::MAIN_RUN_QUEUE, lumo::OPX_RUN_QUEUE}) {
    const auto queue = lumo::RunQueue::getRunQueue(name, false, 0);
    if (!queue) continue;
    auto item = boost::make_shared<Reached>();
    auto reached = item->reached();
    queue->enqueue(item);
    item.reset();  // a queue that shuts down drops it, and that ends the waiting
    reached.get();
  }
  return DONE;
}

std::string reports() {
  StringBuffer buffer;
  Writer writer(buffer);
  writer.StartObject();
  write(writer, "connectors", dumpCloudConnectors());
  write(writer, "pool", CloudCurlPool::getInstance().dump());
  writer.EndObject();
  return buffer.GetString();
}

// What the process has from malloc, without what malloc keeps beside it and without blocks that are mapped for
// themselves: the LDAP library takes 16 MiB of address space for a connection once it has to, and hardly touches them.
std::string memory() { return "{\"allocated\":" + std::to_string(mallinfo2().uordblks) + "}"; }

}  // namespace

ADObjectPtr AgentRpc::getUserObj(const lumo::RpcCaller&, const std::string& name, lumo::UserLookup) {
  const std::string filter = "(&(objectCategory=person)(sAMAccountName=" + escapeFilterValue(name) + "))";
  const auto found = ADAgent::GetADAgent(false, true)->searchGCorDC(filter, "", nullptr, nullptr, 0);
  return found->empty() ? nullptr : found->front();
}

ADObjectPtr AgentRpc::ldapFetch(const lumo::RpcCaller&, const std::string&, const std::string& dn,
                                const std::vector<std::string>* attributes, int) {
  std::vector<const char*> names;
  if (attributes != nullptr) {
    for (const std::string& name : *attributes) names.push_back(name.c_str());
  }
  names.push_back(nullptr);
  return ADAgent::GetADAgent(false, true)->find(dn, names.data(), 0);
}

int AgentRpc::getFipsMode(const lumo::RpcCaller&) { return lumo::FIPSHelper::isStarted() ? 1 : 0; }

std::string AgentRpc::call(const lumo::RpcCaller& caller, const std::string& method, const std::string& text) {
  if (method == "logPrivEvent") return logPrivEvent(Params(method, text));
  if (method == "login") return login(m_logins, Params(method, text));
  if (method == "answer") return answer(m_logins, Params(method, text));
  if (method == "endLogin") return m_logins.end(Params(method, text).number("login")), DONE;
  if (method == "reports") return reports();
  if (method == "memory") return memory();
  if (method == "settle") return settle();
  if (method == "reload") return m_reload(), DONE;
  return LocalRpcHandler::call(caller, method, text);
}
