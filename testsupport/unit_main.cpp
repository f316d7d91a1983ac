#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "testsupport/private_host.h"

int main(int argc, char** argv) {
  // No proxy of the developer's environment may stand between a test and its server.
  for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "all_proxy",
                           "NO_PROXY", "no_proxy", "KRB5CCNAME", "KRB5_CONFIG", "KRB5_KTNAME"}) {
    unsetenv(name);
  }
  testing::InitGoogleMock(&argc, argv);
  if (geteuid() == 0 && !testing::GTEST_FLAG(list_tests)) {
    // As root what a test remembers would stay on the machine, for the next test to find.
    try {
      testsupport::hideMachineState();
    } catch (const std::system_error& failure) {
      std::fprintf(stderr, "This machine's /etc/morvand and /var/morvand stay in sight: %s\n", failure.what());
    }
  }
  return RUN_ALL_TESTS();
}
