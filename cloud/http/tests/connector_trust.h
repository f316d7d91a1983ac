// Certificates of connectors, and the folder in which a host trusts them.
#pragma once

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "testsupport/http_server.h"
#include "testsupport/temp_folder.h"

namespace negotiatetest {

// Puts the certificate into a folder as OpenSSL looks for it there.
inline void trustIn(const std::string& folder, const testsupport::Certificate& certificate) {
  std::filesystem::create_directories(folder);
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(certificate.certificateFile.c_str(), "r"), &std::fclose);
  const std::unique_ptr<X509, void (*)(X509*)> x509(PEM_read_X509(file.get(), nullptr, nullptr, nullptr), &X509_free);
  char name[16];
  std::snprintf(name, sizeof name, "/%08lx.0", X509_subject_name_hash(x509.get()));
  std::filesystem::remove(folder + name);  // left by an earlier test
  std::filesystem::create_symlink(certificate.certificateFile, folder + name);
}

// Of 127.0.0.1.
inline testsupport::Certificate certificateFor(const testsupport::TempFolder& folder, const char* name) {
  testsupport::CertificateOptions options;
  options.name = name;
  options.address = "127.0.0.1";
  return makeCertificate(folder.path(), name, options);
}

}  // namespace negotiatetest
