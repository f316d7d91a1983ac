// How much an LDAP server may send. Internal to the directory unit.
#pragma once

#include <ldap.h>

#include <cstddef>
#include <string>

namespace lumo {

// Ends the reading of a connection whose server sends more than it may: in one message, or in all messages between two
// requests. Without it the library keeps in memory whatever comes until the time is over. Lives longer than the
// connection that it is put on. One thread.
class IncomingLimit {
 public:
  explicit IncomingLimit(std::size_t bytes) : m_limit(bytes) {}
  IncomingLimit(const IncomingLimit&) = delete;
  IncomingLimit& operator=(const IncomingLimit&) = delete;

  // Puts the limit on the connection; once. Throws LDAPException (LDAP_PARAM_ERROR) when the library does not take it.
  void putOn(LDAP* ld);
  // Another limit from here on. Throws as putOn.
  void set(LDAP* ld, std::size_t bytes);
  // A request goes out: counting begins again.
  void restart() { m_received = 0; }
  // Clears what failure() looks at; to be called before the library reads.
  static void beforeReading();
  // Why the reading that has just failed did, in words, where that was the limit, else empty. Looks at errno.
  std::string failure() const;

 private:
  struct Layer;

  std::size_t m_limit;
  std::size_t m_received = 0;
  bool m_exceeded = false;
};

}  // namespace lumo
