// What a process that holds secrets does first: an agent, or a tool of root's.
#pragma once

namespace lumo {

// Keeps a process's secrets and its libraries to itself:
// - no core file and no debugger of another user's: the process is not dumpable, and its limit of core files, which
//   children inherit, is 0;
// - of the environment stay PATH, LANG, LC_*, TERM, TZ and what sudo says of its caller, as far as their values are
//   harmless (basalt's process_environment.h has the rules), and what `alsoKept` names: a null-terminated array of
//   names, of which one that ends in "*" stands for all that begin so. A service of systemd's that uses them keeps
//   "NOTIFY_*", "LISTEN_*" and "WATCHDOG_*". Everything else goes: by a variable, the libraries for TLS, Kerberos,
//   SASL and LDAP load code, write secrets to files, or turn to other servers;
// - LDAPNOINIT is set: the LDAP library reads no configuration file, such as "ldaprc" in the current folder.
// libcurl wipes what it gives back without this call: cloud/include/transport_start.h.
//
// To be called first in main, before any thread and any use of a library; a second call finds nothing more to do.
// Throws SystemException when the system refuses.
void secureProcess(const char* const* alsoKept = nullptr);

}  // namespace lumo
