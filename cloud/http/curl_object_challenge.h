// Our own reading of how a proxy or a web server asks for authentication. libcurl answers what it understands with the
// strongest scheme that it has; this decides whether that answer may be given at all.
#pragma once

#include <curl/curl.h>

#include <string>
#include <string_view>

// The schemes that the value of an authenticate header offers, as a mask of Basic, Digest, NTLM and Negotiate; others
// are not counted. Several may stand in one value (RFC 9110, section 11.6.1). A name inside a quoted string is none.
// Any thread.
long offeredSchemes(std::string_view value);

// Reads the NTLM challenges (type-2 messages) in the value of an authenticate header. Returns null when there is none
// or when each can be answered by NTLM version 2, else why one cannot: "that is malformed", "without the NTLM2 flag" or
// "without target information". libcurl answers those with LAN Manager and NTLM version 1 responses. Any thread.
const char* ntlmFault(std::string_view value);

// True when the next answer of libcurl would be Basic although something better was offered.
// `mask`: schemes that libcurl may use. Basic alone is somebody's decision; among others it is the last resort.
// `offered`: what the proxy offered in this exchange; `offeredLast`: what its last reply offered.
// `usable`: what libcurl has and has understood of the offers (CURLINFO_PROXYAUTH_AVAIL). Any thread.
bool answersWithBasic(long mask, long offered, long offeredLast, long usable);

// Judges the header lines of one exchange before libcurl acts on them. One thread, the transfer's.
class ChallengeGuard {
 public:
  // An exchange begins.
  void begin();
  // The next header line, with its line ending. The masks are those that libcurl has for the proxy and for the web
  // server. False when the transfer is to be ended; refusal() then says why. Throws std::bad_alloc only.
  bool judge(CURL* handle, std::string_view line, long proxyMask, long serverMask);
  // Why the exchange was ended, a sentence without foreign text; empty when it was not.
  const std::string& refusal() const { return m_refusal; }

 private:
  bool judgeChallenge(const char* peer, std::string_view value);
  bool judgeOffers(CURL* handle, long mask);

  bool m_inOffer = false;  // was the last line, or the one that it continues, a Proxy-Authenticate header?
  long m_offered = 0;
  long m_offeredLast = 0;
  std::string m_refusal;
};
