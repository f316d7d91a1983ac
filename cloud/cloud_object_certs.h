// Whom a connection trusts: whether certificates are verified, and the bundle where the administrator names none.
#pragma once

#include <string>

class CurlObject;

// Verifies the peer's certificate and name unless the parameter of that name is true. Returns whether it does. Throws
// CurlException.
bool setVerification(CurlObject& connection, const char* skipParameter);

// The first of the distributions' well-known bundles whose size is not zero, or the empty string. A bundle that cannot
// be read counts as empty. Any thread.
std::string findCertBundle();
