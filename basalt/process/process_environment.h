// Which variables of its environment a process keeps, and what its children get.
#pragma once

#include <string>
#include <vector>

namespace lumo {

// The search path of children, whatever PATH is here: a program of root's must not look in folders of its caller's.
inline constexpr char CHILD_PATH[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

// Removes every variable but these from a null-terminated array of "NAME=VALUE", in place; the order stays.
//   PATH                  any value
//   LANG, LC_*, TERM      printable, without "/" and "%"
//   TZ                    printable, without blank and "..": a name below the system's folder of time zones, or a rule
//   SUDO_USER             any value: data for a record, to be escaped where it is shown
//   SUDO_UID, SUDO_GID    decimal digits
//   SUDO_COMMAND          up to its first blank; what follows, which may hold a password, is overwritten with zeros
// A value that is not as told goes with its variable. `also` names further variables to keep, a null-terminated array
// or null; a name that ends in "*" stands for all that begin so. Calls nothing but plain C functions on memory,
// allocates nothing, never throws: it may run before the constructors of libraries. No other thread may use the
// environment meanwhile.
void cleanEnvironment(char** environment, const char* const* also = nullptr) noexcept;

// The environment of a child: of this process's the variables above, with CHILD_PATH as PATH. "NAME=VALUE" each.
std::vector<std::string> childEnvironment();

}  // namespace lumo
