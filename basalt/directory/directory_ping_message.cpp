// The texts of the ping: question and reply.
#include <lber.h>
#include <ldap.h>

#include <memory>
#include <set>
#include <string_view>
#include <utility>

#include "basalt/directory/directory_ping.h"
#include "base/include/exceptions.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

// Version bits of the question: the extended reply with DNS names.
constexpr char VERSION_EXTENDED[] = {0x06, 0x00, 0x00, 0x00};
constexpr std::size_t FLAGS_AT = 4;
constexpr std::size_t NAMES_AT = 24;  // behind opcode, padding, flags and the domain's GUID
constexpr std::size_t MAX_NAME = 255;
constexpr unsigned POINTER_BITS = 0xc0;
constexpr std::size_t LONG_LENGTH = 0x80;

// Opcodes of the extended reply: the controller serves, is paused, or knows no such user.
const std::set<unsigned> REPLY_OPCODES = {23, 24, 25};

struct BerFree {
  void operator()(BerElement* ber) const { ber_free(ber, 1); }
};
using Ber = std::unique_ptr<BerElement, BerFree>;

[[noreturn]] void damaged() { LUMO_THROW(BadDataException, -1, "The reply to the LDAP ping is damaged"); }

// Reader of the names in a reply: DNS labels with back references into the same value.
class NameReader {
 public:
  NameReader(const std::string& value, std::size_t at) : m_value(value), m_at(at) {}

  std::string next() {
    std::string name;
    std::size_t at = m_at;
    bool jumped = false;
    for (;;) {
      const unsigned length = byte(at);
      if ((length & POINTER_BITS) == POINTER_BITS) {
        const std::size_t target = ((length & ~POINTER_BITS) << 8U) | byte(at + 1);
        // Only to what stands before: every chain of references ends.
        if (target >= at) damaged();
        if (!jumped) m_at = at + 2;
        jumped = true;
        at = target;
        continue;
      }
      if ((length & POINTER_BITS) != 0 || at + 1 + length > m_value.size()) damaged();
      if (length == 0) break;
      if (!name.empty()) name += '.';
      name.append(m_value, at + 1, length);
      if (name.size() > MAX_NAME) damaged();
      at += length + 1;
    }
    if (!jumped) m_at = at + 1;
    if (name.find('\0') != std::string::npos) damaged();
    return name;
  }

 private:
  unsigned byte(std::size_t at) const {
    if (at >= m_value.size()) damaged();
    return static_cast<unsigned char>(m_value[at]);
  }

  const std::string& m_value;
  std::size_t m_at;
};

// Takes the element with that tag off the front and returns its content. Anything else there leaves nothing at all.
// Not by the library: its reader goes through a null pointer for a message without bytes.
std::string_view takeElement(std::string_view& bytes, ber_tag_t tag) {
  const std::string_view whole = std::exchange(bytes, {});
  if (whole.size() < 2 || static_cast<unsigned char>(whole[0]) != tag) return {};
  std::size_t length = static_cast<unsigned char>(whole[1]);
  std::size_t header = 2;
  if (length >= LONG_LENGTH) {
    header += length - LONG_LENGTH;
    if (header > 2 + sizeof(std::uint32_t) || whole.size() < header) return {};
    length = 0;
    for (std::size_t i = 2; i < header; ++i) length = length << 8U | static_cast<unsigned char>(whole[i]);
  }
  if (length > whole.size() - header) return {};
  bytes = whole.substr(header + length);
  return whole.substr(header, length);
}

std::uint32_t littleEndian(const std::string& value, std::size_t at, std::size_t bytes) {
  std::uint32_t number = 0;
  for (std::size_t i = bytes; i-- > 0;) number = number << 8U | static_cast<unsigned char>(value[at + i]);
  return number;
}

}  // namespace

std::string netlogonRequest(const std::string& domain, int messageId) {
  const Ber ber(ber_alloc_t(LBER_USE_DER));
  if (!ber) throw std::bad_alloc();
  const int rc = ber_printf(ber.get(), "{it{seeiibt{t{so}t{so}}{s}}}", messageId, LDAP_REQ_SEARCH, "", LDAP_SCOPE_BASE,
                            LDAP_DEREF_NEVER, 0, 0, 0, LDAP_FILTER_AND, LDAP_FILTER_EQUALITY, "DnsDomain",
                            domain.data(), static_cast<ber_len_t>(domain.size()), LDAP_FILTER_EQUALITY, "NtVer",
                            VERSION_EXTENDED, static_cast<ber_len_t>(sizeof VERSION_EXTENDED), "netlogon");
  berval bytes{};
  if (rc < 0 || ber_flatten2(ber.get(), &bytes, 0) != 0) throw std::bad_alloc();
  return {bytes.bv_val, bytes.bv_len};
}

NetlogonReply parseNetlogonReply(const std::string& value) {
  if (value.size() < NAMES_AT || REPLY_OPCODES.count(littleEndian(value, 0, 2)) == 0) damaged();
  NetlogonReply reply;
  reply.flags = littleEndian(value, FLAGS_AT, sizeof reply.flags);
  NameReader names(value, NAMES_AT);
  reply.forest = names.next();
  reply.domain = names.next();
  reply.host = names.next();
  names.next();  // the domain's short name
  names.next();  // the controller's short name
  names.next();  // the user, none was named
  reply.serverSite = names.next();
  reply.clientSite = names.next();
  return reply;
}

std::optional<NetlogonReply> parseNetlogonMessage(const std::string& datagram, int messageId) {
  std::string_view rest = datagram;
  auto message = takeElement(rest, LDAP_TAG_MESSAGE);
  const auto id = takeElement(message, LDAP_TAG_MSGID);
  if (id.size() != 1 || static_cast<unsigned char>(id[0]) != messageId) return std::nullopt;
  auto entry = takeElement(message, LDAP_RES_SEARCH_ENTRY);
  takeElement(entry, LBER_OCTETSTRING);  // the root's empty name
  auto attributes = takeElement(entry, LBER_SEQUENCE);
  while (!attributes.empty()) {
    auto attribute = takeElement(attributes, LBER_SEQUENCE);
    const auto name = takeElement(attribute, LBER_OCTETSTRING);
    auto values = takeElement(attribute, LBER_SET);
    const auto value = takeElement(values, LBER_OCTETSTRING);
    if (lower(std::string(name)) == "netlogon") return parseNetlogonReply(std::string(value));
  }
  return std::nullopt;
}

}  // namespace lumo
