// Owners of the Kerberos library's handles, and the plain context that they live in. Internal to the Kerberos unit.
#pragma once

#include <krb5.h>

#include <string>
#include <utility>

namespace lumo {

// Owns one handle; Free is the call that releases it. The context must outlive it. One thread.
template <class T, auto Free>
class KrbHandle {
 public:
  explicit KrbHandle(krb5_context context) noexcept : m_context(context) {}
  ~KrbHandle() { reset(); }
  KrbHandle(const KrbHandle&) = delete;
  KrbHandle& operator=(const KrbHandle&) = delete;

  T get() const noexcept { return m_handle; }
  // Where a call of the library puts a new handle; the one before is released.
  T* out() noexcept {
    reset();
    return &m_handle;
  }
  T release() noexcept { return std::exchange(m_handle, T{}); }
  void reset() noexcept {
    if (m_handle != T{}) Free(m_context, std::exchange(m_handle, T{}));
  }

 private:
  krb5_context m_context;
  T m_handle{};
};

using KrbPrincipal = KrbHandle<krb5_principal, krb5_free_principal>;
using KrbKeytab = KrbHandle<krb5_keytab, krb5_kt_close>;
using KrbCCache = KrbHandle<krb5_ccache, krb5_cc_close>;
using KrbNameText = KrbHandle<char*, krb5_free_unparsed_name>;
using KrbEncTypes = KrbHandle<krb5_enctype*, krb5_free_enctypes>;
using KrbInitOptions = KrbHandle<krb5_get_init_creds_opt*, krb5_get_init_creds_opt_free>;
using KrbInitCreds = KrbHandle<krb5_init_creds_context, krb5_init_creds_free>;

// Owns the contents of a filled-in record.
template <class T, auto Free>
class KrbRecord {
 public:
  explicit KrbRecord(krb5_context context) noexcept : m_context(context) {}
  ~KrbRecord() { clear(); }
  KrbRecord(const KrbRecord&) = delete;
  KrbRecord& operator=(const KrbRecord&) = delete;

  T& operator*() noexcept { return m_record; }
  T* operator->() noexcept { return &m_record; }
  T* out() noexcept {
    clear();
    return &m_record;
  }
  T release() noexcept { return std::exchange(m_record, T{}); }
  void clear() noexcept {
    Free(m_context, &m_record);
    m_record = T{};
  }

 private:
  krb5_context m_context;
  T m_record{};
};

using KrbCreds = KrbRecord<krb5_creds, krb5_free_cred_contents>;

// A context that reads neither configuration files nor the environment: enough for keytabs, names and cryptography,
// and indifferent to a damaged /etc/krb5.conf. Throws KerberosException.
class BareKerberosContext {
 public:
  BareKerberosContext();
  ~BareKerberosContext() { krb5_free_context(m_context); }
  BareKerberosContext(const BareKerberosContext&) = delete;
  BareKerberosContext& operator=(const BareKerberosContext&) = delete;
  krb5_context get() const noexcept { return m_context; }

 private:
  krb5_context m_context = nullptr;
};

// The library's own words for its last error in this context.
std::string krbErrorText(krb5_context context, krb5_error_code code);

// The default realm that the context's configuration files name; empty when they name none.
std::string realmOfProfile(krb5_context context);

// "NAME@REALM" of a principal. Throws KerberosException.
std::string principalText(krb5_context context, krb5_const_principal principal);

// Throws KerberosException with the text "WHAT: REASON" unless the code is 0.
void requireKrb(krb5_context context, krb5_error_code code, const char* what);

}  // namespace lumo
