// Tests that need uid 0: the whole test process lives in a private host.
#include <gmock/gmock.h>

#include <cstdio>
#include <system_error>

#include "testsupport/private_host.h"

namespace {

// A suite starts on a clean host, so that all of them may run in one process and in any order.
class CleanHostForEachSuite : public testing::EmptyTestEventListener {
  void OnTestSuiteStart(const testing::TestSuite&) override { testsupport::cleanPrivateHost(); }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) {
    try {
      testsupport::enterPrivateHost();
      testing::UnitTest::GetInstance()->listeners().Append(new CleanHostForEachSuite);
    } catch (const std::system_error& failure) {
      std::fprintf(stderr, "These tests need uid 0 and namespaces of their own: %s\n", failure.what());
      return 1;
    }
  }
  return RUN_ALL_TESTS();
}
