#include "basalt/directory/directory_object.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <utility>

#include "base/include/exceptions.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

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

ADAttribute ADAttribute::unreadable() {
  ADAttribute attribute;
  attribute.m_unreadable = true;
  return attribute;
}

ADAttribute& ADAttribute::operator=(const std::string& value) {
  m_values.assign(1, value);
  m_unreadable = false;
  return *this;
}

bool ADAttribute::toBool() const {
  const std::string text = lower(toString());
  return text == "true" || text == "yes" || text == "1";
}

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
  return !withValue || found->second.isNull() ||
         std::any_of(values.begin(), values.end(), [](const auto& value) { return !value.empty(); });
}

const ADAttribute& ADObject::operator[](const std::string& name) const {
  static const ADAttribute missing;
  const auto found = m_attributes.find(name);
  return found == m_attributes.end() ? missing : found->second;
}

ADAttribute& ADObject::operator[](const std::string& name) { return m_attributes[name]; }

std::string ADObject::getString(const std::string& name, const std::string& defaultValue) const {
  const auto& values = std::as_const(*this)[name].values();
  return values.empty() ? defaultValue : values.front();
}

Guid ADObject::guid() const { return Guid((*this)[AD_OBJECT_GUID].toString()); }

ADObjectPtr ADObject::clone() const { return ADObjectPtr(new ADObject(*this)); }

void ADObject::set(const std::string& name, std::vector<std::string> values) {
  m_attributes[name] = ADAttribute(std::move(values));
}

Guid::Guid(const std::string& bytes) {
  if (bytes.size() == sizeof m_bytes) std::memcpy(m_bytes, bytes.data(), sizeof m_bytes);
}

std::string Guid::toString() const {
  // The order of the bytes in the text, with a dash in front of some.
  static constexpr int ORDER[] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  std::string text;
  for (std::size_t i = 0; i < sizeof m_bytes; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += VS("%02x", m_bytes[ORDER[i]]);
  }
  return text;
}

SID::SID(const std::string& text) : m_text(text) {
  if (!isSid(text)) LUMO_THROW(BadDataException, -1, "'%s' is not a security identifier", printable(text).c_str());
}

SID SID::ofBytes(const std::string& bytes) {
  // Revision, count, six bytes of authority, the high one first, then numbers of four bytes, the low one first.
  constexpr std::size_t HEADER = 8;
  constexpr std::size_t NUMBER = 4;
  const auto byte = [&bytes](std::size_t at) { return std::uint64_t{static_cast<unsigned char>(bytes[at])}; };
  if (bytes.size() < HEADER || byte(0) != 1 || bytes.size() != HEADER + NUMBER * byte(1)) {
    LUMO_THROW(BadDataException, -1, "%zu bytes are not a security identifier", bytes.size());
  }
  std::uint64_t authority = 0;
  for (std::size_t at = 2; at < HEADER; ++at) authority = authority << 8U | byte(at);
  std::string text = "S-1-" + std::to_string(authority);
  for (std::size_t at = HEADER; at < bytes.size(); at += NUMBER) {
    const std::uint64_t number = byte(at) | byte(at + 1) << 8U | byte(at + 2) << 16U | byte(at + 3) << 24U;
    text += "-" + std::to_string(number);
  }
  return SID(text);
}

std::string SID::toDN() const { return "<SID=" + m_text + ">"; }

}  // namespace lumo
