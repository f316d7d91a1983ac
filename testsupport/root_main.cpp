// Tests that need uid 0: the whole test process lives in a private host.
#include <gmock/gmock.h>

#include <cstdio>
#include <system_error>

#include "testsupport/private_host.h"

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) {
    try {
      testsupport::enterPrivateHost();
    } catch (const std::system_error& failure) {
      std::fprintf(stderr, "These tests need uid 0 and namespaces of their own: %s\n", failure.what());
      return 1;
    }
  }
  return RUN_ALL_TESTS();
}
