// Replies in the login dialogues of the versions 0 and 1.0: whatever comes, nothing escapes but what the dialogues
// name, and the records are those of the reply.
#include <cstdint>
#include <cstdlib>
#include <set>
#include <stdexcept>
#include <string>

#include "cloud/login/tests/cloud_auth_v0_client.h"
#include "cloud/login/tests/cloud_auth_v1_client.h"

namespace {

void require(bool good) {
  if (!good) std::abort();
}

// What the step returns; FAILED when it throws what it may throw.
constexpr int FAILED = -1;
template <class Step>
int statusOf(Step step, bool mayBeOutOfRange) {
  try {
    return step();
  } catch (const lumo::CloudException& failure) {
    require(std::string(failure.what()).rfind("Errors in parsing ", 0) == 0 && failure.rc() == -1);
  } catch (const std::out_of_range&) {
    require(mayBeOutOfRange);
  }
  return FAILED;
}

const rapidjson::Value& listOf(const rapidjson::Document& document, const char* key) {
  return CloudAuth::member(CloudAuth::member(document, "Result"), key);
}

// 0 for what is no list.
std::size_t sizeOf(const rapidjson::Value& list) { return list.IsArray() ? list.Size() : 0; }

void readByVersion0(const std::string& body) {
  V0Client client;
  client.judge(body);
  const int status = statusOf([&client] { return client.parsePolicy(); }, true);
  require(status == FAILED || status == AUTH_NEXT_CHALLENGE);
  require(client.challenges.size() <= 2);
  std::size_t mechanisms = 0;
  for (const CloudAuthChallenge& one : client.challenges) {
    mechanisms += one.mechanisms.size();
    require(!one.done && !one.mechanisms.empty());
    require(one.name == (one.required ? "Challenge1 required" : "Challenge2 optional"));
    require(!one.required || one.mechanisms.size() == 1);
    for (const CloudAuthMechanism& mechanism : one.mechanisms) {
      require(mechanism.mechanismId.compare(0, mechanism.name.size(), mechanism.name) == 0);
      require(mechanism.outOfBand || mechanism.answerType == ANSWER_TEXT || mechanism.name == "OTP");
    }
  }
  const std::size_t given = sizeOf(listOf(client.document, "mechs"));
  require(status == FAILED ? mechanisms <= given : mechanisms == given);
  const int success = statusOf([&client] { return client.parseAdvanceResult(); }, false);
  require(success == FAILED || success == 0 || success == 1);
}

// The reply's challenges, as far as they could be read.
void requireRecordsOf(const V1Client& client, bool whole) {
  const rapidjson::Value& given = listOf(client.document, "Challenges");
  require(whole ? client.challenges.size() == sizeOf(given) : client.challenges.size() <= sizeOf(given));
  std::set<std::string> names;
  for (const CloudAuthChallenge& one : client.challenges) {
    const rapidjson::Value& element = given[static_cast<rapidjson::SizeType>(names.size())];
    require(one.mechanisms.size() == sizeOf(CloudAuth::member(element, "Mechanisms")));
    require(one.name == "Challenge_" + std::to_string(names.size()));
    require(names.insert(one.name).second && one.required && !one.done);
    for (const CloudAuthMechanism& mechanism : one.mechanisms) {
      require(mechanism.answerType >= ANSWER_TEXT && mechanism.answerType <= ANSWER_UNKNOWN);
      require(mechanism.outOfBand == (mechanism.answerType != ANSWER_TEXT));
      require(mechanism.message.empty() && !mechanism.answerPrompt.empty());
      require(!mechanism.selectText.empty() || mechanism.name.empty());
    }
  }
}

void readByVersion1(const std::string& body) {
  V1Client client;
  client.judge(body);
  const int status = statusOf([&client] { return client.parsePolicy(); }, false);
  require(status == FAILED || status == AUTH_NEXT_CHALLENGE);
  requireRecordsOf(client, status != FAILED);

  V1Client other;
  other.judge(body);
  const int next = statusOf([&other] { return other.parseAdvanceResult(); }, false);
  require(next == FAILED || (next >= AUTH_FAILED && next <= AUTH_PENDING));
  std::string summary;
  CloudAuth::getJsonStringOptional(CloudAuth::member(other.document, "Result"), "Summary", summary);
  if (summary == "NewPackage") {
    require(next == status && other.challenges.size() == client.challenges.size());
  } else {
    require(other.challenges.empty() && other.sessionId.empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  readByVersion0(body);
  readByVersion1(body);
  return 0;
}
