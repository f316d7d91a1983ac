// An account with its password in one file that only root may read, encrypted under a key of the machine account.
#pragma once

#include <string>

#include "base/include/kerberos_data.h"
#include "base/include/shredder.h"

namespace lumo {

// The name of the web proxy's credential.
inline constexpr char PROXY_CREDENTIAL[] = "httpproxy";

// The file is /var/morvand/NAME.cred. One thread at a time. A user string of any bytes and an empty secret are valid.
//
// File format, all numbers big-endian: "MVPC" (4 bytes), format version 1 (1 byte), key version (4), encryption type
// (4): a header of 13 bytes; then the output of krb5_c_encrypt over the header once more, user length (4), user, secret
// length (4), secret, so that no field can be changed unseen. The key is that of the machine account in
// /etc/krb5.keytab: newest key version, strongest permitted type; a file under an older version opens as long as the
// keytab holds that version.
class ProtectedCredential {
 public:
  explicit ProtectedCredential(const std::string& credentialName)
      : name(credentialName), path("/var/morvand/" + credentialName + ".cred") {}
  virtual ~ProtectedCredential() = default;
  ProtectedCredential(const ProtectedCredential&) = delete;
  ProtectedCredential& operator=(const ProtectedCredential&) = delete;

  // Reads and decrypts the file. `verifyFile` checks owner and modes of the file and its folders first. A missing file
  // leaves isLoaded() false. Throws FileSecurityException when a check fails; a LUMOException for everything else that
  // is wrong with the file or the keytab, e.g. "encrypted with key version 3, which the keytab no longer holds; store
  // the credential again". What is thrown stands in the log too, as a warning, once for each cause, and so does an
  // encryption type that is weak.
  void loadFromFile(bool verifyFile);
  // Copies the secret.
  void getSecret(Shredder2& out) const;
  // Sets account and secret in memory.
  void setCred(const std::string& account, const Shredder2& newSecret);
  // Encrypts with the current key and replaces the file, whose folder is made when it is missing; getKeyVersion() and
  // getEncType() are then those of that key. Throws a LUMOException; the old file is then whole.
  void storeToFile();
  // Removes the file; one that is not there is no failure. Throws a LUMOException.
  void cleanup();

  const std::string& getUser() const { return user; }
  int getKeyVersion() const { return keyVersion; }
  int getEncType() const { return encType; }
  bool isLoaded() const { return loaded; }

 private:
  void load(bool verifyFile);

  std::string name;
  std::string path;
  bool loaded = false;
  std::string user;
  int keyVersion = 0;
  int encType = -1;
  KerberosData secret;
};

}  // namespace lumo
