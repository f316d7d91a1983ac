// What one connection needs to pass an HTTP proxy that asks for Negotiate.
#pragma once

#include <gssapi/gssapi.h>

#include <memory>
#include <string>
#include <vector>

#include "basalt/directory/directory.h"
#include "basalt/kerberos/kerberos_credentials.h"
#include "base/include/kerb_wrap.h"
#include "base/include/shredder.h"

class CurlProxyNegotiateHelper;

// The block given along with the GSS set-up function: four words. The system fills the first and the last.
struct ProxyGssCallbacks {
  void* kdcLocator = nullptr;
  void* initialCredentials = nullptr;
  void* initialCredentialsData = nullptr;
  CurlProxyNegotiateHelper* helper = nullptr;
};

// Called before a GSS context starts: opaque value, service name or null, opaque value, unused, the block. Returns a
// GSS major status; 0 is success.
using GssSetupFunction = int (*)(void* first, const char* name, void* third, void* fourth, ProxyGssCallbacks* block);

// Set-up at a proxy: KDC locator, initial-credentials callback, and the allowed encryption types of the name's realm.
int proxyGssSetup(void* first, const char* name, void* third, void* fourth, ProxyGssCallbacks* block);
// The same at a web server, without the encryption types.
int serverGssSetup(void* first, const char* name, void* third, void* fourth, ProxyGssCallbacks* block);

// A credential cache for the proxy user, a GSS credential made from it, the canonical service name of the proxy, and
// the decision whether a failed request is worth one repeat. The user "S-1-5-18" is the machine, whose cache is only
// named here; any other user gets a private cache in memory that the helper owns. One thread: that of the CurlObject.
class CurlProxyNegotiateHelper {
 public:
  // Throws KerberosException when no Kerberos context can be made.
  CurlProxyNegotiateHelper();
  ~CurlProxyNegotiateHelper();
  CurlProxyNegotiateHelper(const CurlProxyNegotiateHelper&) = delete;
  CurlProxyNegotiateHelper& operator=(const CurlProxyNegotiateHelper&) = delete;

  // Forgets credential and cache, then stores user and password; empty ones wipe.
  void setCredentials(const std::string& newUser, const lumo::Shredder2& newPassword);
  void clearGSSCredential(bool clearUserCache);
  void clearUserKrb5CCache();
  // Asks the KDC for a ticket and keeps it in a new cache. Returns the cache's name, empty on failure, which is logged.
  // Does not throw.
  std::string createUserCCache();
  // True when a cache name is held. A cache that is there is kept, whatever the state of its tickets.
  bool initKrb5CCache();
  // Makes the credential; credential() is null when that failed.
  void initGSSCredential();
  // Is the failed request worth one repeat? Reads the header lines of the failed attempt.
  bool handleKrb5CCache(const std::vector<std::string>& headerLines);
  // Limits the credential to the encryption types allowed for the realm of a principal name.
  void setAllowableEtypes(const std::string& name);
  // Opens the bindings for canonicalizeSpn, the agent's or own ones; a catalogue that is not there is replaced by the
  // domain's controller. Throws what these throw.
  void setSpnLooker();
  // The canonical form, empty when it cannot be made, also because the directory does not answer. An agent remembers
  // it; else it waits for the directory, so that no lock of a caller should be held. Throws what setSpnLooker throws.
  std::string canonicalizeSpn(const std::string& spn);
  GssSetupFunction setupFunction() const { return &proxyGssSetup; }

  gss_cred_id_t credential() const { return gssCredential.get(); }
  ProxyGssCallbacks* callbackBlock() { return &callbacks; }
  const std::string& cacheName() const { return ccacheName; }

 private:
  using SpnLookup = ADBind* (*)(const std::string&, ADBind&, void (**)(ADBind*));

  std::string requestTicket();
  void releaseSpnBindings();

  MemoryCCache* userCCache = nullptr;
  krb5_context krbContext = nullptr;
  std::string ccacheName;
  std::string user;
  lumo::Shredder2 password;
  lumo::GSSCredential gssCredential;
  ProxyGssCallbacks callbacks;
  ADBind* spnBinding = nullptr;
  ADBind* spnGcBinding = nullptr;  // spnBinding itself where there is no catalogue
  SpnLookup spnLookup = nullptr;
  bool ownsSpnBindings = false;
};
