// Challenges of any bytes: once as the value of an authenticate header, line by line through the guard, once as an NTLM
// message, beside a second writing of the rule for that.
#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "basalt/files/base64.h"
#include "cloud/http/curl_object_challenge.h"

namespace {

bool names(const std::string& text, const char* scheme, std::size_t length) {
  for (std::size_t i = 0; i + length <= text.size(); ++i) {
    if (strncasecmp(text.data() + i, scheme, length) == 0) return true;
  }
  return false;
}

void judgeValue(const std::string& text) {
  const long offered = offeredSchemes(text);
  if ((offered & static_cast<long>(CURLAUTH_BASIC)) != 0 && !names(text, "basic", 5)) std::abort();
  if ((offered & static_cast<long>(CURLAUTH_DIGEST)) != 0 && !names(text, "digest", 6)) std::abort();
  if ((offered & static_cast<long>(CURLAUTH_NTLM)) != 0 && !names(text, "ntlm", 4)) std::abort();
  if ((offered & static_cast<long>(CURLAUTH_NEGOTIATE)) != 0 && !names(text, "negotiate", 9)) std::abort();
  if (ntlmFault(text) != nullptr && !names(text, "ntlm", 4)) std::abort();
}

void judgeLines(const std::string& text) {
  static CURL* const handle = curl_easy_init();
  ChallengeGuard guard;
  constexpr long ANY = static_cast<long>(CURLAUTH_ANY);
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
    const bool goesOn = guard.judge(handle, std::string_view(text).substr(begin, end - begin), ANY, ANY);
    if (goesOn != guard.refusal().empty()) std::abort();
    if (!goesOn) guard.begin();
    begin = end;
  }
}

bool isAnswerable(const std::string& message) {
  const auto byte = [&message](std::size_t at) { return std::size_t{static_cast<unsigned char>(message[at])}; };
  if (message.size() < 48 || message.substr(0, 12) != std::string("NTLMSSP\0\2\0\0\0", 12)) return false;
  if ((byte(22) & 0x88) != 0x88) return false;
  const std::size_t length = byte(40) + byte(41) * 256;
  const std::size_t offset = byte(44) + byte(45) * 0x100 + byte(46) * 0x10000 + byte(47) * 0x1000000;
  return length > 0 && offset + length <= message.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  judgeValue(text);
  judgeLines(text);
  const char* fault = ntlmFault(" NTLM " + toBase64(data, size));
  // Without a token there is no message to be judged.
  if (size != 0 && (fault == nullptr) != isAnswerable(text)) std::abort();
  return 0;
}
