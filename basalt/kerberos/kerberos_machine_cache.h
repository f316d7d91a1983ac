// The credential cache of the machine account. Internal to the Kerberos unit.
#pragma once

#include <chrono>
#include <string>

namespace lumo {

// A cache whose ticket has less left is renewed.
inline constexpr std::chrono::minutes MACHINE_CACHE_RESERVE{10};
// A ticket that cannot be renewed is still used while it has this much left.
inline constexpr std::chrono::minutes MACHINE_CACHE_MINIMUM{1};

// The name ("FILE:PATH") of a cache with a ticket-granting ticket of the computer account in the keytab, made or
// renewed when needed (by lumo::Clock). A file that is no cache of this account, belongs to somebody else, is open to
// others or is a symbolic link is replaced. Several processes and threads may call at once: PATH.lock lets one renew,
// the others use its result. Throws KerberosException or lumo::SystemException with words that say what to do.
std::string machineCredentialCache(const std::string& keytabPath, const std::string& cachePath);

}  // namespace lumo
