// Owners of what OpenLDAP hands out. Internal to the directory unit.
#pragma once

#include <ldap.h>
#include <sys/time.h>

#include <chrono>
#include <csignal>
#include <memory>

namespace lumo {

template <auto Free>
struct LdapFree {
  template <class T>
  void operator()(T* handle) const {
    Free(handle);
  }
};
struct BerElementFree {
  void operator()(BerElement* ber) const { ber_free(ber, 0); }
};

using LdapMessage = std::unique_ptr<LDAPMessage, LdapFree<ldap_msgfree>>;
using LdapText = std::unique_ptr<char, LdapFree<ldap_memfree>>;
using LdapControl = std::unique_ptr<LDAPControl, LdapFree<ldap_control_free>>;
using LdapControls = std::unique_ptr<LDAPControl*, LdapFree<ldap_controls_free>>;
using LdapValues = std::unique_ptr<berval*, LdapFree<ldap_value_free_len>>;
// The array alone; the bytes belong to the message.
using LdapValueArray = std::unique_ptr<berval, LdapFree<ber_memfree>>;
using LdapAttributes = std::unique_ptr<BerElement, BerElementFree>;

inline timeval timeOf(std::chrono::milliseconds span) {
  return {static_cast<time_t>(span.count() / 1000), static_cast<suseconds_t>(span.count() % 1000 * 1000)};
}

// The library's own result code of its last call.
inline int errorOf(LDAP* ld) {
  int rc = LDAP_OTHER;
  ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &rc);
  return rc;
}

inline LdapText diagnosticOf(LDAP* ld) {
  char* text = nullptr;
  ldap_get_option(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, &text);
  return LdapText(text);
}

// While it lives, a write to a peer that went away fails with EPIPE and raises no signal on this thread: the library
// writes without the flag for that.
class NoBrokenPipe {
 public:
  NoBrokenPipe();
  ~NoBrokenPipe();
  NoBrokenPipe(const NoBrokenPipe&) = delete;
  NoBrokenPipe& operator=(const NoBrokenPipe&) = delete;

 private:
  bool m_wasPending;
  sigset_t m_before{};
};

}  // namespace lumo
