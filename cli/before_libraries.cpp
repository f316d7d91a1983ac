// Cleans the environment before the constructors of the libraries run: those of the TLS libraries already look for
// variables of theirs, and open a file that one of them names. Only a program can have such a function, no library.
#include "basalt/process/process_environment.h"

namespace {

void cleanBeforeLibraries(int, char**, char** environment) { lumo::cleanEnvironment(environment); }

using Starter = void (*)(int, char**, char**);
__attribute__((section(".preinit_array"), used)) const Starter first = &cleanBeforeLibraries;

}  // namespace
