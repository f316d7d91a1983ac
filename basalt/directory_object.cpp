#include <algorithm>
#include <charconv>
#include <cstdint>

#include "basalt/directory.h"
#include "base/include/exceptions.h"

namespace lumo {
namespace {

constexpr std::uint64_t MAX_AUTHORITY = (std::uint64_t{1} << 48) - 1;
constexpr std::uint64_t MAX_SUB_AUTHORITY = UINT32_MAX;
constexpr int MAX_SUB_AUTHORITIES = 15;

bool isNumber(const std::string& text, std::uint64_t max) {
  std::uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && stop == end && value <= max;
}

bool isSid(const std::string& text) {
  if (text.compare(0, 4, "S-1-") != 0) return false;
  int pieces = 0;
  for (std::size_t at = 4;; ++pieces) {
    const std::size_t dash = text.find('-', at);
    const std::string piece = text.substr(at, dash == std::string::npos ? dash : dash - at);
    if (!isNumber(piece, pieces == 0 ? MAX_AUTHORITY : MAX_SUB_AUTHORITY)) return false;
    if (dash == std::string::npos) return pieces >= 1 && pieces <= MAX_SUB_AUTHORITIES;
    at = dash + 1;
  }
}

}  // namespace

int ADAttribute::toInt() const {
  if (m_values.empty()) return 0;
  const std::string& text = m_values.front();
  const char* end = text.data() + text.size();
  int value = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && stop == end ? value : 0;
}

bool ADObject::attributeExists(const std::string& name, bool withValue) const {
  const auto found = m_attributes.find(name);
  if (found == m_attributes.end()) return false;
  const auto& values = found->second.values();
  return !withValue || std::any_of(values.begin(), values.end(), [](const auto& value) { return !value.empty(); });
}

const ADAttribute& ADObject::operator[](const std::string& name) const {
  static const ADAttribute missing;
  const auto found = m_attributes.find(name);
  return found == m_attributes.end() ? missing : found->second;
}

void ADObject::set(const std::string& name, std::vector<std::string> values) {
  m_attributes[name] = ADAttribute(std::move(values));
}

SID::SID(const std::string& text) : m_text(text) {
  if (!isSid(text)) LUMO_THROW(BadDataException, -1, "'%s' is not a security identifier", text.c_str());
}

std::string SID::toDN() const { return "<SID=" + m_text + ">"; }

}  // namespace lumo
