// An account and its secret as bytes that only this machine can read. Plain types: the file around them and the
// Kerberos library below them are somebody else's business.
#pragma once

#include <cstddef>
#include <string>

#include "base/include/shredder.h"

namespace lumo {

// The longest sealed form that is written or read.
inline constexpr std::size_t SEALED_LIMIT = std::size_t{1} << 20;

struct OpenedCredential {
  std::string user;
  Shredder2 secret;
  int keyVersion = 0;
  int encType = -1;
};

struct SealedCredential {
  std::string bytes;
  int keyVersion = 0;
  int encType = -1;
};

// Encrypts under the machine account's key in the keytab: newest key version, and of its types the strongest that the
// host permits. Throws KerberosException when the keytab cannot be read or holds no such key, BadDataException when the
// result would pass SEALED_LIMIT.
SealedCredential sealCredential(const std::string& user, const Shredder2& secret, const std::string& keytabPath);

// Decrypts what sealCredential made, with any key version that the keytab still holds. Throws BadDataException for
// bytes that are cut, changed, too long, of another format or under another key, with words that say what to do; which
// of them it is, the log tells as a warning, once.
// KerberosException when the keytab cannot be read or holds no key of the machine account.
OpenedCredential openCredential(const std::string& bytes, const std::string& keytabPath);

}  // namespace lumo
