#include "cloud/include/cloud_auth.h"

#include <string_view>

#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"
#include "cloud/http/http_status.h"
#include "cloud/include/curl_object.h"
#include "cloud/rest/json_reply.h"

namespace {

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.object", false); }

// A name alone, as DNS has them: user, port or path would lead the login to another place than the name says.
void requireHostName(std::string_view name) {
  constexpr std::size_t LONGEST = 253;
  constexpr std::string_view BYTES = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._";
  if (!name.empty() && name.size() <= LONGEST && name.find_first_not_of(BYTES) == std::string_view::npos) return;
  constexpr std::size_t SHOWN = 100;
  LUMO_THROW(lumo::CloudException, -1, "The platform leads the login to '%s', which is no host name",
             lumo::printable(name, SHOWN).c_str());
}

}  // namespace

void CloudAuth::dumpMrvHeader() {
  const auto log = logger();
  LUMO_LOG(log, lumo::level::Debug, "Dumping X-MRV-* headers:");
  if (curl == nullptr || !log->isLevelEnabled(lumo::level::Debug)) return;
  for (const std::string& line : curl->lastHeaderLines()) {
    if (contains(line, "X-MRV-")) LUMO_LOG(log, lumo::level::Debug, "%s", line.c_str());
  }
}

bool CloudAuth::turnToPod() {
  const rapidjson::Value& pod = member(member(document, "Result"), "PodFqdn");
  if (!pod.IsString()) return false;
  requireHostName({pod.GetString(), pod.GetStringLength()});
  podHost.assign(pod.GetString(), pod.GetStringLength());
  updateUrls();
  return true;
}

int CloudAuth::processResult() {
  const auto log = logger();
  LUMO_LOG(log, lumo::level::Debug, "HTTP code = %ld", httpCode);
  dumpMrvHeader();
  if (httpCode != HTTP_OK) return 0;
  return readReply(log, responseBody, document);
}

// The reading of a reply, under the names that an agent knows.

int CloudAuth::readReply(const boost::shared_ptr<lumo::Logger>& log, const std::string& body,
                         rapidjson::Document& document) {
  return lumo::readReply(log, body, document);
}

void CloudAuth::getJsonString(const rapidjson::Value& object, std::string_view key, std::string& out) {
  lumo::getJsonString(object, key, out);
}

void CloudAuth::getJsonStringOptional(const rapidjson::Value& object, std::string_view key, std::string& out) {
  lumo::getJsonStringOptional(object, key, out);
}

const rapidjson::Value& CloudAuth::member(const rapidjson::Value& object, std::string_view key) {
  return lumo::jsonMember(object, key);
}

void CloudAuth::parseJson(rapidjson::Document& out, std::string_view text) { lumo::parseJson(out, text); }

void CloudAuth::jsonToString(std::string& out, const rapidjson::Value& object) { lumo::jsonToString(out, object); }
