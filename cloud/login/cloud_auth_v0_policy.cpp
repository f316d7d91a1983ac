// The challenges of a reply, and the texts that a user is to see.
#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "cloud/login/cloud_auth_mechanisms.h"
#include "cloud/login/cloud_auth_v0.h"
#include "cloud/login/cloud_auth_v0_phone.h"
#include "cloud/login/lookup.h"

namespace {

using rapidjson::Value;
using NamedText = std::pair<std::string_view, std::string_view>;

constexpr std::array<NamedText, 4> ANSWER_PROMPTS{{
    {"UP", "Please enter user password"},
    {"OTP", "Please enter RETURN and then 'Approve' the request on your mobile device or enter your OTP code here"},
    {"SMS",
     "Please enter RETURN to finish authentication by clicking the link in your message or enter your code here"},
    {"SQ", "\nYour answer is"},  // behind the question
}};

constexpr std::array<NamedText, 1> MESSAGES{{
    {"EMAIL",
     "An email has been sent to your registered email address."
     "\nPlease click the link in this email to finish authentication."},
}};

constexpr std::array<std::string_view, 3> MESSAGE_OF_THE_PLATFORM{"OTP", "SMS", "PF"};
constexpr std::array<std::string_view, 4> IN_BAND{"SQ", "UP", "OTP", "RESET"};

template <class List>
bool isOneOf(const List& list, const std::string& name) {
  return std::find(list.begin(), list.end(), name) != list.end();
}

std::string messageOf(const std::string& name, const Value& element) {
  if (!isOneOf(MESSAGE_OF_THE_PLATFORM, name)) return lookedUp(MESSAGES, name, std::string());
  constexpr std::string_view BETWEEN_SENTENCES = ". ";
  std::string message;
  CloudAuth::getJsonStringOptional(element, "msg", message);
  // Throws where there is a single sentence, or none: the caller's to see.
  return message.replace(message.find(BETWEEN_SENTENCES), BETWEEN_SENTENCES.size(), ".\n");
}

std::string mechanismIdOf(const std::string& name, const Value& element) {
  if (name != PHONE) return name;
  std::string label;
  CloudAuth::getJsonStringOptional(element, "fieldLabel", label);
  const PhoneLine* const line = phoneLine(&PhoneLine::label, label);
  return line == nullptr ? name : std::string(line->mechanismId);
}

}  // namespace

CloudAuthMechanism CloudAuthV0::parseMechanism(const Value& element) const {
  CloudAuthMechanism mechanism;
  getJsonString(element, "mechId", mechanism.name);
  mechanism.mechanismId = mechanismIdOf(mechanism.name, element);
  const Value& text = member(element, "fieldText");
  mechanism.selectText =
      text.IsString() ? std::string(text.GetString(), text.GetStringLength()) : mechanism.mechanismId;
  mechanism.answerPrompt =
      (mechanism.name == "SQ" ? securityQuestion : "") + lookedUp(ANSWER_PROMPTS, mechanism.name, std::string());
  mechanism.message = messageOf(mechanism.name, element);
  mechanism.answerType = usualAnswerType(mechanism.name);
  mechanism.outOfBand = !isOneOf(IN_BAND, mechanism.name);
  return mechanism;
}

int CloudAuthV0::parsePolicy() {
  const Value& result = member(document, "Result");
  getJsonString(result, "recId", recId);
  const Value& question = member(result, "securityquestion");
  if (question.IsString()) securityQuestion.assign(question.GetString(), question.GetStringLength());
  const Value& elements = member(result, "mechs");
  if (!elements.IsArray() || elements.Empty()) {
    LUMO_THROW(lumo::CloudException, -1, "Errors in parsing policy from Json: no mechanisms exist");
  }
  std::array<std::optional<std::size_t>, 2> places;  // of the optional mechanisms' challenge, of the required one's
  for (const Value& element : elements.GetArray()) {
    std::string required;
    getJsonString(element, "required", required);
    CloudAuthMechanism mechanism = parseMechanism(element);
    const bool isRequired = required == "True";
    std::optional<std::size_t>& place = places[isRequired ? 1 : 0];
    if (isRequired && place) {
      LUMO_THROW(lumo::CloudException, -1,
                 "Errors in parsing policy from Json: there're more than one required mechanisms in REST V0");
    }
    if (!place) {
      place = challenges.size();
      challenges.emplace_back();
      challenges.back().name = isRequired ? "Challenge1 required" : "Challenge2 optional";
      challenges.back().required = isRequired;
    }
    challenges[*place].mechanisms.push_back(std::move(mechanism));
  }
  return AUTH_NEXT_CHALLENGE;
}
