// The decision whether a failed request is worth one repeat, over header lines of any kind, beside a second writing of
// the rule: the first status line that is no 407 ends it, a Proxy-Authenticate line with " Negotiate" behind a 407 is
// the hit.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "cloud/http/curl_gsssetup.h"

namespace {

// The machine always has a cache, so that the decision rests on the lines alone.
class MachineOnly : public KerberosCredentialSource {
 public:
  krb5_error_code ticketByPassword(krb5_context, krb5_principal, const lumo::Shredder&, const std::string&, int,
                                   krb5_creds*, std::string*) override {
    return KRB5_CC_NOTFOUND;
  }
  std::string machineCache() override { return "FILE:/nonexistent/machine.ccache"; }
};

std::string trimmed(const std::string& line) {
  const char* space = " \t\n\v\f\r";
  const size_t first = line.find_first_not_of(space);
  if (first == std::string::npos) return std::string();
  return line.substr(first, line.find_last_not_of(space) - first + 1);
}

bool expected(const std::vector<std::string>& lines) {
  bool saw407 = false;
  for (const auto& raw : lines) {
    const std::string line = trimmed(raw);
    if (line.rfind("HTTP/", 0) == 0) {
      if (line.find("407 Proxy Authentication Required") == std::string::npos) return false;
      saw407 = true;
    } else if (saw407 && line.rfind("Proxy-Authenticate:", 0) == 0 && line.find(" Negotiate") != std::string::npos) {
      return true;
    }
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MachineOnly source;
  static CurlProxyNegotiateHelper helper;
  KerberosCredentialSource::setInstance(&source);
  helper.setCredentials("S-1-5-18", lumo::Shredder2());
  std::vector<std::string> lines;
  std::string line;
  for (size_t i = 0; i < size; ++i) {
    line += static_cast<char>(data[i]);
    if (data[i] == '\n') {
      lines.push_back(line);
      line.clear();
    }
  }
  if (!line.empty()) lines.push_back(line);
  if (helper.handleKrb5CCache(lines) != expected(lines)) std::abort();
  return 0;
}
