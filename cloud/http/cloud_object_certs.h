// What a connection trusts: are certificates verified, and by which bundle or folder. Every connection's trust is set
// here.
#pragma once

#include <string>

class CurlObject;

// What is trusted: a bundle of certificates, else a folder, else nothing.
struct Trust {
  bool verifies = true;  // false: nobody's certificate or name is verified, and bundle and folder do not matter
  std::string bundle;
  std::string folder;
};

// From here on the connection trusts exactly this, whatever it trusted before; a proxy that is reached by TLS is
// trusted likewise. Throws CurlException.
void setTrust(CurlObject& connection, const Trust& trust);

// True unless the parameter of that name, one of those that switch verification off, is true.
bool verifies(const char* skipParameter);

// The bundle for the platform: `ferrod.cloud.cert.store`, else that of findCertBundle.
std::string platformBundle();

// The first of the distributions' well-known bundles whose size is not zero, or the empty string. A bundle that cannot
// be read counts as empty. Any thread.
std::string findCertBundle();
