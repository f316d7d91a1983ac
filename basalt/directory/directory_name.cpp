#include "basalt/directory/directory_name.h"

#include <utility>
#include <vector>

#include "basalt/directory/directory.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace {

constexpr char DOMAIN_COMPONENT_OID[] = "0.9.2342.19200300.100.1.25";
constexpr char HEX_DIGITS[] = "0123456789abcdef";

std::optional<unsigned> hexDigit(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10U;
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A') + 10U;
  return std::nullopt;
}

// One level of a distinguished name: attribute types and values.
using Rdn = std::vector<std::pair<std::string, std::string>>;

// Reader of the text form of distinguished names (RFC 4514). Blanks around separators are passed over, as servers do.
class DnReader {
 public:
  explicit DnReader(const std::string& text) : m_text(text) {}

  // All levels from the most particular on; nothing for a text that is no distinguished name.
  std::optional<std::vector<Rdn>> read() {
    std::vector<Rdn> levels;
    skipBlanks();
    if (atEnd()) return levels;
    do {
      Rdn level;
      do {
        if (!readPair(level)) return std::nullopt;
      } while (take('+'));
      levels.push_back(std::move(level));
      if (levels.size() == 1) m_firstEnd = m_at;
    } while (take(','));
    if (!atEnd()) return std::nullopt;
    return levels;
  }
  // Behind the first level, once all were read.
  std::size_t firstEnd() const { return m_firstEnd; }

 private:
  bool atEnd() const { return m_at == m_text.size(); }
  char here() const { return m_text[m_at]; }
  bool take(char c) {
    if (atEnd() || here() != c) return false;
    ++m_at;
    return true;
  }
  void skipBlanks() {
    while (take(' ')) {
    }
  }

  bool readPair(Rdn& level) {
    skipBlanks();
    const std::size_t start = m_at;
    while (!atEnd() && here() != '=' && here() != ',' && here() != '+') ++m_at;
    const std::string type = trimWhiteSpace(m_text.substr(start, m_at - start));
    if (type.empty() || !take('=')) return false;
    skipBlanks();
    std::string value;
    if (!(take('#') ? readEncoded(value) : readText(value))) return false;
    level.emplace_back(type, std::move(value));
    return true;
  }

  bool readHexPair(char& byte) {
    if (m_at + 2 > m_text.size()) return false;
    const auto high = hexDigit(m_text[m_at]);
    const auto low = hexDigit(m_text[m_at + 1]);
    if (!high || !low) return false;
    byte = static_cast<char>(static_cast<unsigned char>(*high * 16U + *low));
    m_at += 2;
    return true;
  }

  bool readEscape(std::string& value) {
    if (atEnd()) return false;
    char byte = 0;
    if (!readHexPair(byte)) {
      static const std::string escapable = "\"+,;<>\\ #=";
      if (escapable.find(here()) == std::string::npos) return false;
      byte = m_text[m_at++];
    }
    value += byte;
    return true;
  }

  bool readText(std::string& value) {
    std::size_t kept = 0;  // Blanks behind it are not part of the value, unless escaped.
    while (!atEnd() && here() != ',' && here() != '+') {
      const char c = m_text[m_at++];
      if (c == '\\') {
        if (!readEscape(value)) return false;
        kept = value.size();
      } else if (c == '"' || c == ';' || c == '<' || c == '>' || c == '\0') {
        return false;
      } else {
        value += c;
        if (c != ' ') kept = value.size();
      }
    }
    value.resize(kept);
    return true;
  }

  // A value as the hexadecimal text of its BER encoding; the types of strings only, with a short or one-byte length.
  bool readEncoded(std::string& value) {
    std::string bytes;
    for (char byte = 0; !atEnd() && hexDigit(here());) {
      if (!readHexPair(byte)) return false;
      bytes += byte;
    }
    skipBlanks();
    if (bytes.size() < 2) return false;
    const auto length = static_cast<unsigned char>(bytes[1]);
    if (length < 0x80) {
      value = bytes.substr(2);
      return value.size() == length;
    }
    if (length != 0x81 || bytes.size() < 3) return false;
    value = bytes.substr(3);
    return value.size() == static_cast<unsigned char>(bytes[2]);
  }

  const std::string& m_text;
  std::size_t m_at = 0;
  std::size_t m_firstEnd = 0;
};

// The value of a level that is one domain component.
std::optional<std::string> domainComponent(const Rdn& level) {
  if (level.size() != 1 || level.front().second.empty()) return std::nullopt;
  const std::string type = lower(level.front().first);
  if (type != "dc" && type != DOMAIN_COMPONENT_OID && type != std::string("oid.") + DOMAIN_COMPONENT_OID) {
    return std::nullopt;
  }
  return lower(level.front().second);
}

}  // namespace

std::string dnsDomainOf(const std::string& dn) {
  const auto levels = DnReader(dn).read();
  if (!levels) return {};
  std::string domain;
  for (auto level = levels->rbegin(); level != levels->rend(); ++level) {
    const auto component = domainComponent(*level);
    if (!component) break;
    if (!domain.empty()) domain.insert(0, 1, '.');
    domain.insert(0, *component);
  }
  return domain;
}

std::string DN::domainFromDN(const std::string& dn) {
  std::string domain = dnsDomainOf(dn);
  if (domain.empty()) LUMO_THROW(lumo::BadDataException, -1, "'%s' belongs to no domain", lumo::printable(dn).c_str());
  return domain;
}

bool isDistinguishedName(const std::string& text) {
  const auto levels = DnReader(text).read();
  return levels && !levels->empty();
}

std::optional<lumo::ComparableName> lumo::comparableName(const std::string& dn) {
  const auto levels = DnReader(dn).read();
  if (!levels || levels->empty()) return std::nullopt;
  ComparableName name;
  for (const Rdn& level : *levels) {
    // A value may hold any byte: its length says where it ends.
    for (const auto& [type, value] : level) {
      name.text += lower(type) + '=' + std::to_string(value.size()) + ':' + lower(value);
    }
    name.text += ',';
  }
  const Rdn& first = levels->front();
  if (first.size() == 1 && lower(first.front().first) == "cn") name.commonName = first.front().second;
  return name;
}

std::string LDAPBinding::parent(const std::string& dn) {
  DnReader reader(dn);
  const auto levels = reader.read();
  if (!levels || levels->size() < 2) return {};
  return dn.substr(dn.find_first_not_of(' ', reader.firstEnd() + 1));
}

std::string escapeFilterValue(const std::string& value) {
  std::string escaped;
  for (const char c : value) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '*' || c == '(' || c == ')' || c == '\\' || byte == 0 || byte >= 0x80) {
      escaped += '\\';
      escaped += HEX_DIGITS[byte >> 4U];
      escaped += HEX_DIGITS[byte & 0xfU];
    } else {
      escaped += c;
    }
  }
  return escaped;
}
