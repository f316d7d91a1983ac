// The library of testsupport/canary, for tests in a private host.
#pragma once

#include <string>

namespace testsupport {

// Path of the built library.
inline std::string canaryLibrary() { return FERRO_CANARY; }

// The file that it makes when a program loads it: the environment that it found, one variable a line.
inline constexpr char CANARY_FILE[] = "/var/tmp/canary";

}  // namespace testsupport
