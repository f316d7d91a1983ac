// Replies of the platform: whatever comes, success is only the boolean true, and what was read writes back to itself.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "cloud/login/tests/cloud_auth_client.h"

namespace {

using Client = AuthClient;

std::string textOf(const rapidjson::Value& value) {
  std::string text;
  CloudAuth::jsonToString(text, value);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  Client client;
  const int verdict = client.judge(200, body);
  if (verdict != 0 && body.find("true") == std::string::npos) std::abort();
  if (verdict != (CloudAuth::member(client.document, "success").IsTrue() ? 1 : 0)) std::abort();

  for (const char* key : {"Result", "Message", "ErrorCode", "", "success"}) {
    std::string optional = "before";
    CloudAuth::getJsonStringOptional(client.document, key, optional);
    std::string strict;
    bool isText = true;
    try {
      CloudAuth::getJsonString(client.document, key, strict);
    } catch (const lumo::CloudException&) {
      isText = false;
    }
    if (strict != optional || isText != CloudAuth::member(client.document, key).IsString()) std::abort();
  }

  // Once written, a text stays as it is: numbers settle at the first writing.
  const std::string once = textOf(client.document);
  Client again;
  again.judge(200, once);
  if (!client.document.IsNull() && textOf(again.document) != once) std::abort();
  return 0;
}
