// The search for a certificate bundle where the administrator names none.
#pragma once

#include <string>

// The first of the distributions' well-known bundles whose size is not zero, or the empty string. A bundle that cannot
// be read counts as empty. Any thread.
std::string findCertBundle();
