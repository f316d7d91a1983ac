#include "basalt/protected_credential.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "basalt/file_security.h"
#include "basalt/kerberos_seal.h"
#include "basalt/posix_file.h"
#include "basalt/secure_file.h"
#include "base/include/exceptions.h"
#include "base/include/parameter_names.h"

namespace lumo {
void ProtectedCredential::loadFromFile(bool verifyFile) {
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
  replaceFile(path, sealed.bytes.data(), sealed.bytes.size(), FileOwnerMode{0, 0, 0600});
  keyVersion = sealed.keyVersion;
  encType = sealed.encType;
}

void ProtectedCredential::cleanup() {
  if (unlink(path.c_str()) != 0 && errno != ENOENT) throwSystem("Cannot remove", path, errno);
}

}  // namespace lumo
