// FIPS mode of this process.
#pragma once

namespace lumo {

class FIPSHelper {
 public:
  // True when `fips.mode.enable` is set in the configuration, or the kernel's own switch
  // (/proc/sys/crypto/fips_enabled) is.
  static bool isStarted();
};

}  // namespace lumo
