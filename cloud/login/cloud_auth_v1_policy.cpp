// The challenges of a reply, and the texts that a user is to see.
#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "base/include/logger.h"
#include "base/include/printable.h"
#include "cloud/login/cloud_auth_mechanisms.h"
#include "cloud/login/cloud_auth_v1.h"
#include "cloud/login/lookup.h"

namespace {

using rapidjson::SizeType;
using rapidjson::Value;

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.object", false); }

constexpr std::array<std::pair<std::string_view, CloudAnswerType>, 6> ANSWER_TYPES{{
    {"Text", ANSWER_TEXT},
    {"StartOob", ANSWER_OOB},
    {"StartTextOob", ANSWER_TEXT_OOB},
    {"Redirect", ANSWER_REDIRECT},
    {"DataEntity", ANSWER_ENTITY},
    {"DataEntityList", ANSWER_ENTITY_LIST},
}};

enum class Detail { None, Optional, Required };

// What is said of a mechanism when the platform has no words of its own: `before`, the member `key`, `after`.
struct MechanismText {
  std::string_view name;
  const char* before;
  Detail detail = Detail::None;
  const char* key = "";
  const char* after = "";
};

constexpr std::array<MechanismText, 7> SELECT_TEXTS{{
    {"UP", "User Password"},
    {"OTP", "Morvane Mobile Authenticator"},
    {"SQ", "Answer Security Question"},
    {"EMAIL", "Email verification code is sent to address: XXXX@", Detail::Optional, "PartialAddress"},
    {"SMS", "SMS verification code is sent to mobile phone: XXXX", Detail::Optional, "PartialDeviceAddress"},
    {"PF", "Phone call is sent to number: XXXX", Detail::Optional, "PartialPhoneNumber"},
    {"RESET", "New Password"},
}};

constexpr std::array<MechanismText, 7> ANSWER_PROMPTS{{
    {"UP", "Please enter user password: "},
    {"OTP", "Please press <enter> and then 'Approve' the request on your mobile device or enter your OTP code here: "},
    {"SQ", "", Detail::Optional, "Question", "\nYour answer is: "},
    {"EMAIL", "An email has been sent to your registered email address: XXX@", Detail::Optional, "PartialAddress",
     ".\nPlease click the link in this email to do authentication."
     "\nAfter that, press <enter> to finish authentication."},
    {"SMS", "A text message is sent to your phone(XXXX", Detail::Optional, "PartialDeviceAddress",
     ").\nPlease enter the code or click on the link in the message to proceed: "},
    {"PF", "A call is made to your phone (XXXX", Detail::Required, "PartialPhoneNumber",
     ").\nPlease follow the instructions to proceed with authentication."
     "\nAfter that, press <enter> to finish authentication."},
    {"RESET", "Please enter new user password: "},
}};

// What ends the platform's own prompt.
constexpr std::array<std::pair<std::int32_t, const char*>, 3> PROMPT_ENDS{{
    {ANSWER_TEXT, ": "},
    {ANSWER_OOB, ". After that, please press <enter> to finish authentication."},
    {ANSWER_TEXT_OOB, ". After that, please press <enter> to finish authentication: "},
}};

// Room for as many at once; a peer may announce more than it has.
constexpr SizeType USUAL_MOST = 16;

// What getJsonStringOptional gives, as part of the object.
std::string_view optionalText(const Value& object, std::string_view key) {
  const Value& value = CloudAuth::member(object, key);
  return value.IsString() ? std::string_view(value.GetString(), value.GetStringLength()) : std::string_view();
}

// The row's text in `out`; false where no row has the name.
template <class Table>
bool usualText(const Table& table, const std::string& name, const Value& mechanism, std::string& out) {
  const auto* const row =
      std::find_if(table.begin(), table.end(), [&name](const MechanismText& one) { return one.name == name; });
  if (row == table.end()) return false;
  std::string detail;
  if (row->detail == Detail::Optional) detail = optionalText(mechanism, row->key);
  if (row->detail == Detail::Required) CloudAuth::getJsonString(mechanism, row->key, detail);
  out = row->before + detail + row->after;
  return true;
}

std::int32_t answerTypeOf(const std::string& name, const Value& mechanism) {
  const std::string_view given = optionalText(mechanism, "AnswerType");
  if (given.empty()) return usualAnswerType(name);
  return lookedUp(ANSWER_TYPES, given, ANSWER_UNKNOWN);
}

// The platform's own prompt as a user is to see it.
std::string finished(std::string_view prompt, std::int32_t answerType) {
  const std::string_view end = lookedUp(PROMPT_ENDS, answerType, std::string_view());
  if (!end.empty() && std::string_view(",.:;!?").find(prompt.back()) != std::string_view::npos) prompt.remove_suffix(1);
  std::string text;
  text.reserve(prompt.size() + end.size());
  return text.append(prompt).append(end);
}

}  // namespace

std::string CloudAuthV1::getSelectText(const std::string& name, const Value& mechanism) {
  std::string text(optionalText(mechanism, "PromptSelectMech"));
  if (!text.empty() || usualText(SELECT_TEXTS, name, mechanism, text)) return text;
  LUMO_LOG(logger(), lumo::level::Debug,
           "No select text is available for mechanism(%s) in parsing mechanism select text", name.c_str());
  return name;
}

std::string CloudAuthV1::getAnswerPrompt(const std::string& name, const Value& mechanism) {
  const std::string_view given = optionalText(mechanism, "PromptMechChosen");
  if (!given.empty()) return finished(given, answerTypeOf(name, mechanism));
  std::string text;
  if (usualText(ANSWER_PROMPTS, name, mechanism, text)) return text;
  LUMO_LOG(logger(), lumo::level::Debug, "No answer prompt is available for mechanism(%s) in parsing answer prompt",
           name.c_str());
  return "Sorry. This mechanism is not supported.";
}

CloudAuthMechanism CloudAuthV1::parseMechanism(const Value& element) {
  CloudAuthMechanism mechanism;
  getJsonString(element, "MechanismId", mechanism.mechanismId);
  getJsonString(element, "Name", mechanism.name);
  mechanism.answerType = answerTypeOf(mechanism.name, element);
  mechanism.selectText = getSelectText(mechanism.name, element);
  mechanism.answerPrompt = getAnswerPrompt(mechanism.name, element);
  mechanism.outOfBand = mechanism.answerType != ANSWER_TEXT;
  return mechanism;
}

CloudAuthChallenge CloudAuthV1::parseChallenge(const Value& element) {
  CloudAuthChallenge challenge;
  challenge.required = true;
  const Value& mechanisms = member(element, "Mechanisms");
  if (element.IsObject() && mechanisms.IsNull()) return challenge;
  if (!mechanisms.IsArray()) {
    LUMO_THROW(lumo::CloudException, -1, "Errors in parsing result from Json: '%s' does NOT exist", "Mechanisms");
  }
  challenge.mechanisms.reserve(std::min(mechanisms.Size(), USUAL_MOST));
  for (const Value& one : mechanisms.GetArray()) challenge.mechanisms.push_back(parseMechanism(one));
  return challenge;
}

int CloudAuthV1::parsePolicy() {
  const Value& result = member(document, "Result");
  std::string format;
  getJsonString(result, "SessionId", sessionId);
  getJsonString(result, "TenantId", tenantId);
  getJsonString(result, "Version", format);
  if (format != POLICY_FORMAT) {
    LUMO_THROW(lumo::CloudException, -1, "Errors in parsing policy from Json: 'Version' = '%s' but NOT V1",
               lumo::printable(format).c_str());
  }
  const Value& elements = member(result, "Challenges");
  if (!elements.IsArray() || elements.Empty()) {
    LUMO_THROW(lumo::CloudException, -1, "Errors in parsing policy from Json: no challenges exist");
  }
  challenges.clear();
  currentChallenge.clear();
  challenges.reserve(std::min(elements.Size(), USUAL_MOST));
  for (const Value& element : elements.GetArray()) {
    CloudAuthChallenge challenge = parseChallenge(element);
    challenge.name = "Challenge_" + std::to_string(challenges.size());
    challenges.push_back(std::move(challenge));
  }
  return AUTH_NEXT_CHALLENGE;
}
