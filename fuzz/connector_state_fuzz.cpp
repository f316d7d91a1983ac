// The state that the last process left of its connectors: which line counts, and what its fields become. The first line
// of the input is the zone's platform URL.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/include/printable.h"
#include "cloud/route/cloudconnectorlocator_record.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

// The pieces between the separators, counted another way than the code does.
std::vector<std::string> pieces(const std::string& text, char separator) {
  std::vector<std::string> all(1);
  for (const char c : text) {
    if (c == separator) {
      all.emplace_back();
    } else {
      all.back() += c;
    }
  }
  return all;
}

std::string valueOf(const ADObjectPtr& record, const char* setting) { return record->getString(setting, "(none)"); }

void requireServices(const ADObjectPtr& record, const std::vector<std::string>& fields) {
  const bool web = fields[4] != "-";
  const bool iwa = fields[5] != "-";
  const bool https = iwa && fields[6] != "-";
  require(valueOf(record, LUMO_CLOUD_WEB_PROXY) == fields[2] + ":" + fields[4]);
  require(valueOf(record, LUMO_CLOUD_WEB_PROXYENABLED) == (web ? "True" : "(none)"));
  require(valueOf(record, LUMO_CLOUD_CONNECTOR_IWA_ENABLED) == (iwa ? "True" : "False"));
  require(valueOf(record, LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS) == (https ? "True" : "False"));
  // What was written comes out as it went in, but for an HTTPS port without an HTTP port.
  const ConnectorPorts ports = connectorPorts(record);
  require(ports.webProxy == fields[4]);
  require(ports.iwaHttp == fields[5]);
  require(ports.iwaHttps == (iwa ? fields[6] : "-"));
}

// Does such a line count? At least seven fields, none empty, and in the first seven no byte that would be escaped.
bool counts(const std::vector<std::string>& fields) {
  if (fields.size() < 7 || std::count(fields.begin(), fields.end(), "") > 0) return false;
  return std::all_of(fields.begin(), fields.begin() + 7,
                     [](const std::string& field) { return lumo::printable(field) == field; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = input.find('\n');
  const std::string zoneUrl = input.substr(0, end);
  const std::string state = end == std::string::npos ? std::string() : input.substr(end + 1);
  const ADObjectPtr record = connectorOfState(state, zoneUrl);
  for (const std::string& line : pieces(state, '\n')) {
    const std::vector<std::string> fields = pieces(line, '|');
    if (!counts(fields) || (!zoneUrl.empty() && fields[0] != zoneUrl)) continue;
    require(lumo::ADObject::isValid(record));
    require(valueOf(record, LUMO_CLOUD_PROXY_SCP) == "true");
    require(valueOf(record, LUMO_CLOUD_URL) == fields[0]);
    require(valueOf(record, LUMO_CLOUD_CONNECTOR_SITE) == fields[1]);
    require(valueOf(record, LUMO_CLOUD_PROXY_FQDN) == fields[2]);
    require(valueOf(record, LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME) == fields[2]);
    require(valueOf(record, LUMO_CLOUD_TENANT_ID) == fields[3]);
    requireServices(record, fields);
    return 0;
  }
  require(!record);
  return 0;
}
