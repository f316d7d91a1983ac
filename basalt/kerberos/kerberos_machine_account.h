// Which of a keytab's computer accounts is this machine's. Internal to the Kerberos unit.
#pragma once

#include <string>
#include <vector>

#include "basalt/kerberos/kerberos_keytab.h"

namespace lumo {

// What tells this machine's account from others in its keytab, as a clone, a rename or a former domain leaves them.
struct AccountHints {
  std::string host;   // the host's name, with or without its domain
  std::string realm;  // the default realm, empty when there is none
};

// The newest key of this machine's account: of the accounts first one that is called like the host, then one in the
// default realm; then the highest key version, and of these the one written last. Null when there is no key.
const MachineKey* machineKey(const std::vector<MachineKey>& keys, const AccountHints& hints);

// The same with the hints of this host: its name; the default realm of the Kerberos configuration, else the domain in
// the settings store. They are looked up only where the keys belong to several accounts. Hints that cannot be read are
// left out. Any thread.
const MachineKey* machineKey(const std::vector<MachineKey>& keys);

}  // namespace lumo
