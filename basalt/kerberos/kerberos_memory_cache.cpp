#include "basalt/kerberos/kerberos_credentials.h"
#include "basalt/kerberos/kerberos_handles.h"

namespace {

krb5_ccache newUniqueCache(krb5_context context) {
  krb5_ccache cache = nullptr;
  lumo::requireKrb(context, krb5_cc_new_unique(context, "MEMORY", nullptr, &cache), "krb5_cc_new_unique");
  return cache;
}

std::string fullName(krb5_context context, krb5_ccache cache) {
  char* text = nullptr;
  const krb5_error_code rc = krb5_cc_get_full_name(context, cache, &text);
  if (rc != 0) {
    krb5_cc_destroy(context, cache);
    lumo::requireKrb(context, rc, "krb5_cc_get_full_name");
  }
  std::string name = text;
  krb5_free_string(context, text);
  return name;
}

}  // namespace

MemoryCCache::MemoryCCache(krb5_context context, krb5_principal, krb5_ccache cache)
    : name(fullName(context, cache)), m_context(context), m_cache(cache) {}

// The delegation makes the object whole before the cache is initialised: the destructor runs when that fails.
MemoryCCache::MemoryCCache(krb5_context context, krb5_principal principal)
    : MemoryCCache(context, principal, newUniqueCache(context)) {
  lumo::requireKrb(context, krb5_cc_initialize(context, m_cache, principal), "krb5_cc_initialize");
}

MemoryCCache::~MemoryCCache() { krb5_cc_destroy(m_context, m_cache); }

void MemoryCCache::storeCred(const krb5_creds& creds) {
  lumo::KrbPrincipal owner(m_context);
  lumo::requireKrb(m_context, krb5_cc_get_principal(m_context, m_cache, owner.out()), "krb5_cc_get_principal");
  if (creds.client != nullptr && krb5_principal_compare(m_context, owner.get(), creds.client) == 0) {
    lumo::requireKrb(m_context, krb5_cc_initialize(m_context, m_cache, creds.client), "krb5_cc_initialize");
  }
  lumo::requireKrb(m_context, krb5_cc_store_cred(m_context, m_cache, const_cast<krb5_creds*>(&creds)),
                   "krb5_cc_store_cred");
}
