#include "cloud/http/cloud_object_certs.h"

#include "basalt/files/file_security.h"
#include "base/include/exceptions.h"
#include "base/include/parameter_names.h"
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

void setTrust(CurlObject& connection, const Trust& trust) {
  connection.clearOpt(CURLOPT_CAINFO);
  connection.clearOpt(CURLOPT_CAPATH);
  connection.setOpt(CURLOPT_SSL_VERIFYPEER, trust.verifies ? 1 : 0);
  connection.setOpt(CURLOPT_SSL_VERIFYHOST, trust.verifies ? 2 : 0);
  if (!trust.verifies) return;
  if (!trust.bundle.empty()) {
    connection.setOpt(CURLOPT_CAINFO, trust.bundle);
  } else if (!trust.folder.empty()) {
    connection.setOpt(CURLOPT_CAPATH, trust.folder);
  }
}

bool verifies(const char* skipParameter) { return !lumo::Props(false, false).getBool(skipParameter, false); }

std::string platformBundle() {
  const std::string configured = lumo::Props(false, false).getProperty(lumo::PN::FERROD_CLOUD_CERT_STORE);
  return configured.empty() ? findCertBundle() : configured;
}

std::string findCertBundle() {
  for (const char* path : KNOWN_BUNDLES) {
    if (sizeOrZero(path) != 0) return path;
  }
  return std::string();
}
