#include "basalt/kerberos/protected_credential.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "basalt/files/file_security.h"
#include "basalt/files/posix_file.h"
#include "basalt/files/secure_file.h"
#include "basalt/files/state_folder.h"
#include "basalt/kerberos/kerberos_names.h"
#include "basalt/kerberos/kerberos_seal.h"
#include "basalt/logging/first_time.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/printable.h"

namespace lumo {
namespace {

void report(const std::string& text) {
  if (isFirstTime(text)) LUMO_LOG(getLogger("base.credential", false), lumo::level::Warn, "%s", text.c_str());
}

void reportWeak(const std::string& path, int encType) {
  if (!krb5EncTypeIsWeak(encType)) return;
  report("The credential in " + path + " is encrypted with " + krb5EncTypeName(encType).value_or("a former type") +
         ", which is weak; give the machine account AES keys and store the credential again");
}

}  // namespace

void ProtectedCredential::loadFromFile(bool verifyFile) {
  try {
    load(verifyFile);
  } catch (const LUMOException& failure) {
    report("Cannot read the credential in " + path + ": " + printable(failure.what(), 1024));
    throw;
  }
}

void ProtectedCredential::load(bool verifyFile) {
  loaded = false;
  const FileDescriptor file = verifyFile ? FileDescriptor(openChecked(path, FileSecrecy::Secret))
                                         : openRegular(path, O_RDONLY, 0, "Cannot read", true);
  if (!file) return;
  const std::string bytes = readAll(file.get(), path, SEALED_LIMIT);
  OpenedCredential opened = openCredential(bytes, path::MACHINE_KEYTAB);
  secret.assign(opened.secret.data(), opened.secret.size(), true);
  user = std::move(opened.user);
  keyVersion = opened.keyVersion;
  encType = opened.encType;
  loaded = true;
  reportWeak(path, encType);
}

void ProtectedCredential::getSecret(Shredder2& out) const {
  out.clear();
  if (secret.size() > 0) out.append(secret.bytes(), secret.size());
}

void ProtectedCredential::setCred(const std::string& account, const Shredder2& newSecret) {
  std::string copy = account;
  secret.assign(newSecret.data(), newSecret.size(), true);
  user.swap(copy);
}

void ProtectedCredential::storeToFile() {
  Shredder2 plain;
  getSecret(plain);
  const SealedCredential sealed = sealCredential(user, plain, path::MACHINE_KEYTAB);
  makeStateFolderFor(path);
  replaceFile(path, sealed.bytes.data(), sealed.bytes.size(), FileOwnerMode{0, 0, 0600});
  keyVersion = sealed.keyVersion;
  encType = sealed.encType;
  reportWeak(path, encType);
}

void ProtectedCredential::cleanup() {
  if (unlink(path.c_str()) != 0 && errno != ENOENT) throwSystem("Cannot remove", path, errno);
}

}  // namespace lumo
