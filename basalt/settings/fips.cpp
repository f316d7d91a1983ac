#include "basalt/settings/fips.h"

#include <fcntl.h>
#include <unistd.h>

#include "basalt/files/posix_file.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"

namespace lumo {

bool FIPSHelper::isStarted() {
  if (Props(false, true).getBool(PN::FIPS_MODE_ENABLE, false)) return true;
  const FileDescriptor kernel(open("/proc/sys/crypto/fips_enabled", O_RDONLY | O_CLOEXEC));
  char first = '0';
  return kernel && read(kernel.get(), &first, 1) == 1 && first == '1';
}

bool FIPSHelper::bars(const std::string& authType) { return authType == "ntlm" || authType == "digest"; }

}  // namespace lumo
