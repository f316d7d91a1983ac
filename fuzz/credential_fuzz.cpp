// The credential file. The first byte chooses: bytes as they come are opened; or an account is sealed and must open
// again as it was; or the sealed form is changed at the places that the input names, and must then not open.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "basalt/kerberos/kerberos_seal.h"
#include "base/include/exceptions.h"
#include "testsupport/keytab.h"

namespace {

const std::string& keytabPath() {
  static const std::string path = [] {
    const std::string name = "/tmp/ferro-fuzz-" + std::to_string(getpid()) + ".keytab";
    testsupport::writeKeytab(name, {{"HOST1$@CORP.FERRO.TEST", 3, 18, "machine-secret"},
                                    {"HOST1$@CORP.FERRO.TEST", 2, 17, "former-secret"}});
    std::atexit([] { unlink(keytabPath().c_str()); });
    return name;
  }();
  return path;
}

// True when the bytes opened.
bool opens(const std::string& bytes) {
  try {
    lumo::openCredential(bytes, keytabPath());
    return true;
  } catch (const LUMOException&) {
    return false;
  }
}

void roundTrip(const std::string& input) {
  const size_t half = input.size() / 2;
  const std::string user = input.substr(0, half);
  const lumo::Shredder2 secret(input.data() + half, input.size() - half);
  const auto sealed = lumo::sealCredential(user, secret, keytabPath());
  const auto opened = lumo::openCredential(sealed.bytes, keytabPath());
  if (opened.user != user || opened.secret != secret || opened.keyVersion != 3 || opened.encType != 18) std::abort();
}

// Pairs of place and mask.
void damage(const std::string& input) {
  static const std::string whole =
      lumo::sealCredential("alice", lumo::Shredder2("the secret of alice"), keytabPath()).bytes;
  std::string bytes = whole;
  for (size_t i = 0; i + 1 < input.size(); i += 2) {
    const size_t place = static_cast<unsigned char>(input[i]) % bytes.size();
    bytes[place] = static_cast<char>(bytes[place] ^ input[i + 1]);
  }
  if (opens(bytes) != (bytes == whole)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 3) {
    case 0:
      opens(input);
      break;
    case 1:
      roundTrip(input);
      break;
    default:
      damage(input);
  }
  return 0;
}
