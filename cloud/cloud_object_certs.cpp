#include "cloud/cloud_object_certs.h"

#include "basalt/file_security.h"
#include "base/include/exceptions.h"
#include "base/include/properties.h"
#include "cloud/include/curl_object.h"

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

bool setVerification(CurlObject& connection, const char* skipParameter) {
  const bool verifies = !lumo::Props(false, false).getBool(skipParameter, false);
  connection.setOpt(CURLOPT_SSL_VERIFYPEER, verifies ? 1 : 0);
  connection.setOpt(CURLOPT_SSL_VERIFYHOST, verifies ? 2 : 0);
  return verifies;
}

std::string findCertBundle() {
  for (const char* path : KNOWN_BUNDLES) {
    if (sizeOrZero(path) != 0) return path;
  }
  return std::string();
}
