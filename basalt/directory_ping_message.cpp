// The texts of the ping: question and reply.
#include <lber.h>
#include <ldap.h>

#include <memory>
#include <set>

#include "basalt/directory_ping.h"
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
  // The reader changes nothing, but its interface is not const.
  std::string copy = datagram;
  berval bytes{copy.size(), copy.data()};
  const Ber ber(ber_init(&bytes));
  if (!ber) throw std::bad_alloc();
  ber_int_t id = 0;
  ber_len_t length = 0;
  berval dn{};
  if (ber_scanf(ber.get(), "{i", &id) == LBER_ERROR || id != messageId ||
      ber_peek_tag(ber.get(), &length) != LDAP_RES_SEARCH_ENTRY || ber_scanf(ber.get(), "{m", &dn) == LBER_ERROR) {
    return std::nullopt;
  }
  char* end = nullptr;
  for (ber_tag_t tag = ber_first_element(ber.get(), &length, &end); tag != LBER_DEFAULT;
       tag = ber_next_element(ber.get(), &length, end)) {
    berval name{};
    BerVarray found = nullptr;
    if (ber_scanf(ber.get(), "{m[W]}", &name, &found) == LBER_ERROR) return std::nullopt;
    const std::unique_ptr<berval, decltype(&ber_bvarray_free)> values(found, &ber_bvarray_free);
    if (lower({name.bv_val, name.bv_len}) == "netlogon" && values && values.get()->bv_val != nullptr) {
      return parseNetlogonReply({values.get()->bv_val, values.get()->bv_len});
    }
  }
  return std::nullopt;
}

}  // namespace lumo
