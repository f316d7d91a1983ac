#include "cloud/include/process_start.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "testsupport/process.h"

namespace {

// What a process that has called it says of itself.
std::string afterwards(const char* const* alsoKept = nullptr, int calls = 1) {
  testsupport::ProcessOptions options;
  options.environment = {{"LDAPRC", "x"}, {"LDAPNOINIT", ""}, {"NOTIFY_SOCKET", "/run/n"}, {"TZ", "UTC0"}};
  const auto body = [=] {
    const rlimit some{0, RLIM_INFINITY};
    setrlimit(RLIMIT_CORE, &some);
    for (int i = 0; i < calls; ++i) lumo::secureProcess(alsoKept);
    rlimit core{1, 1};
    getrlimit(RLIMIT_CORE, &core);
    std::printf("dumpable %d, core %lu %lu", prctl(PR_GET_DUMPABLE), core.rlim_cur, core.rlim_max);
    for (const char* name : {"LDAPRC", "LDAPNOINIT", "NOTIFY_SOCKET", "TZ"}) {
      const char* const value = std::getenv(name);
      std::printf(", %s", value == nullptr ? "-" : value);
    }
    return 0;
  };
  const auto result = testsupport::runInChild(body, options);
  EXPECT_EQ(result.status, 0) << result.err;
  return result.out;
}

TEST(SecureProcess, LeavesNoCoreNoForeignVariableAndNoConfigurationOfTheLdapLibrarys) {
  EXPECT_EQ(afterwards(), "dumpable 0, core 0 0, -, 1, -, UTC0");
}

TEST(SecureProcess, KeepsTheVariablesThatTheProgramNames) {
  const char* const kept[] = {"NOTIFY_*", nullptr};
  EXPECT_EQ(afterwards(kept), "dumpable 0, core 0 0, -, 1, /run/n, UTC0");
}

TEST(SecureProcess, MayBeCalledTwice) { EXPECT_EQ(afterwards(nullptr, 2), "dumpable 0, core 0 0, -, 1, -, UTC0"); }

}  // namespace
