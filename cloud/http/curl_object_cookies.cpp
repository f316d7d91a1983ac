#include <strings.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <string_view>

#include "cloud/http/curl_object_internal.h"

namespace {

constexpr char WHITE_SPACE[] = " \t\n\v\f\r";

// One line of libcurl's cookie list: domain, tail match, path, secure, expiry, name, value, written with tabs. Views
// into the line: a copy of a session would have to be wiped.
class CookieLine {
 public:
  // False when it has not all seven fields.
  bool parse(std::string_view line) {
    for (std::string_view& field : m_fields) {
      line.remove_prefix(std::min(line.find_first_not_of(WHITE_SPACE), line.size()));
      field = line.substr(0, line.find_first_of(WHITE_SPACE));
      if (field.empty()) return false;
      line.remove_prefix(field.size());
    }
    return true;
  }
  std::string_view name() const { return m_fields[NAME]; }
  std::string_view value() const { return m_fields[VALUE]; }
  // Would it be sent to that host? The domain may begin with a mark of libcurl's and a dot.
  bool isFor(const std::string& host) const {
    std::string_view domain = m_fields[DOMAIN];
    if (domain.substr(0, HTTP_ONLY.size()) == HTTP_ONLY) domain.remove_prefix(HTTP_ONLY.size());
    if (!domain.empty() && domain.front() == '.') domain.remove_prefix(1);
    if (domain.empty() || domain.size() > host.size()) return false;
    const size_t before = host.size() - domain.size();
    if (strncasecmp(host.data() + before, domain.data(), domain.size()) != 0) return false;
    return before == 0 || (m_fields[TAIL_MATCH] == "TRUE" && host[before - 1] == '.');
  }
  std::string expired() const {
    std::string line(m_fields[0]);
    for (size_t field = 1; field < m_fields.size(); ++field) {
      line.append("\t").append(field == EXPIRY ? "1" : m_fields[field]);
    }
    return line;
  }

 private:
  enum Field : size_t { DOMAIN, TAIL_MATCH, EXPIRY = 4, NAME, VALUE, COUNT };
  static constexpr std::string_view HTTP_ONLY = "#HttpOnly_";

  std::array<std::string_view, COUNT> m_fields;
};

CurlList cookieList(CURL* handle) {
  curl_slist* list = nullptr;
  return CurlList(curl_easy_getinfo(handle, CURLINFO_COOKIELIST, &list) == CURLE_OK ? list : nullptr);
}

// The first cookie of that name, for that host where one is given; the line stays part of the list.
bool findCookie(const CurlList& list, std::string_view name, CookieLine& line, const std::string* host = nullptr) {
  for (const curl_slist* node = list.get(); node != nullptr; node = node->next) {
    if (line.parse(node->data) && line.name() == name && (host == nullptr || line.isFor(*host))) return true;
  }
  return false;
}

// Empty where the text is no URL.
std::string hostOf(const std::string& url) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), &curl_url_cleanup);
  char* host = nullptr;
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
      curl_url_get(parsed.get(), CURLUPART_HOST, &host, 0) != CURLUE_OK) {
    return std::string();
  }
  const std::unique_ptr<char, decltype(&curl_free)> owner(host, &curl_free);
  return host;
}

}  // namespace

void CurlObject::setCookie(const std::string& cookie) {
  const CurlList list = cookieList(handle);
  CookieLine line;
  if (findCookie(list, CurlObject::SESSION_COOKIE, line)) {
    std::string expired = line.expired();
    const WipeAtEnd wipeLine(expired);
    setOpt(CURLOPT_COOKIELIST, expired);
  }
  setOpt(CURLOPT_COOKIE, cookie);
}

void CurlObject::noteCookie(std::string_view headerLine) {
  constexpr std::string_view HEADER = "set-cookie:";
  if (headerLine.size() < HEADER.size() || strncasecmp(headerLine.data(), HEADER.data(), HEADER.size()) != 0) return;
  headerLine.remove_prefix(HEADER.size());
  headerLine.remove_prefix(std::min(headerLine.size(), headerLine.find_first_not_of(' ')));
  constexpr size_t NAME = sizeof CurlObject::SESSION_COOKIE - 1;
  // One without a value is no session.
  const bool isSession = headerLine.size() > NAME + 1 && headerLine.substr(0, NAME) == CurlObject::SESSION_COOKIE &&
                         headerLine[NAME] == '=' && std::isalnum(static_cast<unsigned char>(headerLine[NAME + 1])) != 0;
  (isSession ? hasSession : hasOtherCookies) = true;
}

void CurlObject::forgetSession() {
  const CurlList list = hasSession && !hasOtherCookies ? CurlList() : cookieList(handle);
  // Without a list there is nothing else to keep, or no memory for it: the session goes all the same.
  if (hasSession && !list) setCurl(handle, CURLOPT_COOKIELIST, "ALL");
  for (const curl_slist* node = list.get(); node != nullptr; node = node->next) {
    CookieLine line;
    if (!line.parse(node->data) || line.name() != CurlObject::SESSION_COOKIE) continue;
    std::string expired = line.expired();
    const WipeAtEnd wipeLine(expired);
    setCurl(handle, CURLOPT_COOKIELIST, expired.c_str());
  }
  hasSession = false;
  clearOpt(CURLOPT_COOKIE);
}

std::string CurlObject::cookie(const std::string& name, const std::string& url) const {
  const std::string host = hostOf(url);
  const CurlList list = cookieList(handle);
  CookieLine line;
  return findCookie(list, name, line, &host) ? std::string(line.value()) : std::string();
}
