// Keytabs made by tests, with keys of their own choice.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

struct KeytabEntry {
  std::string principal;  // "HOST1$@CORP.EXAMPLE.TEST"
  int kvno = 1;
  int encType = 18;                         // AES-256
  std::string password = "machine-secret";  // the key is derived from it
};

// Writes the file anew, mode 0600. Throws std::runtime_error.
void writeKeytab(const std::string& path, const std::vector<KeytabEntry>& entries);

}  // namespace testsupport
