// What the benchmarks share: a host that belongs to nobody, and the processor's time.
#pragma once

#include <time.h>

#include <string>

#include "basalt/kerberos/kerberos_credentials.h"
#include "testsupport/empty_directory.h"

// No ticket for anybody.
class NobodysTickets : public KerberosCredentialSource {
 public:
  NobodysTickets() { setInstance(this); }
  krb5_error_code ticketByPassword(krb5_context, krb5_principal, const lumo::Shredder&, const std::string&, int,
                                   krb5_creds*, std::string*) override {
    return KRB5_KDC_UNREACH;
  }
  std::string machineCache() override { return "MEMORY:nobody"; }
};

// Of this process, in seconds: other work on the machine hardly changes it.
inline double secondsSoFar() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}
