// A process of this test's own that finds settings of the LDAP library in its working folder and its home.
#pragma once

#include <unistd.h>

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

// The running executable, for a program that this process starts and waits for. Not the name that the link leads to: in
// a chroot that may be the one outside.
inline std::string ownImage() { return "/proc/" + std::to_string(getpid()) + "/exe"; }

// Runs tests of the running executable once more, in a process that reads these settings: nothing keeps it from that.
inline testsupport::ProcessResult runWithHostileLdapSettings(const std::string& filter) {
  const testsupport::TempFolder folder;
  for (const char* name : {"ldaprc", ".ldaprc"}) testsupport::writeFile(folder.file(name), HOSTILE_LDAP_SETTINGS);
  return testsupport::run({"env", "--unset=LDAPNOINIT", "--chdir=" + folder.path(), "HOME=" + folder.path(), ownImage(),
                           "--gtest_filter=" + filter});
}
