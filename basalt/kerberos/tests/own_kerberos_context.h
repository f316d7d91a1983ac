// Kerberos without a KDC, in a test.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "base/include/kerb_wrap.h"
#include "testsupport/temp_folder.h"

// A configuration of the test's own, a context of it, and somebody.
class OwnKerberosContext : public testing::Test {
 protected:
  OwnKerberosContext() {
    configure("");
    setenv("KRB5CCNAME", ("FILE:" + folder.file("default")).c_str(), 1);
    context = std::make_unique<KerberosContext>();
    alice = parse("alice@CORP.TEST");
  }
  ~OwnKerberosContext() override {
    krb5_free_principal(context->get(), alice);
    unsetenv("KRB5_CONFIG");
    unsetenv("KRB5CCNAME");
  }

  void configure(const std::string& more) const {
    testsupport::writeFile(folder.file("krb5.conf"),
                           "[libdefaults]\n default_realm = CORP.TEST\n dns_lookup_kdc = false\n" + more);
    setenv("KRB5_CONFIG", folder.file("krb5.conf").c_str(), 1);
  }
  krb5_principal parse(const char* name) const {
    krb5_principal principal = nullptr;
    EXPECT_EQ(krb5_parse_name(context->get(), name, &principal), 0);
    return principal;
  }

  testsupport::TempFolder folder;
  std::unique_ptr<KerberosContext> context;
  krb5_principal alice = nullptr;
};
