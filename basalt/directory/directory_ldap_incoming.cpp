#include "basalt/directory/directory_ldap_incoming.h"

#include <lber.h>

#include <cerrno>

#include "base/include/exceptions.h"

namespace lumo {
namespace {

constexpr std::size_t KIB = 1024;

std::string sizeText(std::size_t bytes) {
  return bytes >= KIB * KIB ? std::to_string(bytes / KIB / KIB) + " MiB" : std::to_string(bytes / KIB) + " KiB";
}

Sockbuf* bufferOf(LDAP* ld) {
  Sockbuf* buffer = nullptr;
  if (ldap_get_option(ld, LDAP_OPT_SOCKBUF, &buffer) == LDAP_OPT_SUCCESS && buffer != nullptr) return buffer;
  LUMO_THROW(LDAPException, LDAP_PARAM_ERROR, "The LDAP library does not show its connection");
}

void refuse() { LUMO_THROW(LDAPException, LDAP_PARAM_ERROR, "The LDAP library takes no limit for what is received"); }

}  // namespace

// A layer between the socket and what decodes messages, as the library has them; its data is the IncomingLimit.
struct IncomingLimit::Layer {
  static int setUp(Sockbuf_IO_Desc* layer, void* limit) {
    layer->sbiod_pvt = limit;
    return 0;
  }
  static int takeAway(Sockbuf_IO_Desc*) { return 0; }
  static int control(Sockbuf_IO_Desc* layer, int option, void* argument) {
    return LBER_SBIOD_CTRL_NEXT(layer, option, argument);
  }
  static ber_slen_t read(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t size) {
    auto& limit = *static_cast<IncomingLimit*>(layer->sbiod_pvt);
    const ber_slen_t got = limit.m_exceeded ? -1 : LBER_SBIOD_READ_NEXT(layer, bytes, size);
    if (got > 0) limit.m_received += static_cast<std::size_t>(got);
    if (limit.m_received > limit.m_limit) limit.m_exceeded = true;
    if (!limit.m_exceeded) return got;
    errno = EMSGSIZE;
    return -1;
  }
  static ber_slen_t write(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t size) {
    return LBER_SBIOD_WRITE_NEXT(layer, bytes, size);
  }
  static int close(Sockbuf_IO_Desc*) { return 0; }
};

void IncomingLimit::putOn(LDAP* ld) {
  static Sockbuf_IO layer = {&Layer::setUp, &Layer::takeAway, &Layer::control,
                             &Layer::read,  &Layer::write,    &Layer::close};
  if (ber_sockbuf_add_io(bufferOf(ld), &layer, LBER_SBIOD_LEVEL_TRANSPORT, this) != 0) refuse();
  set(ld, m_limit);
}

void IncomingLimit::set(LDAP* ld, std::size_t bytes) {
  m_limit = bytes;
  ber_len_t most = bytes;
  if (ber_sockbuf_ctrl(bufferOf(ld), LBER_SB_OPT_SET_MAX_INCOMING, &most) != 1) refuse();
}

void IncomingLimit::beforeReading() { errno = 0; }

std::string IncomingLimit::failure() const {
  if (m_exceeded) return "the server sends more than " + sizeText(m_limit);
  // The library's own look at the length of a message.
  if (errno == ERANGE) return "the server sends what is no LDAP message of at most " + sizeText(m_limit);
  return {};
}

}  // namespace lumo
