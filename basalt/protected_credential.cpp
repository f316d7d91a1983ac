#include "basalt/protected_credential.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "basalt/file_security.h"
#include "basalt/kerberos_seal.h"
#include "basalt/secure_file.h"
#include "base/include/exceptions.h"
#include "base/include/parameter_names.h"

namespace lumo {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int fd) noexcept : m_fd(fd) {}
  ~Descriptor() {
    if (m_fd >= 0) close(m_fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const noexcept { return m_fd; }

 private:
  int m_fd;
};

// Without a check of owner and modes, but never through a link, and nothing that could block.
int openUnchecked(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0 && errno != ENOENT) {
    LUMO_THROW(SystemException, errno, "Cannot open %s: %s", path.c_str(), std::strerror(errno));
  }
  return fd;
}

}  // namespace

void ProtectedCredential::loadFromFile(bool verifyFile) {
  loaded = false;
  const Descriptor file(verifyFile ? openChecked(path, FileSecrecy::Secret) : openUnchecked(path));
  if (file.get() < 0) return;
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
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    LUMO_THROW(SystemException, errno, "Cannot remove %s: %s", path.c_str(), std::strerror(errno));
  }
}

}  // namespace lumo
