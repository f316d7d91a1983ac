#include "cloud/include/process_start.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "basalt/process/process_environment.h"
#include "base/include/exceptions.h"

namespace lumo {
namespace {

void require(int result, const char* what) {
  if (result != 0) LUMO_THROW(SystemException, errno, "Cannot %s: %s", what, std::strerror(errno));
}

}  // namespace

void secureProcess(const char* const* alsoKept) {
  cleanEnvironment(environ, alsoKept);
  require(setenv("LDAPNOINIT", "1", 1), "set LDAPNOINIT");
  // The limit alone is not enough: the kernel does not ask it where cores go to a program.
  require(prctl(PR_SET_DUMPABLE, 0, 0, 0, 0), "leave this process out of core files");
  const rlimit none{0, 0};
  require(setrlimit(RLIMIT_CORE, &none), "forbid core files");
}

}  // namespace lumo
