#include "cloud/http/curl_object_challenge.h"

#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "basalt/files/base64.h"

namespace {

constexpr long BASIC = static_cast<long>(CURLAUTH_BASIC);
constexpr long PROXY_AUTHENTICATION_REQUIRED = 407;

struct Scheme {
  std::string_view name;
  long mask;
};
// From the strongest to the weakest, as libcurl prefers them.
constexpr Scheme SCHEMES[] = {
    {"Negotiate", static_cast<long>(CURLAUTH_NEGOTIATE)},
    {"Digest", static_cast<long>(CURLAUTH_DIGEST)},
    {"NTLM", static_cast<long>(CURLAUTH_NTLM)},
    {"Basic", BASIC},
};
constexpr long BETTER_THAN_BASIC = static_cast<long>(CURLAUTH_NEGOTIATE | CURLAUTH_DIGEST | CURLAUTH_NTLM);

// All that libcurl passes over, and the zero byte at which it takes a line to end.
constexpr std::string_view SPACE("\0 \t\n\v\f\r", 7);

bool isSpace(char c) { return SPACE.find(c) != std::string_view::npos; }

bool equalsIgnoringCase(std::string_view one, std::string_view other) {
  return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(SPACE), text.size()));
  return text.substr(0, text.find_last_not_of(SPACE) + 1);
}

// The value of a header line of that name. Blanks before the colon are no part of the name: some proxies write them.
std::optional<std::string_view> valueOf(std::string_view line, std::string_view name) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos || !equalsIgnoringCase(trimmed(line.substr(0, colon)), name)) return std::nullopt;
  return line.substr(colon + 1);
}

// One behind the end of the quoted string that begins at `quote`; one behind the mark itself when it never ends.
std::size_t endOfQuoted(std::string_view text, std::size_t quote) {
  for (std::size_t i = quote + 1; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      return i + 1;
    }
  }
  return quote + 1;
}

long maskOf(std::string_view word) {
  const auto* found = std::find_if(std::begin(SCHEMES), std::end(SCHEMES),
                                   [word](const Scheme& scheme) { return equalsIgnoringCase(scheme.name, word); });
  return found == std::end(SCHEMES) ? 0 : found->mask;
}

std::string namesOf(long schemes) {
  std::string names;
  for (const Scheme& scheme : SCHEMES) {
    if ((schemes & scheme.mask) == 0) continue;
    names.append(names.empty() ? "" : ", ").append(scheme.name);
  }
  return names;
}

std::uint32_t littleEndian(const std::string& bytes, std::size_t offset, std::size_t count) {
  std::uint32_t value = 0;
  for (std::size_t i = count; i > 0; --i) value = value << 8 | static_cast<unsigned char>(bytes[offset + i - 1]);
  return value;
}

// CHALLENGE_MESSAGE of MS-NLMP, section 2.2.1.2.
const char* faultOfChallenge(std::string_view token) {
  static constexpr std::string_view START("NTLMSSP\0\x02\0\0\0", 12);
  constexpr std::size_t FLAGS = 20;
  constexpr std::size_t CHALLENGE_END = 32;
  constexpr std::size_t INFO_LENGTH = 40;
  constexpr std::size_t INFO_OFFSET = 44;
  constexpr std::size_t INFO_END = 48;
  constexpr std::uint32_t NTLM2 = 0x00080000;
  constexpr std::uint32_t TARGET_INFO = 0x00800000;

  const std::optional<std::string> message = fromBase64(std::string(token));
  if (!message || message->size() < CHALLENGE_END || message->compare(0, START.size(), START) != 0) {
    return "that is malformed";
  }
  const std::uint32_t flags = littleEndian(*message, FLAGS, 4);
  if ((flags & NTLM2) == 0) return "without the NTLM2 flag";
  if ((flags & TARGET_INFO) == 0 || message->size() < INFO_END) return "without target information";
  const std::size_t length = littleEndian(*message, INFO_LENGTH, 2);
  const std::size_t offset = littleEndian(*message, INFO_OFFSET, 4);
  if (length == 0) return "without target information";
  return offset > message->size() || length > message->size() - offset ? "that is malformed" : nullptr;
}

}  // namespace

long offeredSchemes(std::string_view value) {
  long schemes = 0;
  bool atStart = true;
  for (std::size_t i = 0; i < value.size();) {
    if (isSpace(value[i])) {
      ++i;
    } else if (value[i] == ',') {
      atStart = true;
      ++i;
    } else if (value[i] == '"') {
      i = endOfQuoted(value, i);
      atStart = false;
    } else {
      std::size_t end = i;
      while (end < value.size() && !isSpace(value[end]) && value[end] != ',' && value[end] != '"') ++end;
      if (atStart) schemes |= maskOf(value.substr(i, end - i));
      atStart = false;
      i = end;
    }
  }
  return schemes;
}

// Divided as libcurl does it, which ends a part at every comma, in a quoted string too.
const char* ntlmFault(std::string_view value) {
  static constexpr std::string_view NAME = "NTLM";
  for (std::size_t begin = 0; begin < value.size();) {
    const std::size_t comma = std::min(value.find(',', begin), value.size());
    const std::string_view part = trimmed(value.substr(begin, comma - begin));
    begin = comma + 1;
    if (part.size() <= NAME.size() || !equalsIgnoringCase(part.substr(0, NAME.size()), NAME)) continue;
    if (!isSpace(part[NAME.size()])) continue;
    if (const char* fault = faultOfChallenge(trimmed(part.substr(NAME.size())))) return fault;
  }
  return nullptr;
}

bool answersWithBasic(long mask, long offered, long offeredLast, long usable) {
  const bool isLastResort = (mask & BASIC) != 0 && mask != BASIC;
  const bool isOffered = ((offeredLast | usable) & BASIC) != 0;
  const bool hasBetter = (offeredLast & usable & mask & BETTER_THAN_BASIC) != 0;
  return isLastResort && isOffered && (offered & BETTER_THAN_BASIC) != 0 && !hasBetter;
}

void ChallengeGuard::begin() { *this = ChallengeGuard(); }

bool ChallengeGuard::judge(CURL* handle, std::string_view line, long proxyMask, long serverMask) {
  if (line.empty() || line[0] == '\r' || line[0] == '\n') return judgeOffers(handle, proxyMask);
  // A line that begins with a blank continues the one before it.
  const bool continues = m_inOffer && isSpace(line[0]);
  const std::optional<std::string_view> offer = continues ? line : valueOf(line, "Proxy-Authenticate");
  m_inOffer = offer.has_value();
  constexpr long NTLM = static_cast<long>(CURLAUTH_NTLM);
  if (offer) {
    m_offeredLast |= offeredSchemes(*offer);
    m_offered |= m_offeredLast;
    return (proxyMask & NTLM) == 0 || judgeChallenge("proxy", *offer);
  }
  const std::optional<std::string_view> challenge = valueOf(line, "WWW-Authenticate");
  return !challenge || (serverMask & NTLM) == 0 || judgeChallenge("web server", *challenge);
}

bool ChallengeGuard::judgeChallenge(const char* peer, std::string_view value) {
  const char* fault = ntlmFault(value);
  if (fault == nullptr) return true;
  m_refusal = std::string("The ") + peer + " sends an NTLM challenge " + fault +
              ". NTLM version 2 cannot answer it, and no weaker response is sent.";
  return false;
}

// A block of header lines is complete: from here on libcurl chooses its answer.
bool ChallengeGuard::judgeOffers(CURL* handle, long mask) {
  long status = 0;
  long usable = 0;
  curl_easy_getinfo(handle, CURLINFO_HTTP_CONNECTCODE, &status);
  curl_easy_getinfo(handle, CURLINFO_PROXYAUTH_AVAIL, &usable);
  const bool refused =
      status == PROXY_AUTHENTICATION_REQUIRED && answersWithBasic(mask, m_offered, m_offeredLast, usable);
  m_offeredLast = 0;
  m_inOffer = false;
  if (!refused) return true;
  m_refusal = "The proxy offers " + namesOf(m_offered & BETTER_THAN_BASIC) +
              ", which cannot be used here. The password is not sent by Basic in its place.";
  return false;
}
