// A process of this test's own that finds settings of the LDAP library in its working folder and its home.
#pragma once

#include <limits.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "testsupport/process.h"
#include "testsupport/temp_folder.h"

// Everything that somebody may write there to keep a connection from coming about, to lead it elsewhere or to have it
// without protection. Not KEEPALIVE_*: the library itself writes that where it must not (2.5.13), which LDAPNOINIT
// alone prevents.
inline constexpr char HOSTILE_LDAP_SETTINGS[] =
    "URI ldap://127.0.0.1:1\n"
    "BASE cn=nobody\n"
    "BINDDN cn=nobody\n"
    "VERSION 2\n"
    "DEREF always\n"
    "REFERRALS on\n"
    "SIZELIMIT 1\n"
    "TIMELIMIT 1\n"
    "TIMEOUT 1\n"
    "NETWORK_TIMEOUT 1\n"
    "SASL_MECH PLAIN\n"
    "SASL_REALM NOWHERE.TEST\n"
    "SASL_AUTHCID nobody\n"
    "SASL_AUTHZID nobody\n"
    "SASL_NOCANON off\n"
    "SASL_SECPROPS none,minssf=0,maxssf=0,maxbufsize=0\n"
    "SASL_CBINDING tls-endpoint\n"
    "TLS_CACERT /nowhere\n"
    "TLS_REQCERT never\n";

// Runs tests of the running executable once more, in a process that reads these settings: nothing keeps it from that.
inline testsupport::ProcessResult runWithHostileLdapSettings(const std::string& filter) {
  char self[PATH_MAX] = "";
  if (readlink("/proc/self/exe", self, sizeof self - 1) < 0) throw std::runtime_error("who am I?");
  const testsupport::TempFolder folder;
  for (const char* name : {"ldaprc", ".ldaprc"}) testsupport::writeFile(folder.file(name), HOSTILE_LDAP_SETTINGS);
  return testsupport::run({"env", "--unset=LDAPNOINIT", "--chdir=" + folder.path(), "HOME=" + folder.path(), self,
                           "--gtest_filter=" + filter});
}
