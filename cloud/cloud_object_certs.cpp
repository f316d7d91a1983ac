#include "cloud/cloud_object_certs.h"

#include "basalt/file_security.h"
#include "base/include/exceptions.h"

namespace {

constexpr const char* KNOWN_BUNDLES[] = {
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/usr/share/ssl/certs/ca-bundle.crt",
    "/usr/local/share/certs/ca-root-nss.crt",
    "/etc/ssl/cert.pem",
    "/etc/certs/ca-certificates.crt",
};

off_t sizeOrZero(const std::string& path) {
  try {
    return GetFileSize(path);
  } catch (const lumo::SystemException&) {
    return 0;
  }
}

}  // namespace

std::string findCertBundle() {
  for (const char* path : KNOWN_BUNDLES) {
    if (sizeOrZero(path) != 0) return path;
  }
  return std::string();
}
