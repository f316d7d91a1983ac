#include "basalt/kerberos/kerberos_keytab.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/logging/first_time.h"
#include "base/include/kerb_wrap.h"
#include "base/include/logger.h"

namespace lumo {
namespace {

// NAME$@REALM: one component that ends in "$".
bool isComputerAccount(krb5_const_principal principal) {
  if (principal->length != 1 || principal->realm.length == 0) return false;
  const krb5_data& name = principal->data[0];
  return name.length > 1 && name.data[name.length - 1] == '$';
}

[[noreturn]] void throwUnreadable(krb5_context context, krb5_error_code code, const std::string& path) {
  const std::string text =
      code == ENOENT ? exceptionMessage("The keytab %s is missing; join the machine to the domain", path.c_str())
                     : exceptionMessage("Cannot read the keytab %s: %s; repair it or join the machine again",
                                        path.c_str(), krbErrorText(context, code).c_str());
  throw KerberosException(code, text.c_str(), __FILE__, __LINE__);
}

// Whoever reads the keys is this machine to the whole domain: a file that is open to others is used, but not silently.
void reportIfOpen(const std::string& path, const struct stat& status) {
  std::string text;
  if ((status.st_mode & (S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH)) != 0) {
    const bool written = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    text = exceptionMessage("The keytab %s can be %s by others than its owner (mode %04o); run: chmod go-rwx '%s'",
                            path.c_str(), written ? "written" : "read", status.st_mode & 07777U, path.c_str());
  } else if (status.st_uid != 0 && status.st_uid != geteuid()) {
    text = exceptionMessage("The keytab %s belongs to user %u, not to root; run: chown root '%s'", path.c_str(),
                            status.st_uid, path.c_str());
  }
  if (!text.empty() && isFirstTime(text))
    LUMO_LOG(getLogger("base.kerberos.wrap", false), lumo::level::Warn, "%s", text.c_str());
}

// The library would wait at a pipe in the keytab's place.
void requireRegular(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return;
  if (S_ISREG(status.st_mode)) return reportIfOpen(path, status);
  const std::string text = exceptionMessage(
      "Cannot read the keytab %s: it is not a regular file; repair it or join the machine again", path.c_str());
  throw KerberosException(static_cast<int>(KRB5_KT_IOERR), text.c_str(), __FILE__, __LINE__);
}

// One pass over a keytab; ends it on every road.
class KeytabScan {
 public:
  KeytabScan(krb5_context context, const std::string& path) : m_context(context), m_path(path), m_keytab(context) {
    requireRegular(path);
    krb5_error_code rc = krb5_kt_resolve(context, ("FILE:" + path).c_str(), m_keytab.out());
    if (rc == 0) rc = krb5_kt_start_seq_get(context, m_keytab.get(), &m_cursor);
    if (rc != 0) throwUnreadable(context, rc, path);
  }
  ~KeytabScan() { krb5_kt_end_seq_get(m_context, m_keytab.get(), &m_cursor); }
  KeytabScan(const KeytabScan&) = delete;
  KeytabScan& operator=(const KeytabScan&) = delete;

  bool next(krb5_keytab_entry& entry) {
    const krb5_error_code rc = krb5_kt_next_entry(m_context, m_keytab.get(), &entry, &m_cursor);
    if (rc != 0 && rc != KRB5_KT_END) throwUnreadable(m_context, rc, m_path);
    return rc == 0;
  }

 private:
  krb5_context m_context;
  const std::string& m_path;
  KrbKeytab m_keytab;
  krb5_kt_cursor m_cursor = nullptr;
};

}  // namespace

MachineKey::MachineKey(krb5_context context, std::string principal, krb5_keytab_entry& entry)
    : m_context(context),
      m_principal(std::move(principal)),
      m_version(static_cast<int>(entry.vno)),
      m_writtenAt(entry.timestamp),
      m_key(std::exchange(entry.key, krb5_keyblock{})) {}

MachineKey::~MachineKey() { krb5_free_keyblock_contents(m_context, &m_key); }

MachineKey::MachineKey(MachineKey&& other) noexcept
    : m_context(other.m_context),
      m_principal(std::move(other.m_principal)),
      m_version(other.m_version),
      m_writtenAt(other.m_writtenAt),
      m_key(std::exchange(other.m_key, krb5_keyblock{})) {}

std::vector<MachineKey> readMachineKeys(krb5_context context, const std::string& path) {
  std::vector<MachineKey> keys;
  KeytabScan scan(context, path);
  KrbRecord<krb5_keytab_entry, krb5_free_keytab_entry_contents> entry(context);
  while (scan.next(*entry.out())) {
    if (isComputerAccount(entry->principal) && krb5_c_valid_enctype(entry->key.enctype) != 0) {
      keys.emplace_back(context, principalText(context, entry->principal), *entry);
    }
  }
  return keys;
}

void throwNoMachineKey(const std::string& path) {
  const std::string text =
      exceptionMessage("The keytab %s holds no key of this machine's account; join the machine again", path.c_str());
  throw KerberosException(static_cast<int>(KRB5_KT_NOTFOUND), text.c_str(), __FILE__, __LINE__);
}

}  // namespace lumo
