// A host of the test's own: the files of the machine stay as they are, whatever the test writes.
#pragma once

#include <string>

namespace testsupport {

// Moves this process into namespaces of its own (mounts, network, IPC, host name): /etc and /var are copies on write,
// /run, /etc/morvand, /var/morvand and /var/tmp empty, loopback is up, no keytab and no Kerberos configuration of the
// machine's. Needs uid 0. Throws std::system_error naming what is not allowed.
void enterPrivateHost();

// The small form, for tests that need no uid 0 and may have it: /etc/morvand and /var/morvand are empty and the
// process's own. Needs uid 0. Throws std::system_error naming what is not allowed.
void hideMachineState();

// Everything that a test may have left in the private host goes: /etc/morvand, /var/morvand, /run and the keytab.
void cleanPrivateHost();
// The same at both ends of a scope: the host remembers nothing of before, and nothing stays behind.
struct CleanPrivateHost {
  CleanPrivateHost() { cleanPrivateHost(); }
  ~CleanPrivateHost() { cleanPrivateHost(); }
  CleanPrivateHost(const CleanPrivateHost&) = delete;
  CleanPrivateHost& operator=(const CleanPrivateHost&) = delete;
};

// Mounts a tmpfs of `kilobytes` on the folder (made when missing), e.g. to run out of space; unmounted by
// cleanPrivateHost.
void mountSmall(const std::string& folder, int kilobytes);
// Makes a folder's file system read-only until cleanPrivateHost.
void mountReadOnly(const std::string& folder);

}  // namespace testsupport
