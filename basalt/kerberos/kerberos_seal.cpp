#include "basalt/kerberos/kerberos_seal.h"

#include <krb5.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/kerberos/kerberos_keytab.h"
#include "basalt/kerberos/kerberos_machine_account.h"
#include "basalt/logging/first_time.h"
#include "base/include/kerb_wrap.h"
#include "base/include/logger.h"

namespace lumo {
namespace {

// A number of our own in the range left to applications (RFC 3961, section 7.5.1; RFC 4120, section 7.5.1).
constexpr krb5_keyusage KEY_USAGE = 1797;

constexpr char MAGIC[] = {'M', 'V', 'P', 'C'};
constexpr char FORMAT_VERSION = 1;
constexpr std::size_t HEADER_SIZE = sizeof MAGIC + 1 + 4 + 4;
// A cipher with blocks may leave that many zero bytes behind the plain text.
constexpr std::size_t LONGEST_PADDING = 15;

// Strongest first. A type that is not in the table is not used to encrypt.
constexpr krb5_enctype BY_STRENGTH[] = {
    ENCTYPE_AES256_CTS_HMAC_SHA384_192,
    ENCTYPE_AES256_CTS_HMAC_SHA1_96,
    ENCTYPE_CAMELLIA256_CTS_CMAC,
    ENCTYPE_AES128_CTS_HMAC_SHA256_128,
    ENCTYPE_AES128_CTS_HMAC_SHA1_96,
    ENCTYPE_CAMELLIA128_CTS_CMAC,
    ENCTYPE_DES3_CBC_SHA1,
    ENCTYPE_ARCFOUR_HMAC,
    ENCTYPE_ARCFOUR_HMAC_EXP,
};

using LockedBytes = std::vector<char, MlockAlloc<char>>;

void putNumber(LockedBytes& to, std::size_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) to.push_back(static_cast<char>(value >> shift));
}

// Takes pieces from the front of a text that is not trusted.
class Reader {
 public:
  Reader(const char* data, std::size_t size) : m_data(data), m_left(size) {}
  // Null when fewer bytes are left.
  const char* take(std::size_t size) {
    if (size > m_left) return nullptr;
    m_left -= size;
    return std::exchange(m_data, m_data + size);
  }
  bool takeNumber(std::uint32_t& value) {
    const char* bytes = take(4);
    if (bytes == nullptr) return false;
    value = 0;
    for (int i = 0; i < 4; ++i) value = (value << 8) | static_cast<unsigned char>(bytes[i]);
    return true;
  }
  std::size_t left() const { return m_left; }

 private:
  const char* m_data;
  std::size_t m_left;
};

struct Header {
  std::uint32_t keyVersion = 0;
  std::uint32_t encType = 0;
};

LockedBytes headerBytes(const MachineKey& key) {
  LockedBytes bytes(MAGIC, MAGIC + sizeof MAGIC);
  bytes.push_back(FORMAT_VERSION);
  putNumber(bytes, static_cast<std::uint32_t>(key.version()));
  putNumber(bytes, static_cast<std::uint32_t>(key.encType()));
  return bytes;
}

// One sentence for whoever asked, as none of the causes can be mended in another way; the log has the cause, once.
[[noreturn]] void throwDamaged(const std::string& cause) {
  const std::string text = "The stored credential cannot be opened: " + cause;
  if (isFirstTime(text)) LUMO_LOG(getLogger("base.credential", false), lumo::level::Warn, "%s", text.c_str());
  LUMO_THROW(BadDataException, -1, "The stored credential is damaged or another machine's; store the credential again");
}

Header readHeader(Reader& reader) {
  const char* magic = reader.take(sizeof MAGIC);
  const char* version = reader.take(1);
  Header header;
  if (version == nullptr || !reader.takeNumber(header.keyVersion) || !reader.takeNumber(header.encType)) {
    throwDamaged("it ends within its header");
  }
  if (std::memcmp(magic, MAGIC, sizeof MAGIC) != 0) {
    LUMO_THROW(BadDataException, -1, "The file holds no stored credential; store the credential again");
  }
  if (*version != FORMAT_VERSION) {
    LUMO_THROW(BadDataException, -1,
               "The stored credential has format version %d, which is not known; "
               "store the credential again",
               static_cast<unsigned char>(*version));
  }
  return header;
}

const MachineKey* strongestPermitted(const std::vector<MachineKey>& keys, const MachineKey& newest) {
  const KerberosContext context;
  KrbEncTypes permitted(context.get());
  requireKrb(context.get(), krb5_get_permitted_enctypes(context.get(), permitted.out()), "krb5_get_permitted_enctypes");
  const krb5_enctype* end = permitted.get();
  while (*end != 0) ++end;
  for (const krb5_enctype type : BY_STRENGTH) {
    if (std::find(static_cast<const krb5_enctype*>(permitted.get()), end, type) == end) continue;
    for (const auto& key : keys) {
      if (key.encType() == type && key.version() == newest.version() && key.principal() == newest.principal()) {
        return &key;
      }
    }
  }
  return nullptr;
}

std::string encrypt(krb5_context context, const MachineKey& key, const LockedBytes& plain) {
  std::size_t size = 0;
  requireKrb(context, krb5_c_encrypt_length(context, key.encType(), plain.size(), &size), "krb5_c_encrypt_length");
  std::string cipher(size, '\0');
  krb5_data input{};
  input.data = const_cast<char*>(plain.data());
  input.length = static_cast<unsigned>(plain.size());
  krb5_enc_data output{};
  output.ciphertext.data = cipher.data();
  output.ciphertext.length = static_cast<unsigned>(cipher.size());
  requireKrb(context, krb5_c_encrypt(context, &key.key(), KEY_USAGE, nullptr, &input, &output), "krb5_c_encrypt");
  cipher.resize(output.ciphertext.length);
  return cipher;
}

// False when the cipher text was not made with this key, or was changed since.
bool decrypt(krb5_context context, const MachineKey& key, const char* cipher, std::size_t size, LockedBytes& plain) {
  plain.assign(size, '\0');
  krb5_enc_data input{};
  input.enctype = key.encType();
  input.ciphertext.data = const_cast<char*>(cipher);
  input.ciphertext.length = static_cast<unsigned>(size);
  krb5_data output{};
  output.data = plain.data();
  output.length = static_cast<unsigned>(size);
  if (krb5_c_decrypt(context, &key.key(), KEY_USAGE, nullptr, &input, &output) != 0) return false;
  plain.resize(output.length);
  return true;
}

OpenedCredential readPlain(const LockedBytes& plain, const std::string& bytes) {
  Reader reader(plain.data(), plain.size());
  const char* header = reader.take(HEADER_SIZE);
  if (header == nullptr || std::memcmp(header, bytes.data(), HEADER_SIZE) != 0) {
    throwDamaged("its header was changed after it was sealed");
  }
  OpenedCredential opened;
  std::uint32_t size = 0;
  const char* text = nullptr;
  if (!reader.takeNumber(size) || (text = reader.take(size)) == nullptr) throwDamaged("its user name is cut");
  opened.user.assign(text, size);
  if (!reader.takeNumber(size) || (text = reader.take(size)) == nullptr) throwDamaged("its password is cut");
  opened.secret = Shredder2(text, size);
  const char* padding = reader.take(0);
  if (reader.left() > LONGEST_PADDING ||
      std::count(padding, padding + reader.left(), '\0') != static_cast<std::ptrdiff_t>(reader.left())) {
    throwDamaged("something follows its password");
  }
  return opened;
}

[[noreturn]] void throwKeyGone(const Header& header, const std::vector<MachineKey>& keys) {
  const bool versionHeld = std::any_of(keys.begin(), keys.end(), [&](const MachineKey& key) {
    return static_cast<std::uint32_t>(key.version()) == header.keyVersion;
  });
  if (!versionHeld) {
    LUMO_THROW(BadDataException, -1,
               "encrypted with key version %u, which the keytab no longer holds; store the credential again",
               header.keyVersion);
  }
  LUMO_THROW(
      BadDataException, -1,
      "encrypted with key version %u and encryption type %u, which the keytab does not hold; store the credential "
      "again",
      header.keyVersion, header.encType);
}

}  // namespace

SealedCredential sealCredential(const std::string& user, const Shredder2& secret, const std::string& keytabPath) {
  if (user.size() > SEALED_LIMIT || secret.size() > SEALED_LIMIT || user.size() + secret.size() > SEALED_LIMIT - 512) {
    LUMO_THROW(BadDataException, -1, "The credential is too long: user and password together may have %zu bytes",
               SEALED_LIMIT - 512);
  }
  const BareKerberosContext context;
  const std::vector<MachineKey> keys = readMachineKeys(context.get(), keytabPath);
  const MachineKey* newest = machineKey(keys);
  if (newest == nullptr) throwNoMachineKey(keytabPath);
  const MachineKey* key = strongestPermitted(keys, *newest);
  if (key == nullptr) {
    const std::string text = exceptionMessage(
        "The keytab %s holds no key of %s, version %d, of a permitted encryption type; permit its types "
        "(permitted_enctypes in krb5.conf)",
        keytabPath.c_str(), newest->principal().c_str(), newest->version());
    throw KerberosException(static_cast<int>(KRB5_KT_NOTFOUND), text.c_str(), __FILE__, __LINE__);
  }
  const LockedBytes header = headerBytes(*key);
  LockedBytes plain;
  plain.reserve(HEADER_SIZE + 8 + user.size() + secret.size());
  plain.insert(plain.end(), header.begin(), header.end());
  putNumber(plain, user.size());
  plain.insert(plain.end(), user.begin(), user.end());
  putNumber(plain, secret.size());
  plain.insert(plain.end(), secret.data(), secret.data() + secret.size());
  SealedCredential sealed;
  sealed.bytes.assign(header.begin(), header.end());
  sealed.bytes += encrypt(context.get(), *key, plain);
  sealed.keyVersion = key->version();
  sealed.encType = key->encType();
  return sealed;
}

OpenedCredential openCredential(const std::string& bytes, const std::string& keytabPath) {
  if (bytes.size() > SEALED_LIMIT) throwDamaged("it is longer than any that is written");
  Reader reader(bytes.data(), bytes.size());
  const Header header = readHeader(reader);
  const BareKerberosContext context;
  const std::vector<MachineKey> keys = readMachineKeys(context.get(), keytabPath);
  if (keys.empty()) throwNoMachineKey(keytabPath);
  bool keyHeld = false;
  LockedBytes plain;
  for (const auto& key : keys) {
    if (static_cast<std::uint32_t>(key.version()) != header.keyVersion ||
        static_cast<std::uint32_t>(key.encType()) != header.encType) {
      continue;
    }
    keyHeld = true;
    if (!decrypt(context.get(), key, bytes.data() + HEADER_SIZE, reader.left(), plain)) continue;
    OpenedCredential opened = readPlain(plain, bytes);
    opened.keyVersion = key.version();
    opened.encType = key.encType();
    return opened;
  }
  if (!keyHeld) throwKeyGone(header, keys);
  throwDamaged("the keytab's key of version " + std::to_string(header.keyVersion) + " and encryption type " +
               std::to_string(header.encType) +
               " does not fit: it is another machine's or of another join, or the file was changed");
}

}  // namespace lumo
