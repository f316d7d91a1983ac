// Tests in the private domain: started by lab/lab, which describes itself in the environment.
#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests) && std::getenv("FERRO_LAB") == nullptr) {
    std::fprintf(stderr, "These tests run inside the lab: lab/lab run -- %s\n", argv[0]);
    return 1;
  }
  return RUN_ALL_TESTS();
}
