#include <algorithm>
#include <optional>

#include "base/include/exceptions.h"
#include "base/include/string_helpers.h"
#include "testsupport/memory_directory.h"

namespace testsupport {
namespace {

constexpr int LDAP_FILTER_ERROR_CODE = -7;

[[noreturn]] void badFilter() { LUMO_THROW(LDAPException, LDAP_FILTER_ERROR_CODE, "Bad search filter"); }

// The pieces of an assertion value between its stars, unescaped and in lower case; one piece means equality.
std::vector<std::string> pieces(const std::string& text) {
  std::vector<std::string> result(1);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '*') {
      result.emplace_back();
    } else if (text[i] == '\\') {
      if (i + 2 >= text.size() || !isxdigit(static_cast<unsigned char>(text[i + 1])) ||
          !isxdigit(static_cast<unsigned char>(text[i + 2]))) {
        badFilter();
      }
      result.back() += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      result.back() += text[i];
    }
  }
  for (std::string& piece : result) piece = lower(piece);
  return result;
}

bool matchesPieces(const std::string& value, const std::vector<std::string>& wanted) {
  if (wanted.size() == 1) return value == wanted.front();
  const std::string& last = wanted.back();
  if (value.compare(0, wanted.front().size(), wanted.front()) != 0) return false;
  std::size_t at = wanted.front().size();
  for (std::size_t i = 1; i + 1 < wanted.size(); ++i) {
    const std::size_t found = value.find(wanted[i], at);
    if (found == std::string::npos) return false;
    at = found + wanted[i].size();
  }
  return value.size() >= at + last.size() && value.compare(value.size() - last.size(), last.size(), last) == 0;
}

class FilterReader {
 public:
  FilterReader(const lumo::ADObject& object, const std::string& text) : m_object(object), m_text(text) {}

  bool whole() {
    const bool result = filter();
    if (m_at != m_text.size()) badFilter();
    return result;
  }

 private:
  char here() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }
  void need(char c) {
    if (here() != c) badFilter();
    ++m_at;
  }

  bool filter() {
    need('(');
    const bool result = body();
    need(')');
    return result;
  }

  bool body() {
    switch (here()) {
      case '&':
        ++m_at;
        return list(true);
      case '|':
        ++m_at;
        return list(false);
      case '!':
        ++m_at;
        return !filter();
      default:
        return item();
    }
  }

  // Every branch is read, so that a fault behind the deciding one is still found.
  bool list(bool all) {
    if (here() != '(') badFilter();
    bool result = all;
    while (here() == '(') {
      const bool one = filter();
      result = all ? result && one : result || one;
    }
    return result;
  }

  bool item() {
    const std::size_t equals = m_text.find('=', m_at);
    const std::size_t end = m_text.find_first_of("()", m_at);
    if (equals == std::string::npos || end == std::string::npos || equals > end || m_text[end] == '(' ||
        equals == m_at) {
      badFilter();
    }
    const std::string name = m_text.substr(m_at, equals - m_at);
    const std::string wanted = m_text.substr(equals + 1, end - equals - 1);
    m_at = end;
    if (name.find_first_of("<>~: ") != std::string::npos) badFilter();
    if (wanted == "*") return m_object.attributeExists(name, false);
    const auto parts = pieces(wanted);
    const auto& values = m_object[name].values();
    return std::any_of(values.begin(), values.end(),
                       [&](const std::string& value) { return matchesPieces(lower(value), parts); });
  }

  const lumo::ADObject& m_object;
  const std::string& m_text;
  std::size_t m_at = 0;
};

}  // namespace

std::optional<NamesAskedFor> namesAskedFor(const std::string& filter) {
  static const std::string whole = std::string("(") + AD_DN + "=";
  static const std::string common = std::string("(") + AD_CN + "=";
  const bool several = filter.compare(0, 2, "(|") == 0;
  NamesAskedFor names;
  std::size_t at = several ? 2 : 0;
  const auto begins = [&](const std::string& start) {
    return startsWith(filter.substr(at, start.size()), start, true, false);
  };
  while (begins(whole) || begins(common)) {
    const bool byWhole = begins(whole);
    const std::size_t value = at + (byWhole ? whole : common).size();
    const std::size_t end = filter.find(')', at);
    if (end == std::string::npos) return std::nullopt;
    const auto parts = pieces(filter.substr(value, end - value));
    if (parts.size() != 1) return std::nullopt;
    (byWhole ? names.whole : names.common).push_back(parts.front());
    at = end + 1;
    if (!several) break;
  }
  const bool toTheEnd = several ? at + 1 == filter.size() && filter[at] == ')' : at == filter.size();
  if ((names.whole.empty() && names.common.empty()) || !toTheEnd) return std::nullopt;
  return names;
}

bool matchesFilter(const lumo::ADObject& object, const std::string& filter) {
  return FilterReader(object, filter).whole();
}

}  // namespace testsupport
