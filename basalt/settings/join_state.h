// Is this machine a member of a domain?
#pragma once

#include <string>

namespace lumo {

// True when the settings store names a domain, or else the machine keytab holds a computer account (NAME$@REALM). A
// keytab or a store that cannot be read counts as not joined. Any thread.
bool joined();

}  // namespace lumo
