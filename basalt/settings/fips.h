// FIPS mode of this process.
#pragma once

#include <string>

namespace lumo {

class FIPSHelper {
 public:
  // True when `fips.mode.enable` is set in the configuration, or the kernel's own switch
  // (/proc/sys/crypto/fips_enabled) is.
  static bool isStarted();
  // Does FIPS mode rule the proxy authentication type (a name in lower case) out? Also asked while it is off.
  static bool bars(const std::string& authType);
};

}  // namespace lumo
