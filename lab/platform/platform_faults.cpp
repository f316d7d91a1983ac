#include "lab/platform/platform_faults.h"

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

namespace ferrolab {
namespace {

const std::map<std::string, Fault::Kind>& kinds() {
  static const std::map<std::string, Fault::Kind> names{
      {"status", Fault::Status}, {"refuse", Fault::Refuse},     {"cut", Fault::Cut},       {"hang", Fault::Hang},
      {"delay", Fault::Delay},   {"body", Fault::Body},         {"broken", Fault::Broken}, {"empty", Fault::Empty},
      {"huge", Fault::Huge},     {"remove", Fault::Remove},     {"set", Fault::Set},       {"foreign", Fault::Foreign},
      {"header", Fault::Header}, {"no-cookie", Fault::NoCookie}};
  return names;
}

std::shared_ptr<rapidjson::Document> copyOf(const JsonValue& value) {
  auto copy = std::make_shared<rapidjson::Document>();
  copy->CopyFrom(value, copy->GetAllocator());
  return copy;
}

Fault::Place placeOf(const std::string& word) {
  if (word == "before") return Fault::Before;
  if (word == "headers") return Fault::InHeaders;
  if (word == "body") return Fault::InBody;
  throw std::invalid_argument("'cut' has to be before, headers or body");
}

// The kind that the object names; with "status", a "body" is the status's own.
std::string kindOf(const JsonValue& json) {
  static const std::set<std::string> others{"command", "endpoint", "count", "after", "to"};
  std::string kind;
  const bool hasStatus = member(json, "status") != nullptr;
  for (const auto& entry : json.GetObject()) {
    const std::string name = stringOf(entry.name);
    if (others.count(name) != 0 || (hasStatus && name == "body")) continue;
    if (kinds().count(name) == 0) throw std::invalid_argument("a fault has no member '" + name + "'");
    if (!kind.empty()) {
      std::string words = "a fault is either '";
      throw std::invalid_argument(words.append(kind).append("' or '").append(name).append("'"));
    }
    kind = name;
  }
  if (kind.empty()) throw std::invalid_argument("the fault does not say what to do");
  return kind;
}

const char* idPath(JsonValue& root) {
  for (const char* path : {"Result.SessionId", "Result.recId", "Result.ChallengeId"}) {
    if (valueAt(root, path) != nullptr) return path;
  }
  return nullptr;
}

// The name of what could not be done, empty when it was.
std::string change(const Fault& fault, PlatformCore& core, rapidjson::Document& document) {
  if (fault.kind == Fault::Remove) return removeAt(document, fault.text) ? "" : "remove " + fault.text;
  if (fault.kind == Fault::Set) return setAt(document, fault.text, *fault.value) ? "" : "set " + fault.text;
  const char* path = idPath(document);
  const JsonValue* own = path == nullptr ? nullptr : valueAt(document, path);
  const std::string id = own == nullptr || !own->IsString() ? "" : core.foreignId(stringOf(*own));
  if (id.empty()) return "give a foreign id";
  return setAt(document, path, JsonValue(id.c_str(), document.GetAllocator())) ? "" : "give a foreign id";
}

void enlarge(std::string& body, long bytes) {
  const std::string padding = "\"padding\":\"" + std::string(static_cast<size_t>(bytes), 'x') + "\"";
  if (body.empty() || body.back() != '}') return;
  body.pop_back();
  body += (body == "{" ? "" : ",") + padding + "}";
}

}  // namespace

Fault Fault::read(const JsonValue& json) {
  if (!json.IsObject()) throw std::invalid_argument("a fault has to be an object");
  const std::string name = kindOf(json);
  Fault fault;
  fault.kind = kinds().at(name);
  fault.endpoint = textMember(json, "endpoint");
  fault.count = static_cast<int>(numberMember(json, "count", 1));
  fault.after = static_cast<int>(numberMember(json, "after", 0));
  if (fault.endpoint.empty()) throw std::invalid_argument("a fault needs an 'endpoint'");
  if (fault.endpoint != "*" && !PlatformCore::isEndpoint(fault.endpoint)) {
    throw std::invalid_argument("there is no endpoint '" + fault.endpoint + "'");
  }
  if ((member(json, "to") != nullptr) != (fault.kind == Set)) throw std::invalid_argument("'set' and 'to' go together");
  fault.readDetail(json, name);
  return fault;
}

void Fault::readDetail(const JsonValue& json, const std::string& name) {
  const JsonValue& detail = *member(json, name.c_str());
  switch (kind) {
    case Status:
    case Delay:
    case Huge:
      number = static_cast<long>(numberMember(json, name.c_str(), 0));
      if (kind == Status) text = textMember(json, "body");
      break;
    case Cut:
      place = placeOf(textMember(json, "cut"));
      break;
    case Body:
    case Remove:
    case Header:
      text = textMember(json, name.c_str());
      break;
    case Set:
      text = textMember(json, "set");
      value = copyOf(*member(json, "to"));
      break;
    case Refuse:
      if (!detail.IsObject()) throw std::invalid_argument("'refuse' has to be an object");
      value = copyOf(detail);
      break;
    default:
      if (!flagMember(json, name.c_str(), false)) throw std::invalid_argument("'" + name + "' has to be true");
  }
}

std::unique_ptr<Fault> Faults::meet(const std::string& path) {
  for (auto fault = m_faults.begin(); fault != m_faults.end(); ++fault) {
    const std::string last = path.substr(path.rfind('/') + 1);
    if (fault->endpoint != "*" && fault->endpoint != path && fault->endpoint != last) continue;
    if (fault->after > 0) {
      --fault->after;
      continue;
    }
    auto met = std::make_unique<Fault>(*fault);
    if (fault->count > 0 && --fault->count == 0) m_faults.erase(fault);
    return met;
  }
  return nullptr;
}

Answer answerOf(const Fault& fault) {
  Answer answer;
  if (fault.kind == Fault::Status) {
    answer.status = static_cast<int>(fault.number);
    answer.body = fault.text;
  }
  if (fault.kind != Fault::Refuse) return answer;
  JsonObject body;
  body.flag("success", false);
  JsonObject result;
  for (const auto& entry : fault.value->GetObject()) {
    const std::string name = stringOf(entry.name);
    const bool inResult = name == "Reason" || name == "ChallengeId";
    (inResult ? result : body).raw(name, written(entry.value));
  }
  answer.body = body.raw("Result", result.str()).str();
  return answer;
}

void apply(const Fault& fault, PlatformCore& core, const Call& call, Answer& answer) {
  switch (fault.kind) {
    case Fault::Body:
    case Fault::Empty:
      answer.status = 200;
      answer.body = fault.text;
      return;
    case Fault::Broken:
      answer.body.resize(answer.body.size() / 2);
      return;
    case Fault::Huge:
      enlarge(answer.body, fault.number);
      return;
    case Fault::NoCookie:
      answer.headers.clear();
      return;
    case Fault::Header:
      answer.headers.push_back(fault.text);
      return;
    case Fault::Remove:
    case Fault::Set:
    case Fault::Foreign: {
      rapidjson::Document document;
      document.Parse(answer.body.data(), answer.body.size());
      const std::string undone = document.HasParseError() ? "read the reply" : change(fault, core, document);
      if (!undone.empty()) core.surprise(call, "the fault could not " + undone);
      if (undone.empty()) answer.body = written(document);
      return;
    }
    default:
      return;
  }
}

}  // namespace ferrolab
