// The machine account's keys in a keytab. Internal to the Kerberos unit.
#pragma once

#include <krb5.h>

#include <functional>
#include <string>
#include <vector>

namespace lumo {

// One key of a computer account. Wiped and freed with the object.
class MachineKey {
 public:
  // Takes the key out of the entry.
  MachineKey(krb5_context context, std::string principal, krb5_keytab_entry& entry);
  ~MachineKey();
  MachineKey(MachineKey&& other) noexcept;
  MachineKey& operator=(MachineKey&&) = delete;
  MachineKey(const MachineKey&) = delete;
  MachineKey& operator=(const MachineKey&) = delete;

  const std::string& principal() const { return m_principal; }  // NAME$@REALM
  int version() const { return m_version; }
  int encType() const { return m_key.enctype; }
  krb5_timestamp writtenAt() const { return m_writtenAt; }
  const krb5_keyblock& key() const { return m_key; }

 private:
  krb5_context m_context;
  std::string m_principal;
  int m_version;
  krb5_timestamp m_writtenAt;
  krb5_keyblock m_key;
};

// The keys of all computer accounts (NAME$@REALM) in the keytab at `path`, in the file's order; key types that the
// library does not know are left out. The context must outlive them. Throws KerberosException when the file is
// missing, cannot be read or is damaged, with words that say what to do. A file that others may read or write, or that
// belongs to somebody else, is a warning in the log, once.
std::vector<MachineKey> readMachineKeys(krb5_context context, const std::string& path);

// Throws the KerberosException of a keytab without a key of the machine's account.
[[noreturn]] void throwNoMachineKey(const std::string& path);

}  // namespace lumo
