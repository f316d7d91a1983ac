#include "cloud/rest/platform_url.h"

#include <algorithm>
#include <utility>

#include "basalt/settings/zone_hierarchy.h"
#include "base/include/parameter_names.h"
#include "base/include/printable.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"
#include "cloud/include/cloud_exceptions.h"

namespace {

constexpr char SCHEME_END[] = "://";
constexpr char TLS[] = "https://";
// Of a URL in a message.
constexpr std::size_t SHOWN_BYTES = 200;

bool hasScheme(const std::string& url) { return url.find(SCHEME_END) != std::string::npos; }

// Libcurl takes "http:/host" for "http://host".
bool mayHaveScheme(const std::string& url) { return url.find(":/") != std::string::npos; }

bool hasTls(const std::string& url) { return lower(url.substr(0, sizeof TLS - 1)) == TLS; }

// Where the host and the port of a URL begin and end, a user's name among them.
std::pair<std::size_t, std::size_t> authorityOf(const std::string& url) {
  const std::size_t begin = hasScheme(url) ? url.find(SCHEME_END) + sizeof SCHEME_END - 1 : 0;
  return {begin, std::min(url.find_first_of("/?#", begin), url.size())};
}

// A base URL ends in "/", behind its whole host: else "http://platform" would be that of http://platform.evil.test/
// too.
bool isBelow(const std::string& url, const std::string& base) {
  if (!hasScheme(base) || base.back() != '/') return false;
  const auto [begin, end] = authorityOf(base);
  return begin < end && end < base.size() && url.compare(0, base.size(), base) == 0;
}

// Scheme, host and port: what stands behind may be a code, what stands before a password.
std::string shown(const std::string& url) {
  const auto [begin, end] = authorityOf(url);
  const std::size_t at = url.rfind('@', end);
  const std::size_t host = at == std::string::npos || at < begin ? begin : at + 1;
  return lumo::printable(url.substr(0, begin) + url.substr(host, end - host), SHOWN_BYTES);
}

}  // namespace

void requirePlatformUrl(const std::string& url) {
  // Libcurl would take the first word of a path for a host, and tell it in the clear what is the platform's to know.
  if (!hasScheme(url)) {
    LUMO_THROW(
        lumo::CloudException, -1,
        "The platform's URL is empty or has no scheme: set %s, or %s for a hierarchical zone, beginning with https://",
        lumo::PN::LEGACYZONE_CLOUDURL, lumo::PN::ZONE_CLOUDURL);
  }
  if (hasTls(url) || isBelow(url, lumo::ZoneHierarchy::GetZoneHierarchy()->getCloudUrl())) return;
  LUMO_THROW(
      lumo::CloudException, -1,
      "The platform's URL has no TLS: nothing is sent to %s unless %s, or %s for a hierarchical zone, names that "
      "very URL",
      shown(url).c_str(), lumo::PN::LEGACYZONE_CLOUDURL, lumo::PN::ZONE_CLOUDURL);
}

void requireSignInUrl(const std::string& url) {
  if (!mayHaveScheme(url) || hasTls(url)) return;
  if (isBelow(url, lumo::Props(false, false).getProperty(lumo::PN::CLOUD_IWA_URL_OVERRIDE))) return;
  LUMO_THROW(lumo::CloudException, -1,
             "The URL of the sign-in has no TLS: nothing is sent to %s unless %s names that very URL",
             shown(url).c_str(), lumo::PN::CLOUD_IWA_URL_OVERRIDE);
}
