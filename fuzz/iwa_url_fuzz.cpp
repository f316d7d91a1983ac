// IWA URLs as a configuration or a connector may spell them: their host, and the search for it.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "basalt/directory/directory_object.h"
#include "cloud/route/cloudconnectorlocator_record.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

// The value of the filter's second term with its escapes undone (RFC 4515).
std::string unescaped(const std::string& value) {
  std::string plain;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\') {
      plain += value[i];
      continue;
    }
    require(i + 2 < value.size());
    plain += static_cast<char>(std::stoi(value.substr(i + 1, 2), nullptr, 16));
    i += 2;
  }
  return plain;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string url(reinterpret_cast<const char*>(data), size);
  const std::string host = getFqdnFromUrl(url);
  // The host is what stands between the first "://" and the next colon, and nothing else.
  const std::size_t scheme = url.find("://");
  require(host.find(':') == std::string::npos);
  if (scheme == std::string::npos) {
    require(host.empty());
    return 0;
  }
  const std::size_t end = url.find(':', scheme + 3);
  require(host == (end == std::string::npos ? std::string() : url.substr(scheme + 3, end - scheme - 3)));

  // Two terms whatever the host says, and the second one means the host.
  const std::string begin = std::string("(objectCategory=computer)(") + AD_DNS_NAME + "=";
  const std::string filter = computerFilter(host);
  require(filter.compare(0, begin.size(), begin) == 0 && filter.back() == ')');
  const std::string value = filter.substr(begin.size(), filter.size() - begin.size() - 1);
  require(value.find_first_of(std::string("*()\0", 4)) == std::string::npos);
  require(unescaped(value) == host);
  return 0;
}
