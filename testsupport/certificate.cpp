#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstdio>
#include <stdexcept>

#include "testsupport/http_server.h"

namespace testsupport {
namespace {

using Key = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;
using X509Owner = std::unique_ptr<X509, void (*)(X509*)>;
using File = std::unique_ptr<FILE, int (*)(FILE*)>;

File openFile(const std::string& path, const char* mode) {
  File file(std::fopen(path.c_str(), mode), &std::fclose);
  if (!file) throw std::runtime_error("cannot open " + path);
  return file;
}

void addExtension(X509* certificate, int nid, const std::string& value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, nid, value.c_str());
  if (extension == nullptr) throw std::runtime_error("extension " + value);
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

}  // namespace

Certificate makeCertificate(const std::string& folder, const std::string& fileName, const CertificateOptions& options) {
  static std::atomic<long> serial{1};
  const Key key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  const X509Owner made(X509_new(), &X509_free);
  X509_set_version(made.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(made.get()), serial++);
  X509_gmtime_adj(X509_getm_notBefore(made.get()), options.startsIn);
  X509_gmtime_adj(X509_getm_notAfter(made.get()), options.endsIn);
  X509_set_pubkey(made.get(), key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(made.get()), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(options.name.c_str()), -1, -1, 0);
  addExtension(made.get(), NID_subject_alt_name,
               "DNS:" + options.name + (options.address.empty() ? "" : ",IP:" + options.address));
  if (options.issuer == nullptr) {
    addExtension(made.get(), NID_basic_constraints, "critical,CA:TRUE");
    X509_set_issuer_name(made.get(), X509_get_subject_name(made.get()));
    X509_sign(made.get(), key.get(), EVP_sha256());
  } else {
    const X509Owner issuer(
        PEM_read_X509(openFile(options.issuer->certificateFile, "r").get(), nullptr, nullptr, nullptr), &X509_free);
    const Key issuerKey(PEM_read_PrivateKey(openFile(options.issuer->keyFile, "r").get(), nullptr, nullptr, nullptr),
                        &EVP_PKEY_free);
    X509_set_issuer_name(made.get(), X509_get_subject_name(issuer.get()));
    X509_sign(made.get(), issuerKey.get(), EVP_sha256());
  }
  const Certificate written{folder + "/" + fileName + ".crt", folder + "/" + fileName + ".key"};
  PEM_write_X509(openFile(written.certificateFile, "w").get(), made.get());
  PEM_write_PrivateKey(openFile(written.keyFile, "w").get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  return written;
}

}  // namespace testsupport
