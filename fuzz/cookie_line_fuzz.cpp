// Lines of libcurl's cookie list, put into the cookie engine and then read by setCookie: the first ".ASPXAUTH" of the
// list goes, every other cookie stays until its time has come. A session is read only for a host of its domain.
#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "base/include/exceptions.h"
#include "cloud/include/curl_object.h"

namespace {

std::vector<std::string> cookiesOf(CURL* handle) {
  std::vector<std::string> lines;
  curl_slist* list = nullptr;
  if (curl_easy_getinfo(handle, CURLINFO_COOKIELIST, &list) != CURLE_OK) return lines;
  for (const curl_slist* node = list; node != nullptr; node = node->next) lines.emplace_back(node->data);
  curl_slist_free_all(list);
  return lines;
}

// The field between tabs at this place, counted from 0.
std::string fieldOf(const std::string& line, int place) {
  size_t at = 0;
  for (int field = 0; field < place; ++field) {
    at = line.find('\t', at);
    if (at == std::string::npos) return std::string();
    ++at;
  }
  return line.substr(at, line.find('\t', at) - at);
}

bool isSession(const std::string& line) { return fieldOf(line, 5) == ".ASPXAUTH"; }

// The engine keeps an expired cookie until it looks the next time, but never sends it.
bool isExpiredSession(const std::string& line) { return isSession(line) && fieldOf(line, 4) == "1"; }

// Its time has come: the engine may drop it whenever it looks.
bool isOver(const std::string& line) {
  const long long expiry = std::strtoll(fieldOf(line, 4).c_str(), nullptr, 10);
  return expiry != 0 && expiry <= static_cast<long long>(std::time(nullptr));
}

bool contains(const std::vector<std::string>& lines, const std::string& wanted) {
  return std::find(lines.begin(), lines.end(), wanted) != lines.end();
}

// Is one of the sessions for that host? Its domain may begin with a mark of libcurl's and a dot.
bool isSessionFor(const std::vector<std::string>& lines, const std::string& host, const std::string& value) {
  return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
    std::string domain = fieldOf(line, 0);
    if (domain.compare(0, 10, "#HttpOnly_") == 0) domain.erase(0, 10);
    if (!domain.empty() && domain[0] == '.') domain.erase(0, 1);
    std::transform(domain.begin(), domain.end(), domain.begin(), [](unsigned char c) { return std::tolower(c); });
    const bool below = fieldOf(line, 1) == "TRUE" && ("." + host).size() > domain.size() &&
                       ("." + host).compare(host.size() - domain.size(), std::string::npos, "." + domain) == 0;
    return isSession(line) && fieldOf(line, 6).compare(0, value.size(), value) == 0 && (domain == host || below);
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static CurlObject object;
  curl_easy_setopt(object.handle, CURLOPT_COOKIELIST, "ALL");
  std::string line;
  for (size_t i = 0; i <= size; ++i) {
    if (i < size && data[i] != '\n') {
      line += static_cast<char>(data[i]);
      continue;
    }
    curl_easy_setopt(object.handle, CURLOPT_COOKIELIST, line.c_str());
    line.clear();
  }
  const auto before = cookiesOf(object.handle);
  const std::string read = object.cookie(".ASPXAUTH", "https://pod.example.test/");
  if (!read.empty() && !isSessionFor(before, "pod.example.test", read)) std::abort();
  try {
    object.setCookie(".ASPXAUTH=new");
  } catch (const lumo::CurlException&) {
    return 0;
  }
  const auto after = cookiesOf(object.handle);
  for (const auto& cookie : before) {
    if (!isSession(cookie) && !isOver(cookie) && !contains(after, cookie)) std::abort();
  }
  for (const auto& cookie : after) {
    if (!contains(before, cookie) && !isExpiredSession(cookie)) std::abort();
  }
  return 0;
}
