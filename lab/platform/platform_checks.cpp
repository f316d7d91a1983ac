// What a request has to look like: headers, query and body, to the byte.
#include <strings.h>

#include <algorithm>
#include <array>

#include "lab/platform/platform_core.h"

namespace ferrolab {
namespace {

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::vector<std::string> namesOf(const Pairs& pairs) {
  std::vector<std::string> names;
  for (const auto& [name, value] : pairs) names.push_back(name);
  return names;
}

bool isNumber(const std::string& text) {
  const size_t digits = text.empty() || text[0] != '-' ? 0 : 1;
  return text.size() > digits && text.find_first_not_of("0123456789", digits) == std::string::npos;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string decoded(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '%' && i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
    const int low = high < 0 ? -1 : hexDigit(text[i + 2]);
    if (low < 0) {
      out += text[i];
    } else {
      out += static_cast<char>(high * 16 + low);
      i += 2;
    }
  }
  return out;
}

// Every byte but the unreserved ones of RFC 3986.
std::string encoded(const std::string& text) {
  constexpr char DIGITS[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool unreserved = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' ||
                            c == '.' || c == '_' || c == '~';
    if (unreserved) {
      out += c;
    } else {
      out += {'%', DIGITS[byte >> 4U], DIGITS[byte & 15U]};
    }
  }
  return out;
}

Pairs splitQuery(const std::string& query) {
  Pairs pairs;
  for (size_t start = 0; start < query.size();) {
    const size_t end = std::min(query.find('&', start), query.size());
    const std::string entry = query.substr(start, end - start);
    const size_t equals = std::min(entry.find('='), entry.size());
    pairs.emplace_back(decoded(entry.substr(0, equals)), decoded(entry.substr(std::min(equals + 1, entry.size()))));
    start = end + 1;
  }
  return pairs;
}

}  // namespace

const std::string& valueOf(const Pairs& pairs, const char* name) {
  static const std::string none;
  const auto found = std::find_if(pairs.begin(), pairs.end(), [name](const auto& pair) { return pair.first == name; });
  return found == pairs.end() ? none : found->second;
}

int Call::count(const char* name, std::string& value) const {
  int found = 0;
  for (const auto& header : headers) {
    if (strcasecmp(header.first.c_str(), name) != 0) continue;
    ++found;
    value = header.second;
  }
  return found;
}

void PlatformCore::checkHeaders(const Call& call) {
  static const std::array<std::pair<const char*, const char*>, 4> expected{{{"Content-Type", "application/json"},
                                                                            {"X-MORVANE-NATIVE-CLIENT", "1"},
                                                                            {"X-MRV-SRC", "QRS"},
                                                                            {"X-TZOFF", nullptr}}};
  // Who reports events tells no time zone, neither with them nor at the sign-in before, which others make too.
  const bool isOfEvents = call.path == "qrsintegration/LogPrivEvent" || call.path == "security/sso";
  for (const auto& [name, wanted] : expected) {
    std::string value;
    const int found = call.count(name, value);
    if (found == 0) {
      if (wanted != nullptr || !isOfEvents) surprise(call, std::string("no header ") + name);
    } else if (found > 1) {
      surprise(call, std::string("the header ") + name + " comes " + std::to_string(found) + " times");
    } else if (wanted != nullptr ? value != wanted : !isNumber(value)) {
      surprise(call, std::string("the header ") + name + " is '" + value + "'");
    }
  }
}

bool PlatformCore::expectNoQuery(const Call& call) {
  if (!call.hasQuery) return true;
  surprise(call, "parameters where none belong: '" + call.query + "'");
  return false;
}

PlatformCore::Strings PlatformCore::queryOf(const Call& call, const std::vector<std::string>& names) {
  Pairs pairs = splitQuery(call.query);
  std::string again;
  for (const auto& [name, value] : pairs) again += (again.empty() ? "" : "&") + encoded(name) + "=" + encoded(value);
  if (namesOf(pairs) == names && again == call.query) return pairs;
  surprise(call, "the parameters are '" + call.query + "' and not those of " + joined(names));
  return std::nullopt;
}

PlatformCore::Strings PlatformCore::bodyOf(const Call& call) {
  rapidjson::Document document;
  document.Parse(call.body.data(), call.body.size());
  if (document.HasParseError() || !document.IsObject()) {
    surprise(call, "the body is no JSON object");
    return std::nullopt;
  }
  if (written(document) != call.body) surprise(call, "the body is not compact JSON");
  Pairs pairs;
  for (const auto& entry : document.GetObject()) {
    const std::string name = stringOf(entry.name);
    if (!entry.value.IsString()) {
      surprise(call, "the member '" + name + "' is no text");
      return std::nullopt;
    }
    pairs.emplace_back(name, stringOf(entry.value));
  }
  return pairs;
}

bool PlatformCore::expectNames(const Call& call, const Pairs& body, const std::vector<std::string>& names) {
  const auto found = namesOf(body);
  if (found == names) return true;
  surprise(call, "the body has the members " + joined(found) + " and not " + joined(names));
  return false;
}

}  // namespace ferrolab
