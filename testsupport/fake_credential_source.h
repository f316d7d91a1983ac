// A Kerberos credential source without a KDC.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "basalt/kerberos/kerberos_credentials.h"

namespace testsupport {

// In force from construction to destruction. One thread, but for the cache that bindings of an agent ask for on theirs.
class FakeCredentialSource : public KerberosCredentialSource {
 public:
  FakeCredentialSource() { setInstance(this); }
  ~FakeCredentialSource() override { setInstance(nullptr); }
  FakeCredentialSource(const FakeCredentialSource&) = delete;
  FakeCredentialSource& operator=(const FakeCredentialSource&) = delete;

  // One request as it was made. The password is kept, so use none that matters.
  struct Request {
    std::string principal;
    std::string password;
    std::string realm;
    int lifetime = 0;
  };

  // What the next requests get: 0 for a ticket, valid for ten hours, with a session key of zeros.
  krb5_error_code result = 0;
  std::string errorText = "refused";
  // What machineCache gives; with an empty name it throws KerberosException with machineError.
  std::string machineCacheName = "MEMORY:machine";
  std::string machineError = "no machine account";
  std::vector<Request> requests;
  std::atomic<int> machineCacheCalls{0};

  krb5_error_code ticketByPassword(krb5_context context, krb5_principal principal, const lumo::Shredder& password,
                                   const std::string& realm, int lifetime, krb5_creds* creds,
                                   std::string* text) override;
  std::string machineCache() override;
};

// A ticket-granting ticket of nobody's making for the principal, good for that many seconds from now on by
// lumo::Clock. The caller frees its contents with krb5_free_cred_contents.
krb5_creds handMadeTicket(krb5_context context, krb5_const_principal client, int seconds);

}  // namespace testsupport
