#include "cloud/include/cloud_auth.h"

#include <string_view>

#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"
#include "cloud/http/http_status.h"
#include "cloud/include/curl_object.h"

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
  LUMO_LOG(log, 1, "Dumping X-MRV-* headers:");
  if (curl == nullptr || !log->isLevelEnabled(1)) return;
  for (const std::string& line : curl->lastHeaderLines()) {
    if (contains(line, "X-MRV-")) LUMO_LOG(log, 1, "%s", line.c_str());
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
  LUMO_LOG(log, 1, "HTTP code = %ld", httpCode);
  dumpMrvHeader();
  if (httpCode != HTTP_OK) return 0;
  return readReply(log, responseBody, document);
}

int CloudAuth::readReply(const boost::shared_ptr<lumo::Logger>& log, const std::string& body,
                         rapidjson::Document& document) {
  LUMO_LOG(log, 0, "HTTP response: %s", body.c_str());
  parseJson(document, body);
  if (member(document, "success").IsTrue()) return 1;
  const auto read = [&document](const char* key) {
    std::string value;
    getJsonStringOptional(document, key, value);
    return value;
  };
  LUMO_LOG(log, 1,
           "processResult returns false, error information from cloud errorCode = %s, errorId = %s, message = %s, "
           "messageId = %s.",
           read("ErrorCode").c_str(), read("ErrorID").c_str(), read("Message").c_str(), read("MessageID").c_str());
  return 0;
}
