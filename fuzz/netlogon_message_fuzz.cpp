// Datagrams that claim to be replies to the LDAP ping. What comes out stays within the bounds of names.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "basalt/directory/directory_ping.h"
#include "base/include/exceptions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  for (const bool inMessage : {true, false}) {
    try {
      if (inMessage) {
        lumo::parseNetlogonMessage(bytes, 1);
      } else if (lumo::parseNetlogonReply(bytes).clientSite.size() > 255) {
        std::abort();
      }
    } catch (const lumo::BadDataException&) {
    }
  }
  return 0;
}
