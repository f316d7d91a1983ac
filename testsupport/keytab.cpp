#include "testsupport/keytab.h"

#include <krb5.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

namespace testsupport {
namespace {

void require(krb5_error_code code, const char* what) {
  if (code != 0) throw std::runtime_error(std::string(what) + " failed with " + std::to_string(code));
}

void add(krb5_context context, krb5_keytab keytab, const KeytabEntry& from) {
  krb5_keytab_entry entry{};
  require(krb5_parse_name(context, from.principal.c_str(), &entry.principal), "krb5_parse_name");
  entry.vno = static_cast<krb5_kvno>(from.kvno);
  krb5_data password{};
  password.data = const_cast<char*>(from.password.data());
  password.length = static_cast<unsigned>(from.password.size());
  krb5_data salt{};
  require(krb5_principal2salt(context, entry.principal, &salt), "krb5_principal2salt");
  require(krb5_c_string_to_key(context, from.encType, &password, &salt, &entry.key), "krb5_c_string_to_key");
  const krb5_error_code added = krb5_kt_add_entry(context, keytab, &entry);
  krb5_free_data_contents(context, &salt);
  krb5_free_keytab_entry_contents(context, &entry);
  require(added, "krb5_kt_add_entry");
}

}  // namespace

void writeKeytab(const std::string& path, const std::vector<KeytabEntry>& entries) {
  unlink(path.c_str());
  krb5_context context = nullptr;
  require(krb5_init_context(&context), "krb5_init_context");
  krb5_allow_weak_crypto(context, 1);
  krb5_keytab keytab = nullptr;
  require(krb5_kt_resolve(context, ("FILE:" + path).c_str(), &keytab), "krb5_kt_resolve");
  for (const auto& entry : entries) add(context, keytab, entry);
  krb5_kt_close(context, keytab);
  krb5_free_context(context);
  chmod(path.c_str(), 0600);
}

}  // namespace testsupport
