// Whose Kerberos identity the libraries below use on this thread.
#pragma once

#include <string>

namespace lumo {

// While it lives, GSS exchanges of this thread that name no credential use this credential cache and no other; behind
// it the library's own default is in force again. Not to be nested. One thread.
class KerberosCcacheScope {
 public:
  // Throws KerberosException, naming the cache, when it does not exist or holds no identity: the library would else
  // look for another one.
  explicit KerberosCcacheScope(const std::string& name);
  ~KerberosCcacheScope();
  KerberosCcacheScope(const KerberosCcacheScope&) = delete;
  KerberosCcacheScope& operator=(const KerberosCcacheScope&) = delete;
};

}  // namespace lumo
