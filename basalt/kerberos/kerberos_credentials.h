// Where Kerberos credentials come from and where they are kept.
#pragma once

#include <gssapi/gssapi.h>

#include <string>
#include <vector>

#include "base/include/kerb_wrap.h"
#include "base/include/shredder.h"

// The seam of credentials: password requests to the KDC and the machine's cache. Any thread; a context serves one
// thread.
class KerberosCredentialSource {
 public:
  virtual ~KerberosCredentialSource() = default;

  // Ticket-granting ticket for a principal by password. The lifetime is in seconds. Returns 0 and fills creds, whose
  // contents the caller frees with krb5_free_cred_contents, or the Kerberos code and, when errorText is not null, a
  // text. A realm that is not empty takes the place of the principal's. Nobody is ever asked for anything: an empty
  // password is KRB5_PREAUTH_FAILED, an expired one KRB5KDC_ERR_KEY_EXP. KRB5_KDC_UNREACH after 30 seconds at most. One
  // attempt is one guess at one KDC; a password that a KDC has refused in the last minute gets that refusal again
  // without a request.
  virtual krb5_error_code ticketByPassword(krb5_context context, krb5_principal principal,
                                           const lumo::Shredder& password, const std::string& realm, int lifetime,
                                           krb5_creds* creds, std::string* errorText) = 0;

  // The name of a credential cache of the machine account. A ticket with less than ten minutes left is renewed; while
  // that fails it is used to its last minute. Throws KerberosException or another LUMOException with words that say
  // what to do.
  virtual std::string machineCache() = 0;

  static KerberosCredentialSource& getInstance();
  // Null puts the real one back. The caller keeps ownership. Only while one thread runs.
  static void setInstance(KerberosCredentialSource* source);
};

// Asks the KDC for a ticket-granting ticket. Result 0 on success, `creds` then filled; otherwise the Kerberos code, and
// a text in errorText when it is not null. The two unused places and the last are null in every call.
krb5_error_code getCredentials(krb5_context context, krb5_principal principal, const lumo::Shredder& password,
                               krb5_creds* creds, std::string* errorText, void*, void*, const std::string& realm,
                               int lifetime, void*);

// A private in-memory credential cache, destroyed with the object. One thread. `context` must outlive it.
class MemoryCCache {
 public:
  // A new cache with a name of its own, initialised for the principal. Throws KerberosException.
  MemoryCCache(krb5_context context, krb5_principal principal);
  ~MemoryCCache();
  MemoryCCache(const MemoryCCache&) = delete;
  MemoryCCache& operator=(const MemoryCCache&) = delete;

  // Stores a copy. When the KDC answered for another client name than asked, the cache takes that name. Throws
  // KerberosException.
  void storeCred(const krb5_creds& creds);

  // "MEMORY:..."
  const std::string name;

 private:
  MemoryCCache(krb5_context context, krb5_principal principal, krb5_ccache cache);
  krb5_context m_context;
  krb5_ccache m_cache;
};

namespace lumo {

// A GSS credential made from a named cache, with SPNEGO and Kerberos as mechanisms. One thread.
class GSSCredential {
 public:
  GSSCredential() = default;
  ~GSSCredential() { releaseCred(); }
  GSSCredential(const GSSCredential&) = delete;
  GSSCredential& operator=(const GSSCredential&) = delete;

  // Builds the credential from the cache; one held before is released. Returns the raw handle, GSS_C_NO_CREDENTIAL on
  // failure, which is logged as a warning with the library's words. An empty name never means the default cache: it
  // fails.
  gss_cred_id_t acquireCred(const char* ccacheName);
  // Handle back to GSS_C_NO_CREDENTIAL.
  void releaseCred() noexcept;
  // Limits the encryption types of the credential; the GSS major status.
  OM_uint32 setAllowableEtypes(unsigned count, const int* list);
  gss_cred_id_t get() const noexcept { return m_handle; }

 private:
  gss_cred_id_t m_handle = GSS_C_NO_CREDENTIAL;
};

}  // namespace lumo

class ADUser {
 public:
  // The realm of a user: the text behind the last "@" in upper case, else the joined domain in upper case. The second
  // argument is null in every call. Throws what lumo::loadSetting throws.
  static std::string getRealmName(const std::string& user, void*);
};

class ADHelper {
 public:
  // KerberosCredentialSource::machineCache of the instance in force.
  static std::string GetMachineCredCache();
};

// Number of encryption types that the library knows.
unsigned krb5_enctypes_length();

// Fills the list with the encryption types allowed for the realm (permitted_enctypes of the profile without weak ones
// unless these are allowed); at most `capacity`. Returns the count. The list is not terminated. Throws
// KerberosException.
unsigned getKrb5EncList(int* list, unsigned capacity, const std::string& realm);

// A KDC as the name service announces it.
struct KdcAddress {
  std::string host;
  unsigned short port = 0;
};

// The agent's KDC locator, the first word of a set-up block. Finds the KDCs of a realm by their SRV records, those of
// the directory's domain controllers first, in the order in which they are to be tried; `data` is null or a
// std::vector<KdcAddress>* that takes them. Returns 0 when there is at least one, else KRB5_REALM_CANT_RESOLVE. Ends
// within seconds when no name server answers. Does not throw. Any thread.
extern "C" int krb5_dc_locator_callback(const char* realm, void* data);

// Installs the locator for the GSS exchange about to start on this thread: with a locator in place the KDCs of the
// joined realm are looked up ahead of the exchange, so that the name service is asked, and its silence noticed and
// logged, before a connection waits for it. A null locator leaves the library's own look-up. Returns GSS_S_COMPLETE,
// minor 0: an exchange whose KDC is not found fails by itself.
OM_uint32 gss_init_server_locator(OM_uint32* minor, void* first, void* second, void* locator, void* block);
// Installs the initial-credentials callback; a null callback, all that this system gives, installs nothing and is
// GSS_S_COMPLETE. The stock library has no place for another one: GSS_S_UNAVAILABLE.
OM_uint32 gss_init_gic_callback(OM_uint32* minor, void* first, void* second, void* callback, void* data);
